#include "common/error.h"

#include "support.h"

TEST(error, tells_both_streams_the_whole_message_and_the_errno_of_the_moment)
{
    const std::string suffix = "\nSystem error 2: No such file or directory\n", full(4095, 'a');
    const struct {
        const char *name;
        int error, flag, status;
        std::string text, line;
    } cases[] = {
        {"/usr/sbin/mboxfix", 0, 1, 0, "told", "mboxfix: told\n"},
        {"./mboxfix", 2, 0, 0, "told\n", "mboxfix: told\n" + suffix},
        {"mboxfix", 0, 0, 7, "", "mboxfix: \n"},
        {nullptr, 2, 1, 1, full, full + suffix},
        {nullptr, 0, 0, 0, full + "b", full + "b\n"},
        {nullptr, 2, 0, 0, full + full, full + full + suffix},
    };
    for (const auto &each : cases) {
        const outcome done = in_child([&] {
            program_name = each.name, errno = each.error;
            report_error(each.status, each.flag, "%.*s%s", 9000, each.text.c_str(), "");
            return errno == each.error ? 0 : 99;
        });
        EXPECT_EQ(done.status, each.status) << each.line;
        EXPECT_EQ(done.err + done.out, each.line + each.line);
    }
}

TEST(error, keeps_errno_when_a_stream_fails)
{
    const auto tell = [] { return freopen("/dev/full", "w", stdout) ? report_error(0, 0, "told"), errno : 99; };
    EXPECT_EQ(in_child(tell).status, 0);
}
