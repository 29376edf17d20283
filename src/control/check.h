#pragma once

#include <mysql.h>
#include <string>
#include <vector>

// Whether a run may succeed here: looked at without changing anything.

struct finding_line {
    bool is_ok;
    std::string text; // what was looked at, and what is wrong and what to do about it
};

// What a run is to do besides the rebuild.
struct run_mode {
    bool with_rebuild;
    bool with_spam;
    const char *option; // of mboxfix
};

struct check_result {
    std::vector<finding_line> lines;
    std::vector<std::string> warnings; // rows that would be passed over
    std::size_t domains;               // that a run would walk
    bool has_spam_filter;
};

// Looks at the configuration alone, and loads it if it is whole.
bool check_configuration(check_result &result);

// Looks at everything in turn. The configuration is loaded with it, if it is whole; where it is not, or the database
// cannot be reached, what hangs on it is left out.
check_result check_everything(const run_mode &mode, bool looks_for_runs);

// True when nothing is wrong.
bool is_fine(const check_result &result);
