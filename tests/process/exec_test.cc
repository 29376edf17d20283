#include "process/exec.h"

#include "common/conf.h"
#include "support.h"

#include <fcntl.h>
#include <sys/wait.h>

#define TEN "0", "1", "2", "3", "4", "5", "6", "7", "8", "9"
#define HUNDRED TEN, TEN, TEN, TEN, TEN, TEN, TEN, TEN, TEN, TEN

TEST(exec, tells_how_a_program_ended_with_all_that_it_wrote)
{
    constexpr auto tool = [] { return util_exec("tool", nullptr); };
    constexpr auto path = [] { return util_exec("../bin/tool", nullptr); };
    constexpr auto listed = [] { return util_exec("tool", HUNDRED, TEN, nullptr); };
    static constexpr const char *argv[] = {"tool", "a", nullptr};
    constexpr auto quiet = [] { return run_quiet_wait("p/admin/bin/tool", HUNDRED, nullptr); };
    const std::string sh = "#!/bin/sh\n", failed = "p/admin/bin/tool execution failed", x(3000000, 'x');
    const std::string flood = sh + "yes x | tr -d '\\n' | head -c 3000000";
    const struct {
        int (*operation)();
        std::string script;
        int result;
        std::string told, reported;
    } cases[] = {
        {tool, sh + "echo a; echo b >&2", 0, "", ""},
        {tool, sh + "exit 3", 3, "", failed + ":\n"},
        {tool, sh + "echo told; echo why >&2; exec >&- 2>&-; exit 4", 4, "told\n", failed + ":\nwhy\n"},
        {tool, flood + " >&2; exit 5", 5, "", failed + ":\n" + x},
        {tool, flood + " | tee /dev/stderr; exit 5", 5, x, failed + ":\n" + x},
        {tool, sh + "sleep 60 & echo $! >daemon; exit 6", 6, "", failed + " (no output)"},
        {tool, sh + "kill -9 $$", -1, "", failed + ":\n"},
        {tool, "#!/no/sh\n", 255, "",
         failed + ":\nfork_execv: execv(\"p/admin/bin/tool\") failed: No such file or directory\n"},
        {path, "", -1, "", "Utility name '../bin/tool' is invalid. Use only utility name without path."},
        {listed, sh + "echo $# $1 ${99} ${100-}; exit 7", 7, "99 0 8\n", failed + ":\n"},
        {[] { return util_execv("tool", argv); }, sh + "echo $*; exit 7", 7, "a\n", failed + ":\n"},
        {quiet, sh + "[ $# = 99 ] && kill -9 $$", 1, "", ""},
        {quiet, sh + "cat; echo a; echo b >&2; exit 1", 0, "", ""},
    };
    for (const auto &each : cases) {
        const test_folder folder;
        fs::create_directories("p/admin/bin");
        write_file("p/admin/bin/tool", each.script, 0755);
        const outcome done = in_child([&] {
            PRODUCT_ROOT_D = "p";
            const int descriptors = open_descriptors();
            errno = 0;
            const bool as_said = each.operation() == each.result;
            return as_said && open_descriptors() == descriptors && waitpid(-1, nullptr, WNOHANG) == -1 ? 0 : 1;
        });
        const std::string reported = each.reported.empty() ? "" : report(each.reported);
        EXPECT_EQ(done.status, 0) << each.script << " has another result, or leaves a descriptor or a zombie";
        EXPECT_TRUE(done.err == each.told + reported && done.out == reported) << each.script << done.err.substr(0, 500);
        EXPECT_EQ(exists("daemon") ? kill(std::stoi(read_file("daemon")), SIGKILL) : 0, 0);
    }
}

TEST(exec, connects_the_streams_and_leaks_no_descriptor)
{
    const test_folder folder;
    write_file("in", "read\n");
    const outcome done = in_child([] {
        dup2(1, 700);
        const int in = open("in", O_RDONLY), out = open("out", O_WRONLY | O_CREAT, 0600);
        const char *const argv[] = {"sh", "-c", "cat; ls /proc/self/fd; echo lost >&2", nullptr};
        return waitpid(fork_execv(in, out, -1, "/bin/sh", argv), nullptr, 0) > 0 ? 0 : 1;
    });
    EXPECT_EQ(read_file("out"), "read\n0\n1\n2\n3\n"); // 3 is the folder that ls reads
    EXPECT_EQ(std::to_string(done.status) + done.out + done.err, "0");
}
