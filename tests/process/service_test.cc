#include "process/service.h"
#include "support.h"

#include <gtest/gtest.h>
#include <unistd.h>

constexpr const char *script = "/etc/init.d/daemon";

TEST(service, starts_a_script_apart_from_its_own_terminal_folder_and_files)
{
    const test_host host;
    // No first line names an interpreter: the shell takes the script.
    write_file(script,
               "echo $* $(pwd -P) $([ $(cut -d' ' -f6 /proc/$$/stat) = $$ ] && echo leader)"
               " $(ls /proc/self/fd) $(readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2) >/run/trace\n",
               0700);
    EXPECT_EQ(in_child([] { return dup2(1, 50), run_service_script(script, script, "restart", 1); }).status, 0);
    // 3 is the listing's own.
    EXPECT_EQ(read_file("/run/trace"), "restart /etc/init.d leader 0 1 2 3 /dev/null /dev/null /dev/null\n");
    fs::copy("/bin/sh", script, fs::copy_options::overwrite_existing); // "the.name stop" is a script called stop
    write_file("/etc/init.d/stop", "echo $0 $(head -z -n1 /proc/$$/cmdline) >/run/trace; exit 0\n");
    EXPECT_EQ(in_child([] { return run_service_script(script, "the.name", "stop", 1); }).status, 0);
    EXPECT_EQ(read_file("/run/trace").substr(0, 13), "stop the.name");
}

TEST(service, judges_how_a_script_ends)
{
    const test_host host;
    using text = const char *;
    const std::tuple<text, unsigned, text, int, text> cases[] = {
        {"exit 0", 0755, "restart", 1, "done"},
        {"exit 1", 0755, "restart", 1, "Service the name failed to restart\nfailed"},
        {"exit 1", 0755, "restart", 0, "failed"},
        {"exit 1", 0755, "status", 1, "failed"},
        {"exit 1", 0755, "", 1, "Service the name failed to gracefully restart\nfailed"},
        {"#!/no/shell\n", 0755, "stop", 1, "Service the name failed to stop\nfailed"},
        {"kill -9 $$", 0755, "stop", 0, "Unable to stop service the name: daemon killed by signal 9\nfailed"},
        {"kill -STOP $$", 0755, "stop", 0, "Unable to stop service the name: daemon stopped by signal 19\nfailed"},
        {"[ $1 != restart ]", 0755, "graceful", 1, "Service the name failed to restart\nfailed"},
        {"(loop)", 0755, "stop", 0,
         "Error during access to '/etc/init.d/daemon': Too many levels of symbolic links\n[1]"},
        {"(lost)", 0755, "stop", 1, "Error occured during stop service the name: No child processes\nfailed"},
        {"exit 0", 0644, "stop", 0, "Not an executable file: '/etc/init.d/daemon'\n[1]"},
        {"", 0755, "stop", 0, "Not an executable file: '/etc/init.d/daemon'\n[1]"},
    };
    for (const auto &[content, mode, action, told, answer] : cases) {
        unlink(script);
        if (content == std::string("(loop)"))
            fs::create_symlink(script, script);
        else
            write_file(script, content, mode);
        EXPECT_EQ(trial([a = action, t = told, lost = content == std::string("(lost)")] {
                      signal(SIGCHLD, lost ? SIG_IGN : SIG_DFL); // ignored: the kernel collects the child
                      return run_service_script(script, "the name", a, t) == 0 ? "done" : "failed";
                  }),
                  answer);
    }
}
