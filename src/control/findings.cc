#include "control/findings.h"

#include <algorithm>

bool is_fine(const check_result &result)
{
    return std::all_of(result.lines.begin(), result.lines.end(), [](const finding_line &line) { return line.is_ok; });
}
