#pragma once

#include "common/owned.h"

#include <mysql.h>
#include <span>

// Connections to the panel's database: user "admin", database "vlq", on the database server of this machine. Nothing
// is pooled, cached or retried.

using owned_db = std::unique_ptr<MYSQL, releaser<mysql_close>>;
using owned_rows = std::unique_ptr<MYSQL_RES, releaser<mysql_free_result>>;

// Reads the first line of /etc/vlq/.vlq.shadow, without its newline and cut to the buffer. Returns 0, or -1 with the
// reason in the message buffer.
int read_admin_password(std::span<char> password, std::span<char> message);

// Opens a connection, with foreign-key checks off and the character set that the panel's setting asks for. Returns
// null, with the reason (one line, cut to the buffer) in the message buffer, on any failure. Reports nothing.
owned_db panel_db_connect(std::span<char> message);

// panel_db_connect that reports the reason (not fatal).
owned_db panel_db_open();

// Sends a query and keeps its whole result. Null on any failure, with
// the reason in mysql_error. Reports nothing.
owned_rows panel_db_rows(MYSQL *db, const char *query);

// panel_db_rows of a query that is formatted, and cut, to 4096 bytes. A failure ends the process: "Unable to query
// WHAT: %s", with this system-error flag.
owned_rows panel_db_rows_safe(MYSQL *db, int system_error_flag, const char *what, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
