#pragma once

#include "control/findings.h"

#include <mysql.h>

// The panel's rows, as a run would take them: adds what would be passed over and what would end it, by name.
void check_rows(MYSQL *db, check_result &result);

// How many mail names have no directory yet.
std::size_t count_missing_mailboxes(MYSQL *db);

// How many domains have the mail service; 0 when it cannot be asked.
std::size_t count_domains();
