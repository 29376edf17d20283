#pragma once

#include "control/findings.h"

#include <string>

// The commands of mboxfixctl. Each returns the exit status: 0 done; 1 something would change (preview), or failed after
// the publishing began (apply); 2 nothing was touched.

int check_command(const run_mode &mode);
int preview_command(const run_mode &mode, bool is_short, const std::string &pager_command);
int apply_command(const run_mode &mode, bool is_agreed);
