#pragma once

// Services of the hosting server, controlled through their init scripts.

// Runs an init script with `name` as argv[0] and the action as its argument: in the script's directory, in its own
// session, on /dev/null, without other descriptors. Waits for the script, not for the daemons that it starts. The
// action "graceful" becomes "restart" while no httpd2-prefork runs. Returns 0 when the script exits with 0. Any other
// end returns -1 after a report (not fatal) of the service and the failure; an exit status is not reported when
// `report` is 0 or the action is "status". A script that a signal stops has failed and is left stopped. One that is
// missing, empty, not executable or no regular file ends the process with a report.
int run_service_script(const char *script, const char *name, const char *action, int report);

// Runs the init script of one of the panel's services. Does nothing and returns 0 when the configuration has a value
// for NO_RESTART_DAEMON. Otherwise returns 0, or -1 after a report; there is no report of a failed "status", of a web
// server that does not come up, or of Tomcat processes that do not end. Beyond the script:
// - The web server, named by HTTPD_SERVICE: "start", "restart" and "force-reload" succeed when "status" does, which is
//   tried up to 21 times, a second apart. "stop", even a failed one, runs PRODUCT_ROOT_D/bin/ipc_sweep.sh.
// - Tomcat: after a failed "stop" its processes get signals for up to 30 seconds; it succeeds once none is left.
// - ColdFusion and JRun: the panel's database has the script's path (if not: "CF not configured in Velqa.\n").
// - A running web server is stopped and started after a Tomcat stop and any ColdFusion or JRun action but "status" that
//   succeeded; on a container host purge_deferred_dirs runs in between.
// Ends the process as run_service_script does, and when the database cannot be reached for ColdFusion or JRun.
int service_control(const char *service, const char *action);
