#include "common/conf.h"
#include "common/error.h"
#include "common/startup.h"
#include "driver/run.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

[[noreturn]] void end_with_usage()
{
    puts(usage_text);
    exit(0);
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
    settle_process();
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
