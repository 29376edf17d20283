#pragma once

// Services of the hosting server, controlled through their init scripts.

// Runs one init script, with its name as argv[0] and the action as its argument, detached from our terminal and
// descriptors and on /dev/null, and waits for it (not for the daemons it starts). "graceful" becomes "restart" while
// no httpd2-prefork runs. Returns 0 when the script ended with status 0, -1 otherwise, after a report (not fatal) that
// names the service and what failed; a failing exit status is not reported when `report` is 0 or the action "status".
// A script that is missing, no regular file, not executable or empty ends the process with a report.
int run_service_script(const char *script, const char *name, const char *action, int report);

// The panel's service control. Returns 0, also when the configuration switches restarts off (NO_RESTART_DAEMON), or -1
// after a report. Ends the process as run_service_script does.
int service_control(const char *service, const char *action);
