#include "process/service.h"

#include "common/conf.h"
#include "common/error.h"
#include "common/get.h"
#include "common/panel_db.h"
#include "process/exec.h"
#include "process/send_sig.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <libgen.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// In the order of lookup; none stands for the web server, which has the name that the configuration gives it.
constexpr const char *service_table[] = {
    "vlq",        nullptr,   "tomcat5",    "courier-imap", "mysqld", "named", "qmail",   "stunnel",
    "postgresql", "mailman", "coldfusion", "jrun",         "drwebd", "smb",   "network", "xinetd",
};

constexpr const char *tomcat_marker = "org.apache.catalina.startup.Bootstrap";
constexpr unsigned tomcat_wait_s = 5;
constexpr int tomcat_counts = 5;
constexpr int web_server_probes = 21;
constexpr unsigned web_server_wait_s = 1;

// The table's own text for a service, or none.
const char *find_service(const char *service)
{
    for (const char *entry : service_table) {
        const char *known = entry ? entry : HTTPD_SERVICE;
        if (strcmp(service, known) == 0)
            return known;
    }
    return nullptr;
}

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
    char dir_text[text_size];
    format_text(dir_text, "%s", script); // dirname() writes into what it is given
    const char *dir = dirname(dir_text);
    if (chdir(dir) != 0)
        report_fatal(1, "Unable to change directory to %s: %s\n", dir, strerror(errno));
    if (setsid() < 0) {
        perror("setsid() failed");
        _exit(3);
    }
    close_descriptors();
    const int null_fd = open("/dev/null", O_RDWR);
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        close(fd); // also where /dev/null could not be opened: a daemon must not keep our streams
        dup2(null_fd, fd);
    }
    close(null_fd);
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
    if (WIFSIGNALED(status)) {
        report_error(0, 0, "Unable to %s service %s: daemon killed by signal %i\n", label, name, WTERMSIG(status));
        return -1;
    }
    if (WIFSTOPPED(status)) {
        report_error(0, 0, "Unable to %s service %s: daemon stopped by signal %i\n", label, name, WSTOPSIG(status));
        return -1;
    }
    return 0;
}

int control_plain(const char *service, const char *action)
{
    char script[text_size];
    format_text(script, "%s/%s", PRODUCT_RC_D, service);
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
    MYSQL *db = panel_db_open();
    if (!db)
        report_fatal(1, "Unable to connect to the mysql database\n");
    const char *instance = get_misc_param("cf_instance_path", db);
    mysql_close(db);
    if (!instance || strlen(instance) < 2) {
        report_error(0, 0, "CF not configured in Velqa.\n");
        return -1;
    }
    char script[text_size];
    format_text(script, "%s/bin/%s", instance, strcasecmp(service, "jrun") == 0 ? "jrun" : "coldfusion");
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
    char script[text_size];
    format_text(script, "%s/%s", PRODUCT_RC_D, name);
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
    if (strcasecmp(action, "stop") == 0) {
        char sweep[text_size];
        format_text(sweep, "%s/bin/ipc_sweep.sh", PRODUCT_ROOT_D);
        if (system(sweep) == -1) {
            report_error(0, 0, "Error occured when trying to clean Apache IPC objects: %s\n", strerror(errno));
            return -1;
        }
    }
    return result;
}

struct handling {
    const char *service;  // none: the web server
    std::size_t compared; // so many bytes of the two names
    int (*control)(const char *service, const char *action);
};

// The first that fits, whatever the case of the letters; the rest is plain.
constexpr handling handlings[] = {
    {"coldfusion", SIZE_MAX, control_coldfusion},
    {"jrun", SIZE_MAX, control_coldfusion},
    {"tomcat5", SIZE_MAX, control_tomcat},
    {nullptr, 9, control_web_server},
    {"", 0, control_plain},
};

} // namespace

int run_service_script(const char *script, const char *name, const char *action, int report)
{
    constexpr const char *graceful = "graceful";
    if (strcmp(action, graceful) == 0 && is_process_running("httpd2-prefork") != 0)
        action = "restart";
    char label[text_size];
    const bool is_graceful = strncmp(action, graceful, strlen(action)) == 0;
    format_text(label, "%s", is_graceful ? "gracefully restart" : action);

    check_script(script);
    const pid_t child = fork();
    if (child == 0)
        become_script(script, name, action);
    int status = 0;
    if (child < 0 || waitpid(child, &status, WUNTRACED) < 0) {
        report_error(0, 0, "Error occured during %s service %s: %s\n", label, name, strerror(errno));
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
    for (const handling &entry : handlings)
        if (strncasecmp(known, entry.service ? entry.service : HTTPD_SERVICE, entry.compared) == 0)
            return entry.control(known, action);
    return -1;
}
