#pragma once

// Services of the hosting server, controlled through their init scripts.

// Runs one init script, with its name as argv[0] and the action as its argument, detached from our terminal and
// descriptors and on /dev/null, and waits for it (not for the daemons it starts). "graceful" becomes "restart" while
// no httpd2-prefork runs. Returns 0 when the script ended with status 0, -1 otherwise, after a report (not fatal) that
// names the service and what failed; a failing exit status is not reported when `report` is 0 or the action "status".
// A script that a signal has stopped counts as failed and is left as it is.
// A script that is missing, no regular file, not executable or empty ends the process with a report.
int run_service_script(const char *script, const char *name, const char *action, int report);

// The panel's service control: runs the init script of one of its services. Returns 0, also when the
// configuration switches restarts off (NO_RESTART_DAEMON, then nothing is run), or -1 after a report (without one for a
// failed "status", for 21 probes in vain, for Tomcat's processes that stay). Beyond the script:
// - the web server (named by HTTPD_SERVICE) counts as started, restarted or reloaded only when its "status" succeeds
//   within 21 probes, one a second; its "stop" is followed by bin/ipc_sweep.sh of the product, whatever came of it;
// - Tomcat's failed "stop" is made good by signals, over at most 30 seconds, when no process of it is left;
// - ColdFusion and JRun have their scripts where the panel's database says (unknown: "CF not configured in Velqa.\n");
// - a ColdFusion or JRun action other than "status" and a Tomcat stop, when they succeed, bounce a running web server.
// Ends the process as run_service_script does, and when the panel's database cannot be reached for ColdFusion's path.
int service_control(const char *service, const char *action);
