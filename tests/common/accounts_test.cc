#include "common/accounts.h"

#include "support.h"

TEST(accounts, does_exactly_what_is_asked_or_tells_why_not)
{
    static char salt[] = "!!!!!!!!!";
    const struct {
        int (*operation)();
        int result;
        const char *told;
    } cases[] = {
        {[] { return get_user_id("games", 0) == 5 && get_user_id("games", 1) == 60 ? 0 : 1; }, 0, ""}, // of any Debian
        {[] { return static_cast<int>(get_user_id("nobody!", 1)); }, 0, "Unable to getpwnam for user nobody!\n"},
        {[] { return make_dir("new", 7, 8, 02775) + make_dir("old", 7, 8, 02775); }, 0, ""},
        {[] { return make_dir("no/d", 7, 8, 0700); }, -1, "ERROR: Unable to mkdir no/d: No such file or directory\n"},
        {[] { return set_owner_mode("link", 7, 8, 02775) + set_owner_mode("none", 7, 8, 0640); }, 0, ""},
        {[] { return rename_dir("from", "d/to") + rename_dir("none", "d"); }, 0, ""},
        {[] { return rename_dir("d", "d/new"); }, -1, "Remaming d to d/new failed: Invalid argument\n"},
        {[] { return rename_dir("d", "old"); }, -1, "Directory rename error: target directory old already exists.\n"},
        {[] { return is_inside_dir("d/to/../to", "./d/"); }, 1, ""},
        {[] { return is_inside_dir("d", "d") + is_inside_dir("d2", "d") + is_inside_dir("d", "/"); }, 0, ""},
        {[] {
             return is_inside_dir("link", "d") + is_inside_dir("d/e", "link") + errno + is_inside_dir("d/none", "d");
         },
         0, ""},
        {[] { return srand(1), random_salt(salt, 8), strcmp(salt, "qOnovBKm!"); }, 0, ""},
    };
    const test_folder folder;
    for (const char *path : {"old", "from", "d/e", "d2"})
        fs::create_directories(path);
    fs::create_symlink("d/e", "link");
    for (const auto &each : cases) {
        const outcome done = in_child([&] { return umask(077), 10 + each.operation(); });
        EXPECT_EQ(done.status, 10 + each.result) << &each - cases;
        EXPECT_EQ(messages(done.err), each.told);
    }
    EXPECT_EQ(owner_mode("new") + owner_mode("old") + owner_mode("d/e"), "7:8 27757:8 27757:8 2775");
}
