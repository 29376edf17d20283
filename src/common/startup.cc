#include "common/startup.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

// Started with one of them closed, the run would open a lock (which must not be 0 to count as held), a file or the
// database on its number, and write its messages there.
void fill_standard_descriptors()
{
    int fd;
    do
        fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        close(fd);
}

// A limit of file sizes or a reader that has gone must not end the run half-way: the write that fails is reported like
// any other. And no child could be waited for while a caller's SIGCHLD is ignored.
void settle_signals()
{
    for (const int number : write_signals)
        signal(number, SIG_IGN);
    signal(SIGCHLD, SIG_DFL);
}

// Nothing of the caller's steers the client library, the shell or the scripts, as service(8) has it.
void settle_environment()
{
    const char *language = getenv("LANG");
    const char *terminal = getenv("TERM");
    clearenv();
    setenv("PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", 1);
    if (language)
        setenv("LANG", language, 1);
    if (terminal)
        setenv("TERM", terminal, 1);
}

} // namespace

void settle_process()
{
    fill_standard_descriptors();
    settle_signals();
    settle_environment();
}
