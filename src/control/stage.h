#pragma once

#include "common/owned.h"
#include "control/places.h"

#include <functional>
#include <string>
#include <vector>

// A run of the installed mboxfix aside: on the live database and configuration, in mount and process namespaces of its
// own, where every place that it writes to is covered by an overlay, everything else is closed to writing, no process
// of the system is in sight, qmail-newu, qmail's script and the panel's utilities only note their calls, and the
// password file is a copy, so that nobody waits for anybody's lock. Nothing of it can outlive this process: what the
// run wrote lies in memory and is reached through one descriptor.

struct stage {
    owned_fd dir; // "u/N" is what the run wrote to covered[N]; "out", "err" and "calls" what it said and called
    places where;
    int status;        // of the run: its exit status, or 128 and a signal's number
    std::string cause; // when it could not be staged: one line
};

// Runs `program` with `option` on a stage. Calls `watch` several times a second while it goes on. False, with the
// cause, when it could not be staged; how the run itself ended is in the status.
bool run_staged(stage &made, const std::string &program, const std::string &option, const std::function<void()> &watch);

// The layer of a place: the directory that holds what the run wrote there.
owned_fd open_layer(const stage &made, std::size_t number);

// A file of the stage as text, whole; empty when it is not there.
std::string stage_text(const stage &made, const char *name);

// Memory that is a directory: gone with its last descriptor. -1 where the kernel has none.
owned_fd memory_dir();
