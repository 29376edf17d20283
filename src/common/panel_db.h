#pragma once

#include "common/owned.h"

#include <mysql.h>
#include <span>

// Connections to the panel's database: database "vlq" of the local server, as user "admin". Nothing is pooled, cached
// or retried.

using owned_db = std::unique_ptr<MYSQL, releaser<mysql_close>>;
using owned_rows = std::unique_ptr<MYSQL_RES, releaser<mysql_free_result>>;

// Copies the first line of /etc/vlq/.vlq.shadow, without its newline, to `password`, cut to that buffer. Returns 0, or
// -1 with the reason in `message`.
int read_admin_password(std::span<char> password, std::span<char> message);

// Returns a new connection, with foreign-key checks off and the character set of the panel's setting; or null, with the
// reason in `message`, cut to that buffer. Reports nothing.
owned_db panel_db_connect(std::span<char> message);

// panel_db_connect that reports the reason (not fatal) before it returns null.
owned_db panel_db_open();

// Sends a query and returns its whole result, or null with the reason in mysql_error(). Reports nothing.
owned_rows panel_db_rows(MYSQL *db, const char *query);

// panel_db_rows whose failure ends the process: "Unable to query WHAT: %s", with this system_error_flag.
owned_rows panel_db_rows_safe(MYSQL *db, int system_error_flag, const char *what, const char *query);
