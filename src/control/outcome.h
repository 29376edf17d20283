#pragma once

#include "common/owned.h"
#include "control/findings.h"
#include "control/publish.h"

#include <chrono>
#include <string>
#include <vector>

// What the commands have in common: how they begin, how they end and what they say of it.

// Exit statuses.
inline constexpr int done = 0;
inline constexpr int would_change = 1;
inline constexpr int failed = 1;
inline constexpr int untouched = 2;

// How often something is staged at the most, while other programs go on changing it.
inline constexpr int max_stages = 3;

// What an apply or a restore is about.
struct session {
    std::string command; // for the log
    std::string copy;    // its path, once it is made
    owned_fd copy_tree;  // what is in it
    publishing state;
    double stage_seconds;
    double publish_seconds;
};

using instant = std::chrono::steady_clock::time_point;
double seconds_since(instant start);

// Removes the copy again: nothing has been changed.
void drop_copy(session &at);

// Loads the configuration and takes the run's lock. False after a complaint.
bool prepare(owned_fd &lock);

// Complains of all that is wrong and of the rows that would be passed over. True when something is wrong.
bool complain_of(const check_result &result);

// Complains of each. Returns the exit status.
int give_up(const std::vector<std::string> &causes);

// Says, also in the logs, how a publishing ended that did not succeed, and what is in place. Returns the exit status.
int end_badly(const session &at, publish_end end);

// Says, also in the logs, that all is done, and how to undo it.
void tell_done(const session &at);
