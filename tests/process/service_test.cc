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
               " $(readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2 /proc/$$/fd/50) >/run/trace\n",
               0700);
    EXPECT_EQ(in_child([] { return dup2(1, 50), run_service_script(script, script, "restart", 1); }).status, 0);
    EXPECT_EQ(read_file("/run/trace"), "restart /etc/init.d leader /dev/null /dev/null /dev/null\n");
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
        {"exit 0", 0644, "stop", 0, "Not an executable file: '/etc/init.d/daemon'\n[1]"},
        {"", 0755, "stop", 0, "Not an executable file: '/etc/init.d/daemon'\n[1]"},
    };
    for (const auto &[content, mode, action, told, answer] : cases) {
        write_file(script, content, mode);
        EXPECT_EQ(trial([a = action, t = told] {
                      return run_service_script(script, "the name", a, t) == 0 ? "done" : "failed";
                  }),
                  answer);
    }
}
