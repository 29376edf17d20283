#pragma once

#include <string>

// Putting a kept copy back. Each returns the exit status: 0 done; 1 failed after the first change; 2 nothing was
// touched.

// `copy` may be empty: the latest.
int restore_command(std::string copy);

int list_command();
