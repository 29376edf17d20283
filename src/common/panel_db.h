#pragma once

#include <mysql.h>
#include <span>

// Connections to the panel's database: user "admin", database "vlq", on the database server of this machine. Whoever
// opens one closes it with mysql_close; nothing is pooled, cached or retried.

// Reads the first line of /etc/vlq/.vlq.shadow, without its newline and cut to the buffer. Returns 0, or -1 with the
// reason in the message buffer.
int read_admin_password(std::span<char> password, std::span<char> message);

// Opens a connection, with foreign-key checks off and the character set that the panel's setting asks for. Returns
// none, with the reason (one line, cut to the buffer) in the message buffer, on any failure. Reports nothing.
MYSQL *panel_db_connect(std::span<char> message);

// panel_db_connect that reports the reason (not fatal).
MYSQL *panel_db_open();

// Sends a query and keeps its whole result, which the caller frees with mysql_free_result. None on any failure, with
// the reason in mysql_error. Reports nothing.
MYSQL_RES *panel_db_rows(MYSQL *db, const char *query);

// panel_db_rows of a query that is formatted, and cut, to 4096 bytes. A failure ends the process: "Unable to query
// WHAT: %s", with this system-error flag.
MYSQL_RES *panel_db_rows_safe(MYSQL *db, int system_error_flag, const char *what, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
