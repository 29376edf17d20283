#include "common/panel_db.h"

#include "common/error.h"
#include "common/queries.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

namespace {

constexpr const char *password_path = "/etc/vlq/.vlq.shadow";

// Says why the connection could not be prepared. Returns false for its caller.
bool give_up(MYSQL *db, const char *label, std::span<char> message)
{
    if (mysql_errno(db) != 0)
        format_text(message, "DB error (%s) %u: %s", label, mysql_errno(db), mysql_error(db));
    else
        format_text(message, "DB error (%s): unknown error", label);
    return false;
}

// True when the panel says that it speaks the character sets of the servers since 4.1. A setting that cannot be read
// counts as no.
bool is_mysql41_compatible(MYSQL *db)
{
    const owned_rows result(mysql_store_result(db));
    const MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
    return row && row[0] && row[0][0] != '\0' && strcmp(row[0], "false") != 0;
}

bool choose_names(MYSQL *db, std::span<char> message)
{
    if (mysql_query(db, names_query) != 0)
        return give_up(db, "mysql41 compatible query", message);
    const char *names = is_mysql41_compatible(db) ? "SET NAMES utf8" : "SET NAMES binary";
    return mysql_query(db, names) == 0 || give_up(db, "set names query", message);
}

bool prepare(MYSQL *db, std::span<char> message)
{
    mysql_query(db, "set foreign_key_checks=0");
    if (mysql_query(db, "SHOW VARIABLES LIKE 'version'") != 0)
        return give_up(db, "query version", message);
    owned_rows result(mysql_store_result(db));
    if (!result)
        return give_up(db, "store query result", message);
    const MYSQL_ROW row = mysql_fetch_row(result.get());
    if (!row || !row[1])
        return give_up(db, row ? "empty version result" : "fetch version row", message);
    const bool knows_names = strncmp(row[1], "3.", 2) != 0 && strncmp(row[1], "4.0.", 4) != 0;
    result.reset(); // before the next query
    return !knows_names || choose_names(db, message);
}

} // namespace

int read_admin_password(std::span<char> password, std::span<char> message)
{
    const owned_stream file(fopen(password_path, "rte"));
    if (!file) {
        format_text(message, "Unable to open admin password file: %s", strerror(errno));
        return -1;
    }
    if (!fgets(password.data(), static_cast<int>(password.size()), file.get())) {
        format_text(message, "Unable to read admin password file: %s", strerror(errno));
        return -1;
    }
    const std::size_t length = strlen(password.data());
    if (length > 0 && password[length - 1] == '\n')
        password[length - 1] = '\0';
    return 0;
}

owned_db panel_db_connect(std::span<char> message)
{
    char password[100];
    if (read_admin_password(password, message) != 0)
        return nullptr;
    owned_db db(mysql_init(nullptr));
    if (!db) {
        format_text(message, "Unable to initialize MySQL connection structure: %s", strerror(ENOMEM));
        errno = ENOMEM;
        return nullptr;
    }
    if (!mysql_real_connect(db.get(), nullptr, "admin", password, "vlq", 0, nullptr, 0)) {
        format_text(message, "Unable to connect to Velqa Database: %s", mysql_error(db.get()));
        return nullptr;
    }
    fcntl(static_cast<int>(db->net.fd), F_SETFD, FD_CLOEXEC); // the client library leaves it open for our children
    return prepare(db.get(), message) ? std::move(db) : nullptr;
}

owned_db panel_db_open()
{
    char message[text_size + 1];
    owned_db db = panel_db_connect(message);
    if (!db)
        report_error(0, 0, "%s", message);
    return db;
}

owned_rows panel_db_rows(MYSQL *db, const char *query)
{
    return owned_rows(mysql_query(db, query) == 0 ? mysql_store_result(db) : nullptr);
}

owned_rows panel_db_rows_safe(MYSQL *db, int system_error_flag, const char *what, const char *query)
{
    owned_rows rows = panel_db_rows(db, query);
    if (!rows)
        report_fatal(system_error_flag, "Unable to query %s: %s", what, mysql_error(db));
    return rows;
}
