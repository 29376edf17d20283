#pragma once

#include "common/panel_db.h"

#include <cstddef>

// Single values from the panel database. A lookup works on the connection that it is lent, or, given null, on one of
// its own. Its result lies in a static buffer of 4096 bytes, cut to it, that the next lookup of the
// same family overwrites: "" means no row or NULL, null that the question could not be asked (reported, not fatal).
// A connection that cannot be opened is reported by its own message, then "Unable to connect to the mysql database\n".
//
// Every text that a lookup puts between quotes (its value, or all its texts) must be null or free of \ " and ': an
// asserted precondition, in every build. Free text goes through db_escape and a query of the caller's own.

// True when a text keeps that precondition.
bool is_plain_text(const char *text);

// A connection that was lent, or one opened for want of it, which goes with the loan.
struct db_loan {
    MYSQL *db; // null when none could be opened, which has then been reported as above
    owned_db own;
};

// The second report of a failure has this system-error flag.
db_loan lend_or_open(MYSQL *lent, int system_error_flag);

// These three share one buffer.
// A column of the query's first row. A failed query: "Unable to query parameter by query %s: %s\n".
const char *get_param_by_query(const char *query, MYSQL *connection, unsigned column);
// The value column of the first row whose key column equals the value.
const char *get_param_simple(const char *value, const char *table, const char *key_column, const char *value_column,
                             MYSQL *connection);
// A panel-wide setting.
const char *get_misc_param(const char *name, MYSQL *connection);

// A limit of a domain. A failed query: "Unable to query domain limit %s: %s\n".
const char *get_dom_Limit(const char *domain_id, const char *limit_name, MYSQL *connection);

// A parameter of a domain's service. A failed query: "Unable to query domain parameter %s: %s\n".
const char *get_DomainService_Parameter(const char *domain_id, const char *service_type, const char *parameter,
                                        MYSQL *connection);

// The e-mail address of a domain's owner or, when that is empty, the panel administrator's. A failed query: "Unable
// to define clients email: %s\n"; no address at all: "Unable to define admin email\n", and null.
const char *get_client_email(const char *domain_id, MYSQL *connection);

// Copies the installed version of a panel component, cut to the buffer. Opens a connection of its own on every call.
// Any failure, a package without a row or with two included, ends the process.
void get_component_version(const char *package, char *output, std::size_t size);

// 1 when the component is installed, 0 when its version is "not_installed". Ends the process as
// get_component_version does.
int is_component_installed(const char *package);

// A new copy of the text, escaped for a quoted string of this connection. Null for null.
owned_text db_escape(MYSQL *connection, const char *text);

// realloc() that never fails: without memory it reports "alloc(%d)" (the size) and ends the process.
void *xrealloc(void *block, std::size_t size);
