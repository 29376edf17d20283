#include "common/get.h"

#include "common/error.h"
#include "common/panel_db.h"

#include <cassert>
#include <cstdlib>
#include <cstring>

#ifdef NDEBUG
#error "the preconditions of the lookups must be checked in every build"
#endif

namespace {

using result_buffer = char[text_size];

result_buffer param_buffer;
result_buffer limit_buffer;
result_buffer service_param_buffer;
result_buffer client_email_buffer;

int send_query(MYSQL *db, const char *query)
{
    return mysql_real_query(db, query, strlen(query));
}

// Copies a column of the first row of the query that was just sent; "" when there is none.
void fetch_value(MYSQL *db, unsigned column, result_buffer &value)
{
    MYSQL_RES *result = mysql_store_result(db);
    const MYSQL_ROW row = result ? mysql_fetch_row(result) : nullptr;
    format_text(value, "%s", row && row[column] ? row[column] : "");
    mysql_free_result(result);
}

// Sends the query in the buffer and puts its answer in the same place. `failure` names what was asked for.
const char *ask(MYSQL *db, MYSQL *lent, result_buffer &buffer, const char *failure, const char *name)
{
    const bool asked = send_query(db, buffer) == 0;
    if (asked)
        fetch_value(db, 0, buffer);
    else
        report_error(0, 0, "Unable to query domain %s %s: %s\n", failure, name, mysql_error(db));
    close_own(db, lent);
    return asked ? buffer : nullptr;
}

// The address of the owner that was just asked for, else the administrator's.
const char *choose_email(MYSQL *db)
{
    fetch_value(db, 0, client_email_buffer);
    if (client_email_buffer[0] != '\0')
        return client_email_buffer;
    const char *admin_email = get_misc_param("admin_email", db);
    if (!admin_email || admin_email[0] == '\0') {
        report_error(0, 0, "Unable to define admin email\n");
        return nullptr;
    }
    format_text(client_email_buffer, "%s", admin_email);
    return client_email_buffer;
}

} // namespace

bool is_plain_text(const char *text)
{
    return !text || !strpbrk(text, "\\\"'");
}

MYSQL *lend_or_open(MYSQL *lent, int system_error_flag)
{
    if (lent)
        return lent;
    char message[text_size + 1];
    MYSQL *db = panel_db_connect(message);
    if (!db) {
        report_error(0, 0, "%s", message);
        report_error(0, system_error_flag, "Unable to connect to the mysql database\n");
    }
    return db;
}

void close_own(MYSQL *db, const MYSQL *lent)
{
    if (!lent)
        mysql_close(db);
}

const char *get_param_by_query(const char *query, MYSQL *connection, unsigned column)
{
    MYSQL *db = lend_or_open(connection, 1);
    if (!db)
        return nullptr;
    const bool asked = mysql_query(db, query) == 0;
    if (asked)
        fetch_value(db, column, param_buffer);
    else
        report_error(0, 1, "Unable to query parameter by query %s: %s\n", query, mysql_error(db));
    close_own(db, connection);
    return asked ? param_buffer : nullptr;
}

const char *get_param_simple(const char *value, const char *table, const char *key_column, const char *value_column,
                             MYSQL *connection)
{
    assert(is_plain_text(value));
    char query[text_size];
    format_text(query, "select %s from %s where %s='%s'", value_column, table, key_column, value);
    return get_param_by_query(query, connection, 0);
}

const char *get_misc_param(const char *name, MYSQL *connection)
{
    return get_param_simple(name, "misc", "param", "val", connection);
}

const char *get_dom_Limit(const char *domain_id, const char *limit_name, MYSQL *connection)
{
    assert(is_plain_text(domain_id) && is_plain_text(limit_name));
    MYSQL *db = lend_or_open(connection, 0);
    if (!db)
        return nullptr;
    format_text(limit_buffer,
                "select l.value from domains d, Limits l \t\t\t\t where d.id='%s' and d.limits_id=l.id"
                "  and l.limit_name='%s'",
                domain_id, limit_name);
    return ask(db, connection, limit_buffer, "limit", limit_name);
}

const char *get_DomainService_Parameter(const char *domain_id, const char *service_type, const char *parameter,
                                        MYSQL *connection)
{
    assert(is_plain_text(domain_id) && is_plain_text(service_type) && is_plain_text(parameter));
    MYSQL *db = lend_or_open(connection, 0);
    if (!db)
        return nullptr;
    format_text(service_param_buffer,
                "select r.value from DomainServices s, Parameters r \t\t\t\t where s.dom_id='%s' and s.type='%s'"
                " and s.parameters_id=r.id  and r.parameter='%s'",
                domain_id, service_type, parameter);
    return ask(db, connection, service_param_buffer, "parameter", parameter);
}

const char *get_client_email(const char *domain_id, MYSQL *connection)
{
    assert(is_plain_text(domain_id));
    MYSQL *db = lend_or_open(connection, 0);
    if (!db)
        return nullptr;
    char query[text_size];
    format_text(query, "select c.email from domains d, clients c \t\t\t\t\t\t\t\t\twhere d.cl_id=c.id and d.id='%s'",
                domain_id);
    const char *email = nullptr;
    if (send_query(db, query) == 0)
        email = choose_email(db);
    else
        report_error(0, 0, "Unable to define clients email: %s\n", mysql_error(db));
    close_own(db, connection);
    return email;
}

void get_component_version(const char *package, char *output, std::size_t size)
{
    MYSQL *db = panel_db_open();
    if (!db)
        report_fatal(1, "Unable to connect to the Velqa database");
    char *escaped = db_escape(db, package);
    char query[text_size];
    format_text(query, "SELECT version FROM Components WHERE name = '%s'", escaped);
    free(escaped);

    if (mysql_query(db, query) != 0)
        report_fatal(1, "Error during mysql_query: %s", mysql_error(db));
    MYSQL_RES *result = mysql_store_result(db);
    if (!result)
        report_fatal(1, "Error during mysql_store_result: %s", mysql_error(db));
    if (mysql_num_rows(result) > 1)
        report_fatal(1, "Duplicate record in Components table for package %s", package);
    if (mysql_num_rows(result) == 0)
        report_fatal(1, "Package '%s' is not found in Components table", package);
    const MYSQL_ROW row = mysql_fetch_row(result);
    if (!row)
        report_fatal(1, "Error during mysql_fetch_row: %s", mysql_error(db));
    if (!row[0])
        report_fatal(1, "NULL version for package '%s' in database", package);
    format_text({output, size}, "%s", row[0]);
    mysql_free_result(result);
    mysql_close(db);
}

int is_component_installed(const char *package)
{
    char version[text_size];
    get_component_version(package, version, sizeof version);
    return strcmp(version, "not_installed") != 0;
}

char *db_escape(MYSQL *connection, const char *text)
{
    if (!text)
        return nullptr;
    const std::size_t length = strlen(text);
    char *escaped = static_cast<char *>(xrealloc(nullptr, 2 * length + 1));
    mysql_real_escape_string(connection, escaped, text, length);
    return escaped;
}

void *xrealloc(void *block, std::size_t size)
{
    void *grown = realloc(block, size);
    if (!grown)
        report_fatal(1, "alloc(%d)", static_cast<int>(size));
    return grown;
}
