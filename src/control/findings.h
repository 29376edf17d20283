#pragma once

#include <string>
#include <vector>

// What a check finds.

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

// True when nothing is wrong.
bool is_fine(const check_result &result);
