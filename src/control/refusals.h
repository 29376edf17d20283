#pragma once

#include "control/changes.h"

#include <string>
#include <vector>

// Why what a stage holds is not to be put in place: the run failed, would remove mail or a mailbox, comes by a link of
// somebody's, or wrote where the real place cannot be written. Empty when nothing is wrong.
std::vector<std::string> find_refusals(const stage &made, const changes &found);
