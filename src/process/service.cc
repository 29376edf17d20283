#include "process/service.h"

#include "common/conf.h"
#include "common/error.h"
#include "common/get.h"
#include "common/panel_db.h"
#include "process/exec.h"
#include "process/remove_tree.h"
#include "process/send_sig.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <libgen.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char *tomcat_marker = "org.apache.catalina.startup.Bootstrap";
constexpr unsigned tomcat_wait_s = 5;
constexpr int tomcat_counts = 5;
constexpr int web_server_probes = 21;
constexpr unsigned web_server_wait_s = 1;

void check_script(const char *script)
{
    struct stat status;
    if (stat(script, &status) != 0) {
        if (errno == ENOENT || errno == ENOTDIR)
            report_fatal(1, "No such file '%s': %s", script, strerror(errno));
        report_fatal(1, "Error during access to '%s': %s", script, strerror(errno));
    }
    if (!S_ISREG(status.st_mode))
        report_fatal(1, "Not a regular file: '%s'", script);
    if ((status.st_mode & 0111) == 0 || status.st_size == 0)
        report_fatal(1, "Not an executable file: '%s'", script);
}

[[noreturn]] void become_script(const char *script, const char *name, const char *action)
{
    text dir_text = formatted("%s", script); // dirname() writes into what it is given
    const char *dir = dirname(dir_text.bytes);
    if (chdir(dir) != 0)
        report_fatal(1, "Unable to change directory to %s: %s\n", dir, strerror(errno));
    if (setsid() < 0) {
        perror("setsid() failed");
        _exit(3);
    }
    close_descriptors();
    silence_streams();
    restore_signals();
    execlp(script, name, action, static_cast<char *>(nullptr));
    _exit(errno);
}

// Turns the end of a script into a result; `label` is what the messages call the action.
int judge_end(int status, const char *name, const char *label, int report)
{
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return 0;
    if (WIFEXITED(status)) {
        if (strcmp(label, "status") != 0 && report)
            report_error(0, 0, "Service %s failed to %s\n", name, label);
        return -1;
    }
    const bool is_killed = WIFSIGNALED(status); // else stopped
    report_error(0, 0, "Unable to %s service %s: daemon %s by signal %i\n", label, name,
                 is_killed ? "killed" : "stopped", is_killed ? WTERMSIG(status) : WSTOPSIG(status));
    return -1;
}

int control_plain(const char *service, const char *action)
{
    const text script = formatted("%s/%s", PRODUCT_RC_D, service);
    return run_service_script(script, script, action, 1);
}

// Has a running web server take notice of what changed behind it; while it is down, what waits for that is removed.
void bounce_web_server()
{
    if (service_control(HTTPD_SERVICE, "status") != 0)
        return;
    service_control(HTTPD_SERVICE, "stop");
    if (is_virtual_environment())
        purge_deferred_dirs();
    service_control(HTTPD_SERVICE, "start");
}

int control_coldfusion(const char *service, const char *action)
{
    owned_db db = panel_db_open();
    if (!db)
        report_fatal(1, "Unable to connect to the mysql database\n");
    const char *instance = get_misc_param("cf_instance_path", db.get());
    db.reset();
    if (!instance || strlen(instance) < 2) {
        report_error(0, 0, "CF not configured in Velqa.\n");
        return -1;
    }
    const text script = formatted("%s/bin/%s", instance, strcasecmp(service, "jrun") == 0 ? "jrun" : "coldfusion");
    const int result = run_service_script(script, script, action, 1);
    if (result == 0 && strcmp(action, "status") != 0)
        bounce_web_server();
    return result;
}

// Ends Tomcat's processes after its script could not. Returns 0 when none is left, -1 otherwise.
int stop_tomcat_by_force()
{
    kill_by_field("command", tomcat_marker, SIGTERM);
    for (int count = 0; count < tomcat_counts; ++count) {
        sleep(tomcat_wait_s);
        const int left = kill_by_field("command", tomcat_marker, 0);
        if (left <= 0)
            return left;
    }
    kill_by_field("command", tomcat_marker, SIGKILL);
    sleep(tomcat_wait_s);
    return kill_by_field("command", tomcat_marker, 0) == 0 ? 0 : -1;
}

