#include "process/send_sig.h"

#include "process/remove_tree.h"

#include "common/conf.h"
#include "support.h"

#include <spawn.h>
#include <sys/wait.h>

// Starts a program of this name and argv[0]; when it returns, the program runs.
static pid_t start(const std::string &name, std::string argv0)
{
    fs::copy_file("/bin/sleep", name, fs::copy_options::overwrite_existing);
    char minute[] = "60", *argv[] = {argv0.data(), minute, nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, name.c_str(), nullptr, nullptr, argv, environ) != 0)
        abort();
    return pid;
}

// Ends the process; returns the first signal that it was sent.
static int end(pid_t pid)
{
    int status = 0;
    return kill(pid, SIGKILL) == 0 && waitpid(pid, &status, 0) == pid ? WTERMSIG(status) : -1;
}

TEST(send_sig, knows_a_program_by_exactly_its_name)
{
    const test_folder folder;
    const std::string se = std::to_string(getpid()) + "-se"; // of this run alone
    for (const std::string &argv0 : {se, "/no/" + se, "[" + se + "]", "(" + se + ")", "<" + se + ">"}) {
        const pid_t pids[] = {start(se, argv0), start(se + "nd2", se + "nd2"), start("x" + se, "x" + se)};
        EXPECT_EQ(is_process_running(se.c_str()), 0) << argv0;
        EXPECT_EQ(kill_by_name(se.c_str(), SIGHUP), 0);
        EXPECT_EQ(end(pids[0]), SIGHUP);
        EXPECT_NE(is_process_running(se.c_str()), 0) << argv0;
        EXPECT_EQ(end(pids[1]) + end(pids[2]), 2 * SIGKILL);
    }
}

TEST(send_sig, counts_and_signals_by_a_field)
{
    const test_folder folder;
    const std::string mark = "mark." + std::to_string(getpid()) + ".";
    const pid_t pids[] = {start("a", "a " + mark + " b"), start("b", mark), start("c", "mark.")};
    EXPECT_EQ(kill_by_field("args", mark.c_str(), 0), 2);
    EXPECT_EQ(kill_by_field("args", mark.c_str(), SIGHUP), 2);
    EXPECT_TRUE(end(pids[0]) == SIGHUP && end(pids[1]) == SIGHUP && end(pids[2]) == SIGKILL);
    const outcome head = in_child([] { return kill_by_field("comm=heading.of.mboxfix", "heading.of.mboxfix", 0); });
    EXPECT_EQ(std::to_string(head.status) + head.out, "0");
    const outcome failed = in_child([] { return kill_by_field("no such field", "a", 0) == -1 ? 1 : 2; });
    EXPECT_EQ(std::to_string(failed.status) + failed.out, "1" + report("send_signal_field(): /bin/ps failed"));
    EXPECT_TRUE(failed.err.ends_with("\n\n" + failed.out)) << failed.err; // after what ps itself had to say
}

TEST(send_sig, removes_a_tree_but_nothing_that_it_links_to)
{
    const test_folder folder;
    for (const char *path : {"tree/sub/.deep/er", "victim/kept"})
        fs::create_directories(path);
    fs::create_symlink("../victim", "tree/link"), fs::create_symlink("../../victim", "tree/sub/link");
    write_file("tree/sub/.deep/file", "");
    remove_tree("tree/none", 1), remove_tree("tree/link", 1), remove_tree("tree/sub", 0);
    EXPECT_TRUE(!exists("tree/link") && fs::is_empty("tree/sub") && fs::current_path() == folder.path);
    const outcome busy = in_child([] { return mount_on_itself("tree/sub"), remove_tree("tree", 1), 0; });
    EXPECT_EQ(busy.err, report("Unable to remove dir sub: Device or resource busy\n", EBUSY));
    remove_tree("tree", 1);
    EXPECT_TRUE(busy.status == 1 && !exists("tree") && exists("victim/kept"));
}

TEST(send_sig, moves_directories_aside_and_purges_only_those)
{
    const test_folder folder;
    for (const char *path : {"mailnames/d/e", "victim/kept", "vhosts/__deletedAAAAAA/a", "vhosts/a__deleted"})
        fs::create_directories(path);
    fs::create_symlink("../victim", "vhosts/__deletedlink"), fs::create_symlink("none", "vhosts/dangling");
    write_file("vhosts/__deletedfile", "");
    HTTPD_VHOSTS_D = "vhosts", QMAIL_MAILNAMES_D = "mailnames";
    const outcome refused = in_child([] { return deferred_remove("victim"), 0; });
    EXPECT_EQ(messages(refused.err), "deferred_remove(): not supported directory for deferred remove: victim\n");
    const outcome moved = in_child([] { return deferred_remove("mailnames/d"), 0; });
    const std::string aside = moved.err.substr(moved.err.find("mailnames/__deleted"), 25);
    EXPECT_EQ(messages(moved.err), "deferred_remove(): rename dir mailnames/d to " + aside + "\n");
    EXPECT_TRUE(refused.status == 1 && exists(aside + "/e") && !exists("mailnames/d"));
    const outcome purged = in_child([&] { return purge_deferred_dirs(), fs::current_path() == folder.path; });
    EXPECT_EQ(std::to_string(purged.status) + messages(purged.err), "1Unable to stat file dangling, skipped\n");
    EXPECT_TRUE(!exists("vhosts/__deletedAAAAAA") && !exists(aside) && exists("victim/kept"));
    EXPECT_TRUE(exists("vhosts/a__deleted") && exists("vhosts/__deletedfile"));
}
