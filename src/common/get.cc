#include "common/get.h"

#include "common/error.h"
#include "common/queries.h"

#include <cassert>
#include <cstdlib>
#include <cstring>

#ifdef NDEBUG
#error "the preconditions of the lookups must be checked in every build"
#endif

namespace {

text param_buffer;
text limit_buffer;
text service_param_buffer;
text client_email_buffer;

// Copies a column of the first row of the query that was just sent; "" when there is none.
void fetch_value(MYSQL *db, unsigned column, text &value)
{
    const owned_rows result(mysql_store_result(db));
    const MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
    format_text(value, "%s", row && row[column] ? row[column] : "");
}

// Sends the query in the buffer and puts its value in the same place. `kind` and `name` say what was asked for.
const char *get_domain_value(MYSQL *connection, text &buffer, const char *kind, const char *name)
{
    const db_loan loan = lend_or_open(connection, 0);
    if (!loan.db)
        return nullptr;
    if (mysql_query(loan.db, buffer) != 0) {
        report_error(0, 0, "Unable to query domain %s %s: %s\n", kind, name, mysql_error(loan.db));
        return nullptr;
    }
    fetch_value(loan.db, 0, buffer);
    return buffer;
}

} // namespace

bool is_plain_text(const char *text)
{
    return !text || !strpbrk(text, "\\\"'");
}

db_loan lend_or_open(MYSQL *lent, int system_error_flag)
{
    if (lent)
        return {lent, nullptr};
    char message[text_size + 1];
    db_loan loan = {nullptr, panel_db_connect(message)};
    loan.db = loan.own.get();
    if (!loan.db) {
        report_error(0, 0, "%s", message);
        report_error(0, system_error_flag, "Unable to connect to the mysql database\n");
    }
    return loan;
}

const char *get_param_by_query(const char *query, MYSQL *connection, unsigned column)
{
    const db_loan loan = lend_or_open(connection, 1);
    if (!loan.db)
        return nullptr;
    if (mysql_query(loan.db, query) != 0) {
        report_error(0, 1, "Unable to query parameter by query %s: %s\n", query, mysql_error(loan.db));
        return nullptr;
    }
    fetch_value(loan.db, column, param_buffer);
    return param_buffer;
}

const char *get_param_simple(const char *value, const char *table, const char *key_column, const char *value_column,
                             MYSQL *connection)
{
    assert(is_plain_text(value));
    return get_param_by_query(formatted(param_query, value_column, table, key_column, value), connection, 0);
}

const char *get_misc_param(const char *name, MYSQL *connection)
{
    return get_param_simple(name, "misc", "param", "val", connection);
}

const char *get_dom_Limit(const char *domain_id, const char *limit_name, MYSQL *connection)
{
    assert(is_plain_text(domain_id) && is_plain_text(limit_name));
    format_text(limit_buffer, limit_query, domain_id, limit_name);
    return get_domain_value(connection, limit_buffer, "limit", limit_name);
}

const char *get_DomainService_Parameter(const char *domain_id, const char *service_type, const char *parameter,
                                        MYSQL *connection)
{
    assert(is_plain_text(domain_id) && is_plain_text(service_type) && is_plain_text(parameter));
    format_text(service_param_buffer, service_parameter_query, domain_id, service_type, parameter);
    return get_domain_value(connection, service_param_buffer, "parameter", parameter);
}

const char *get_client_email(const char *domain_id, MYSQL *connection)
{
    assert(is_plain_text(domain_id));
    const db_loan loan = lend_or_open(connection, 0);
    if (!loan.db)
        return nullptr;
    if (mysql_query(loan.db, formatted(client_email_query, domain_id)) != 0) {
        report_error(0, 0, "Unable to define clients email: %s\n", mysql_error(loan.db));
        return nullptr;
    }
    fetch_value(loan.db, 0, client_email_buffer);
    if (*client_email_buffer.bytes != '\0')
        return client_email_buffer;
    const char *admin_email = get_misc_param("admin_email", loan.db);
    if (!admin_email || admin_email[0] == '\0') {
        report_error(0, 0, "Unable to define admin email\n");
        return nullptr;
    }
    format_text(client_email_buffer, "%s", admin_email);
    return client_email_buffer;
}

void get_component_version(const char *package, char *output, std::size_t size)
{
    const owned_db db = panel_db_open();
    if (!db)
        report_fatal(1, "Unable to connect to the Velqa database");
    if (mysql_query(db.get(), formatted(component_query, db_escape(db.get(), package).get())) != 0)
        report_fatal(1, "Error during mysql_query: %s", mysql_error(db.get()));
    const owned_rows result(mysql_store_result(db.get()));
    if (!result)
        report_fatal(1, "Error during mysql_store_result: %s", mysql_error(db.get()));
    if (mysql_num_rows(result.get()) > 1)
        report_fatal(1, "Duplicate record in Components table for package %s", package);
    if (mysql_num_rows(result.get()) == 0)
        report_fatal(1, "Package '%s' is not found in Components table", package);
    const MYSQL_ROW row = mysql_fetch_row(result.get());
    if (!row)
        report_fatal(1, "Error during mysql_fetch_row: %s", mysql_error(db.get()));
    if (!row[0])
        report_fatal(1, "NULL version for package '%s' in database", package);
    format_text({output, size}, "%s", row[0]);
}

int is_component_installed(const char *package)
{
    text version;
    get_component_version(package, version.bytes, sizeof version.bytes);
    return strcmp(version, "not_installed") != 0;
}

owned_text db_escape(MYSQL *connection, const char *text)
{
    if (!text)
        return nullptr;
    const std::size_t length = strlen(text);
    owned_text escaped(static_cast<char *>(xrealloc(nullptr, 2 * length + 1)));
    mysql_real_escape_string(connection, escaped.get(), text, length);
    return escaped;
}

void *xrealloc(void *block, std::size_t size)
{
    void *grown = realloc(block, size);
    if (!grown)
        report_fatal(1, "alloc(%d)", static_cast<int>(size));
    return grown;
}
