#pragma once

#include "control/findings.h"

// Whether a run may succeed here: looked at without changing anything.

// Looks at the configuration alone, and loads it if it is whole.
bool check_configuration(check_result &result);

// Looks at the programs that have to be called when the lists are in place: qmail-newu and qmail's script.
void check_programs(check_result &result);

// Looks at everything in turn. The configuration is loaded with it, if it is whole; where it is not, or the database
// cannot be reached, what hangs on it is left out.
check_result check_everything(const run_mode &mode, bool looks_for_runs);
