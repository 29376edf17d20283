#include "common/conf.h"
#include "common/error.h"
#include "driver/run.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace {

struct option {
    std::string_view word;
    int with_spam;
    int spam_only;
};

constexpr option options[] = {
    {"--with-spam", 1, 0},  {"with-spam", 1, 0},   {"-v", 1, 0},        {"--without-spam", 0, 0},
    {"without-spam", 0, 0}, {"--spam-only", 1, 1}, {"spam-only", 1, 1},
};

constexpr const char *usage_text = "Usage: mboxfix [OPTION]\n"
                                   "  Restore settings for all mailboxes.\n"
                                   "\n"
                                   "  --without-spam [--daemon-mode]\n"
                                   "         restore all settings except for SpamAssassin configuration\n"
                                   "  --with-spam [--daemon-mode]\n"
                                   "         restore all settings\n"
                                   "  --spam-only [--daemon-mode]\n"
                                   "         restore only SpamAssassin settings";

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
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
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

[[noreturn]] void end_with_usage()
{
    puts(usage_text);
    end_process(0);
}

const option &find_option(std::string_view word)
{
    for (const option &entry : options)
        if (entry.word == word)
            return entry;
    end_with_usage();
}

} // namespace

int main(int argc, char **argv)
{
    program_name = argv[0];
    fill_standard_descriptors();
    settle_signals();
    settle_environment();
    if (setuid(0) != 0 || setgid(0) != 0)
        report_fatal(1, "Unable to set UID or GID: %s\n", strerror(errno));
    if (argc != 2 && argc != 3)
        end_with_usage();
    const option &chosen = find_option(argv[1]);
    if (argc == 3) {
        const std::string_view mode = argv[2];
        if (mode != "--daemon-mode" && mode != "daemon-mode")
            end_with_usage();
        [[maybe_unused]] const int unsaid = daemon(0, 0); // without a second process the run goes on in this one
    }
    load_conf();
    return run(chosen.with_spam, chosen.spam_only);
}
