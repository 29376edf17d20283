#include "control/apart.h"

#include "common/conf.h"
#include "common/error.h"
#include "control/signals.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

int run_apart(const std::function<int()> &operation)
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child < 0)
        return 1;
    if (child == 0) {
        setpgid(0, 0);
        forget_signals();
        const int null = open("/dev/null", O_WRONLY);
        if (null < 0 || dup2(null, STDOUT_FILENO) < 0)
            _exit(1);
        close(null);
        errno = 0; // reports would tell it
        _exit(operation());
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR)
        ;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

const char *qmail_newu()
{
    static const text command = formatted("%s/bin/qmail-newu", QMAIL_ROOT_D);
    return command;
}