int control_tomcat(const char * /* service */, const char *action)
{
    constexpr const char *name = "tomcat5";
    const bool is_stop = strcmp(action, "stop") == 0;
    const text script = formatted("%s/%s", PRODUCT_RC_D, name);
    int result = run_service_script(script, name, action, is_stop ? 0 : 1);
    if (is_stop && result != 0)
        result = stop_tomcat_by_force();
    if (is_stop && result == 0)
        bounce_web_server();
    return result;
}

// A script that returns has started the web server, not brought it up.
int wait_for_web_server()
{
    for (int probe = 0; probe < web_server_probes; ++probe) {
        if (service_control(HTTPD_SERVICE, "status") == 0)
            return 0;
        sleep(web_server_wait_s);
    }
    return -1;
}

int control_web_server(const char * /* service */, const char *action)
{
    int result = control_plain(HTTPD_SERVICE, action);
    if (result == 0 &&
        (strcmp(action, "start") == 0 || strcmp(action, "restart") == 0 || strcmp(action, "force-reload") == 0))
        result = wait_for_web_server();
    if (strcasecmp(action, "stop") != 0 || run_shell(formatted("%s/bin/ipc_sweep.sh", PRODUCT_ROOT_D)) != -1)
        return result;
    report_error(0, 0, "Error occured when trying to clean Apache IPC objects: %s\n", strerror(errno));
    return -1;
}

// A service and its own handling, where it has one.
struct service {
    const char *name; // null: the web server, which has the name that the configuration gives it
    int (*control)(const char *service, const char *action);
};

// In the order of lookup.
constexpr service services[] = {
    {"vlq", nullptr},
    {nullptr, nullptr},
    {"tomcat5", control_tomcat},
    {"courier-imap", nullptr},
    {"mysqld", nullptr},
    {"named", nullptr},
    {"qmail", nullptr},
    {"stunnel", nullptr},
    {"postgresql", nullptr},
    {"mailman", nullptr},
    {"coldfusion", control_coldfusion},
    {"jrun", control_coldfusion},
    {"drwebd", nullptr},
    {"smb", nullptr},
    {"network", nullptr},
    {"xinetd", nullptr},
};

// The table's own text for a service, or null.
const char *find_service(const char *name)
{
    for (const service &entry : services) {
        const char *known = entry.name ? entry.name : HTTPD_SERVICE;
        if (strcmp(name, known) == 0)
            return known;
    }
    return nullptr;
}

// Controls a service of the table. The configured name of the web server may be that of another service, in any case of
// letters, and its first bytes decide.
int control_known(const char *name, const char *action)
{
    constexpr std::size_t compared = 9;
    for (const service &entry : services)
        if (entry.control && strcasecmp(name, entry.name) == 0)
            return entry.control(name, action);
    return strncasecmp(name, HTTPD_SERVICE, compared) == 0 ? control_web_server(name, action)
                                                           : control_plain(name, action);
}

} // namespace

int run_service_script(const char *script, const char *name, const char *action, int report)
{
    constexpr const char *graceful = "graceful";
    if (strcmp(action, graceful) == 0 && is_process_running("httpd2-prefork") != 0)
        action = "restart";
    const bool is_graceful = strncmp(action, graceful, strlen(action)) == 0;
    const text label = formatted("%s", is_graceful ? "gracefully restart" : action);

    check_script(script);
    const pid_t child = fork();
    if (child == 0)
        become_script(script, name, action);
    int status = 0;
    if (child < 0 || waitpid(child, &status, WUNTRACED) < 0) {
        report_error(0, 0, "Error occured during %s service %s: %s\n", label.c_str(), name, strerror(errno));
        return -1;
    }
    return judge_end(status, name, label, report);
}

int service_control(const char *service, const char *action)
{
    if (conf_get("NO_RESTART_DAEMON"))
        return 0;
    const char *known = find_service(service);
    if (!known) {
        report_error(0, 0, "Unknown service: %s\n", service);
        return -1;
    }
    return control_known(known, action);
}
