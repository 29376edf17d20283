#pragma once

#include <mysql.h>

// The spam filter's settings, the server's and each mail name's, replayed through the panel's utility spamsetup.

// The argument vector of one run of the utility. Its texts lie in one block, so nothing is allocated per argument.
struct arg_vector {
    static constexpr int slot_count = 100; // the last one is always null
    static constexpr int text_bytes = 16384;
    const char *slots[slot_count];
    int count;
    char text[text_bytes];
    int used;
};

// A state of a vector that it can be cut back to.
struct arg_mark {
    int count;
    int used;
};

// Makes a vector empty.
void arg_clear(arg_vector &args);

// Appends a copy of the text. False, and the vector as it was, when the text is empty, does not fit with its
// terminator into the free bytes, or 99 arguments are there.
bool arg_append(arg_vector &args, const char *text);

arg_mark arg_state(const arg_vector &args);
void arg_cut(arg_vector &args, const arg_mark &state);

// Replays the server's settings and those of every mail name of every domain with the mail service, on a connection of
// its own. A connection, domain query or mail name query that fails ends the process with a report; what fails for one
// name is reported and the next one is served, but for a child process that cannot be made, which is fatal too.
void spam_rebuild_settings();

// spam_apply_settings for the server-wide name "*@*".
int spam_apply_server(MYSQL *db);

// spam_apply_settings for MAIL_NAME@DOMAIN. An empty or missing part: "empty mailname or maildomain", and -1.
int spam_apply_mailname(const char *mail_name, const char *domain, MYSQL *db);

// Replays the settings of one full name; long lists are split over several runs of the utility. Works on `db`, or,
// given null, on a connection of its own. Returns 0 when they were applied or there are none (or the component is not
// installed), -1 after a report (not fatal) otherwise. Ends the process as is_component_installed does, and
// when no child process or no memory is to be had.
int spam_apply_settings(const char *full_name, MYSQL *db);
