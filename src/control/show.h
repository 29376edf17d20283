#pragma once

#include "control/changes.h"

#include <string>

// What is shown of a staged run, on standard output. Of two lines of users/poppasswd that differ in nothing but their
// hashes nothing is shown: each run has hashes of its own.

// Whether anything that is shown would change.
bool is_anything_shown(const changes &found);

// The numbers: a line for each list that changes, then directories, files, owners, calls.
std::string summary_of(const stage &made, const changes &found);

// Every change: unified diffs, with the hashes masked, and a line for what has no text.
void show_changes(const changes &found);

// What the run reported.
void show_reports(const stage &made);

// Puts a pager behind standard output when that is a terminal; the destructor waits for it.
struct pager {
    explicit pager(const std::string &command);
    pager(const pager &) = delete;
    ~pager();
    pid_t child = 0;
};
