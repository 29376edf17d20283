#pragma once

#include "common/panel_db.h"

#include <cstddef>

// Single values from the panel database. A lookup uses the caller's connection, or, given null, opens one and closes
// it. It returns a text, cut to 4095 bytes: "" for no row, a NULL or rows that cannot be fetched. The text lies in a
// static buffer, which the next call overwrites; get_param_by_query, get_param_simple and get_misc_param share one,
// each other lookup has its own. When it cannot connect or query, a lookup returns null after a report (not fatal). A
// failed connection is reported with its reason and then as "Unable to connect to the mysql database\n".
//
// The texts that a lookup quotes in its query (`value` and `name`; an id, limit, service type and parameter) must be
// null or free of \ " and '. This is asserted in every build. Other texts need db_escape and the caller's own query.

// True when a text may be quoted as it is: null, or free of those characters.
bool is_plain_text(const char *text);

// The caller's connection, or one of our own, which is closed with the loan.
struct db_loan {
    MYSQL *db; // null after the reports of a failed connection
    owned_db own;
};

// `lent`, or a new connection when that is null. The second report of a failure gets this system_error_flag.
db_loan lend_or_open(MYSQL *lent, int system_error_flag);

// A column, from 0, of the query's first row. Reports a failed query as "Unable to query parameter by query %s: %s\n".
const char *get_param_by_query(const char *query, MYSQL *connection, unsigned column);

// By get_param_by_query: the value_column of the first row whose key_column equals `value`.
const char *get_param_simple(const char *value, const char *table, const char *key_column, const char *value_column,
                             MYSQL *connection);

// By get_param_simple: a panel-wide setting.
const char *get_misc_param(const char *name, MYSQL *connection);

// A limit of a domain. Reports a failed query as "Unable to query domain limit %s: %s\n".
const char *get_dom_Limit(const char *domain_id, const char *limit_name, MYSQL *connection);

// A parameter of a domain's service. Reports a failed query as "Unable to query domain parameter %s: %s\n".
const char *get_DomainService_Parameter(const char *domain_id, const char *service_type, const char *parameter,
                                        MYSQL *connection);

// The e-mail address of a domain's owner or, when that is empty, of the panel's administrator, from
// get_misc_param. Reports a failed query as "Unable to define clients email: %s\n". Returns null, after "Unable to
// define admin email\n", when there is neither.
const char *get_client_email(const char *domain_id, MYSQL *connection);

// Copies the installed version of a panel component to `output`, cut to `size` bytes with the terminator. Opens and
// closes a connection. Any failure ends the process with a report, also a package without exactly one row.
void get_component_version(const char *package, char *output, std::size_t size);

// Returns 0 when the component's version is "not_installed", else 1. Ends the process as get_component_version does.
int is_component_installed(const char *package);

// A new string: the text, escaped for quotes on this connection. Null for null. Ends the process as xrealloc does.
owned_text db_escape(MYSQL *connection, const char *text);

// realloc() that never returns null: when memory runs out it ends the process with "alloc(%d)", the size.
void *xrealloc(void *block, std::size_t size);
