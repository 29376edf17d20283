#pragma once

#include <cstddef>
#include <mysql.h>

// The spam filter's settings, the server's and each mail name's, applied again by the panel's utility spamsetup.

// How far an argument vector is filled.
struct arg_mark {
    std::size_t slots;
    std::size_t bytes; // of texts, with their terminators
};

// The argument vector of one run of the utility. It holds its texts itself. Empty it with arg_cut to {} before its use.
struct arg_vector {
    const char *slots[100]; // with the null pointer behind the last argument
    char texts[16384];
    arg_mark end;
};

// Appends a copy of the text. Returns false, leaving the vector as it was, for an empty text and when no slot or too
// few bytes are free.
bool arg_append(arg_vector &args, const char *text);

// Cuts the vector back to a former `end`.
void arg_cut(arg_vector &args, const arg_mark &end);

// Applies the server's settings and those of every mail name of every domain with the mail service, on a connection of
// its own. A failed connection, query for domains or query for mail names ends the process with a report, as does what
// spam_apply_settings ends it for. Any other failure is reported, and the next name follows.
void spam_rebuild_settings();

// spam_apply_settings for the server-wide name "*@*".
int spam_apply_server(MYSQL *db);

// spam_apply_settings for MAIL_NAME@DOMAIN. A null or empty part returns -1 after "empty mailname or maildomain".
int spam_apply_mailname(const char *mail_name, const char *domain, MYSQL *db);

// Applies the settings of one full name, in several runs of the utility where they do not fit into one. Uses `db`, or,
// given null, a connection of its own. Returns 0 when they are applied, when there are none, and when the component is
// not installed; -1 after a report (not fatal) otherwise. Ends the process as is_component_installed does, and when
// memory runs out or no child process can be made.
int spam_apply_settings(const char *full_name, MYSQL *db);
