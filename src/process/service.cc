#include "process/service.h"

#include "common/conf.h"
#include "common/error.h"
#include "process/exec.h"
#include "process/send_sig.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char *service_table[] = {
    "vlq",        "courier-imap", "mysqld", "named", "qmail",   "stunnel",
    "postgresql", "mailman",      "drwebd", "smb",   "network", "xinetd",
};

bool is_known(const char *service)
{
    for (const char *known : service_table)
        if (strcmp(service, known) == 0)
            return true;
    return false;
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
    if (!is_known(service)) {
        report_error(0, 0, "Unknown service: %s\n", service);
        return -1;
    }
    char script[text_size];
    format_text(script, "%s/%s", PRODUCT_RC_D, service);
    return run_service_script(script, script, action, 1);
}
