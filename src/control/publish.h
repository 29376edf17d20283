#pragma once

#include "control/changes.h"

#include <functional>
#include <string>
#include <vector>

// Puts what a stage holds in the place of the live files: each by a rename, under its named lock, with its owner and
// mode. First the lines that go leave control/rcpthosts, then directories and the files of mailboxes, users/assign and
// qmail-newu, the other lists and virsetup, the restart of qmail, and at last the lines that come enter rcpthosts, so
// that no mail is turned away for a domain on its way in or out.

enum class publish_end {
    done,
    changed,     // another program has changed a file meanwhile: to be staged again
    failed,      // with the cause
    interrupted, // by a signal, between two files
};

struct publishing {
    bool has_begun;                    // something was put in place
    std::vector<std::string> in_place; // what, one phrase each
    std::string cause;                 // of a failure, one line
};

// `keep_copy` is called once nothing has changed meanwhile, under the locks of all the lists that change; false ends
// the publishing before it has begun, as failed. `calls_virsetup` tells whether the antivirus engine is to be told.
publish_end publish(const changes &found, bool calls_virsetup, const std::function<bool(std::string &)> &keep_copy,
                    publishing &state);
