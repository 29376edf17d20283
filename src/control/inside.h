#pragma once

#include "control/places.h"

#include <vector>

// The inner half of a stage: the first process of its namespaces, and the run in them.

struct inner_run {
    int stage_dir;
    int report;    // gets "status N" at the end of the run, or one line that says why there was none
    int other_end; // of the report, to be closed
    const std::vector<place> *covered;
    const char *program;
    const char *option;
};

// Prepares the namespaces that the calling process, a child, was started in, and runs the program there. Ends with the
// process that started it.
[[noreturn]] void run_inside(const inner_run &run);
