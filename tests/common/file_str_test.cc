#include "common/file_str.h"

#include "common/conf.h"
#include "line_model.h"
#include "support.h"

#include <algorithm>
#include <random>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace std::string_literals;

// Edits "f" in a child, under the conditions made there. A descriptor that stays open (the lock's, say) shows as 99.
static outcome edit_f(void (*prepare)(), std::vector<const char *> lines, edit action, int mode)
{
    lines.push_back(nullptr);
    return in_child([&] {
        prepare();
        const int descriptors = open_descriptors();
        errno = 0;
        const int result = file_str("f", lines.data(), action, mode);
        return seteuid(0) == 0 && open_descriptors() == descriptors ? result : 99;
    });
}

static ino_t inode_of(const char *path)
{
    struct stat status = {};
    stat(path, &status);
    return status.st_ino;
}

TEST(file_str, edits_to_the_byte)
{
    const test_folder folder;
    const std::string piece(4094, 'x'); // the most that a removal takes for one line
    const struct {
        std::string before;
        std::vector<const char *> lines;
        edit action;
        int mode;
        std::string after;
    } cases[] = {
        {"abc\nabcd\nxabc\nABC\nabc", {"abc\nd"}, edit::remove, 0, "abcd\nxabc\nABC\n"},
        {"a\n\nb\n\nc", {"b", "", "a"}, edit::remove, 0, "c"},
        {"a\0b\na\n"s, {"a"}, edit::remove, 0, "a\0b\n"s},
        {piece.substr(1) + "\na\n", {piece.c_str() + 1}, edit::remove, 0, "a\n"},
        {piece + "tail\n", {piece.c_str()}, edit::remove, 0, "tail\n"},
        {piece + piece + "tail\na", {"tail"}, edit::remove, 0, piece + piece + "a"},
        {piece + "\na\n", {""}, edit::remove, 0, piece + "a\n"},
        {"ab\nabc\nxab\na\n", {"ab\n"}, edit::remove_matching, prefix, "xab\na\n"},
        {"a\n\nb", {""}, edit::remove_matching, prefix, ""},
        {"x/d/u\nx/d/u2\nd/u\n/d/u", {"/d/u", "2\n\n"}, edit::remove_matching, suffix, "x/d/u2\nd/u\n"},
        {"a\0b\n\0c\n"s, {"b\n"}, edit::remove_matching, suffix, "\0c\n"s},
        {"/d/\nx/d/y\n/d\n", {"/d/"}, edit::remove_matching, substring, "/d\n"},
        {"xa\nab\na", {"a\n", "b\na"}, edit::remove_matching, substring, "ab\na"},
        {piece + "y\n", {"xy"}, edit::remove_matching, substring, piece + "y\n"},
        {"a\nb\nc\n", {"x", "y", "c"}, edit::remove_matching, prefix, "a\nb\n"},
        {"x", {"a", "b\n", "", "c\n\n"}, edit::add, at_end, "xa\nb\n\nc\n\n"},
        {piece + "y\n\0z"s, {piece.c_str(), "b\n"}, edit::add, at_start, piece + "\nb\n" + piece + "y\n\0z"s},
        {"a\n", {"b"}, edit::add, 2, "a\n"},
        {"a\n", {"a"}, static_cast<edit>(3), 0, "a\n"},
    };
    for (const auto &each : cases) {
        write_file("f", each.before);
        EXPECT_TRUE(chown("f", 7, 8) == 0 && chmod("f", 06750) == 0);
        const ino_t former = inode_of("f");
        const outcome done = edit_f([] {}, each.lines, each.action, each.mode);
        EXPECT_EQ(std::to_string(done.status) + done.err + done.out, "0") << each.before;
        EXPECT_EQ(read_file("f") + owner_mode("f"), each.after + "7:8 6750");
        const bool in_place = each.after == each.before || (each.action == edit::add && each.mode == at_end);
        EXPECT_EQ(inode_of("f") == former && !exists("f.tmp"), in_place) << each.before;
    }
}

TEST(file_str, edits_any_file_like_a_plain_editor_line_by_line)
{
    const test_folder folder;
    std::minstd_rand random(2026);
    const auto below = [&](unsigned limit) { return static_cast<unsigned>(random()) % limit; };
    const auto random_text = [&](unsigned size, unsigned newlines, char first) {
        std::string text(size, 'a');
        for (char &byte : text)
            byte = below(newlines) == 0 ? '\n' : static_cast<char>(static_cast<unsigned>(first) + below(3));
        return text;
    };
    std::string text;
    for (int count = 0; count < 100000; ++count) {
        if (count % 16 == 0) {
            text = random_text(below(4) == 0 ? 4080 + below(30) : below(60), below(2) == 0 ? 9999 : 5, '\0');
            std::replace(text.begin(), text.end(), '\1', 'a'), std::replace(text.begin(), text.end(), '\2', 'b');
            write_file("f", text);
        }
        std::vector<std::string> strings(below(3));
        for (std::string &string : strings)
            string = random_text(below(4), 6, 'a');
        const edit action = static_cast<edit>(below(3));
        const int mode = static_cast<int>(below(action == edit::add ? 2 : 3));
        text = edited_plainly(text, strings, action, mode);
        std::vector<const char *> lines;
        for (const std::string &string : strings)
            lines.push_back(string.c_str());
        lines.push_back(nullptr);
        ASSERT_EQ(file_str("f", lines.data(), action, mode), 0) << count;
        ASSERT_EQ(read_file("f"), text) << count;
    }
}

template <rlim_t size> static void limit_files()
{
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {size, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
}

TEST(file_str, leaves_the_former_lines_and_nothing_else_when_a_step_fails)
{
    const std::string line(300, 'd'), kept = std::string(600, 'k') + "\n", full = line + "\n" + kept;
    const std::string many = replaced(std::string(9, '\n'), "\n", kept);
    constexpr auto no_lock = [] { PRODUCT_ROOT_D = "no"; };
    constexpr auto below_file = [] { rename("f", "file"), fs::create_symlink("file/f", "f"); };
    constexpr auto gone = [] { unlink("f"); };
    constexpr auto directory = [] { unlink("f"), mkdir("f", 0700); };
    constexpr auto copy_dir = [] { mkdir("f.tmp", 0700); };
    constexpr auto mounted = [] { mount_on_itself("f"); };
    constexpr auto no_right = [] {
        write_file("product/var/lock/files/8fa14cdd754f91cc6554c9e71929cce7", "", 0666);
        chmod(".", 0777), seteuid(9);
    };
    const struct {
        void (*prepare)();
        edit action;
        int mode;
        bool direct; // told on standard error alone
        std::string told, after, copy = "(none)";
    } cases[] = {
        {no_lock, edit::add, at_end, false,
         "Unable to open file \"no/var/lock/files/8fa14cdd754f91cc6554c9e71929cce7\": No such file or directory.\n"
         "Error occurred while locking the file f: No such file or directory\n",
         full},
        {below_file, edit::add, at_end, false, "file_str: Unable to stat file f: Not a directory\n", "(none)"},
        {gone, edit::remove, 0, true, "", "(none)"},
        {gone, edit::remove_matching, 0, false, "Unable to open file f: No such file or directory\n", "(none)"},
        {gone, edit::add, at_start, false, "Unable to open file f: No such file or directory\n", "(none)", line + "\n"},
        {directory, edit::remove, 0, false, "Unable to read file f: Is a directory\n", "(directory)"},
        {directory, edit::add, at_start, false, "Unable to read file f: Is a directory\n", "(directory)"},
        {copy_dir, edit::remove, 0, true, "Unable to open file f.tmp: Is a directory\n", full, "(directory)"},
        {mounted, edit::remove, 0, false, "Error while rename file f: Device or resource busy\n", full},
        {mounted, edit::remove_matching, 0, true, "Error while rename file f.tmp: Device or resource busy\n", full},
        {mounted, edit::add, at_start, true, "Unable to rename file f.tmp: Device or resource busy\n", full},
        {limit_files<400>, edit::remove, 0, false, "Unable to close file f: File too large\n", full},
        {limit_files<400>, edit::remove_matching, 0, false, "Unable to close file f: File too large\n", full},
        {limit_files<200>, edit::add, at_start, false, "Unable to close file f: File too large\n", full},
        {limit_files<400>, edit::add, at_start, false, "Unable to close file f: File too large\n", full},
        // Larger than the buffer of a stream, which then comes upon the error before the close.
        {limit_files<400>, edit::remove, 0, false, "cannot write a line to f.tmp\n", full + many},
        {limit_files<200>, edit::add, at_start, false, "Unable to fputs to file f: File too large\n", full + many},
        {limit_files<400>, edit::add, at_start, false, "Unable to fputs to file f: File too large\n", full + many},
        {limit_files<1000>, edit::add, at_end, false, "Unable to close file f: File too large\n", full},
        {no_right, edit::remove, 0, false, "file_str: ERROR: Unable to chown file f: Operation not permitted\n", kept},
    };
    for (const auto &each : cases) {
        const test_folder folder;
        write_file("f", each.after.ends_with(many) ? full + many : full);
        const outcome done = edit_f(each.prepare, {line.c_str()}, each.action, each.mode);
        EXPECT_EQ(messages(done.err) + std::to_string(done.status), each.told + "1");
        EXPECT_EQ(done.out, each.direct ? "" : done.err);
        EXPECT_EQ(read_file("f"), each.after) << each.told;
        EXPECT_EQ(read_file("f.tmp"), each.copy) << each.told;
    }
}

TEST(file_str, makes_files_with_their_bits)
{
    const test_folder folder;
    edit_f([] { umask(0); }, {"a"}, edit::add, at_start); // stops after the copy, there being no file
    edit_f([] { umask(007); }, {"a"}, edit::add, at_end);
    EXPECT_EQ(create_file("f") + create_file("g"), 0);
    EXPECT_EQ(owner_mode("f.tmp") + read_file("f") + owner_mode("f") + owner_mode("g"), "0:0 0600a\n0:0 06600:0 0644");
    EXPECT_EQ(truncate_or_create_file("f"), 0);
    EXPECT_EQ(read_file("f") + owner_mode("f"), "0:0 0660");
    const outcome done = in_child([] { return -create_file("product"); });
    EXPECT_EQ(messages(done.err) + std::to_string(done.status), "Unable to create file product: Is a directory\n1");
}

TEST(file_str, writes_through_no_link_in_the_files_or_the_copys_place)
{
    for (const char *line : {"a", "none"})
        for (const char *link : {"f", "f.tmp", "hard"}) {
            const test_folder folder;
            write_file("f", "a\nb\n", 0604), write_file("victim", "a\nb\n", 0604);
            if (link[0] == 'h')
                unlink("f"), fs::create_hard_link("victim", "f");
            else
                unlink(link), fs::create_symlink("victim", link);
            const outcome done = in_child([line] { return file_str_line("f", line, edit::remove, 0), errno; });
            EXPECT_EQ(done.status, 0) << "a leftover that was cleared away shows in errno";
            EXPECT_EQ(read_file("victim") + owner_mode("f"), "a\nb\n0:0 0604");
            EXPECT_EQ(read_file("f"), line[0] == 'a' ? "b\n" : "a\nb\n");
            EXPECT_TRUE(fs::is_regular_file(fs::symlink_status("f")) && !exists("f.tmp"));
            EXPECT_FALSE(fs::equivalent("f", "victim"));
        }
}

TEST(file_str, takes_no_file_for_its_own_copy_when_the_path_leaves_no_room_for_the_name)
{
    const test_folder folder;
    std::string path = "f";
    while (path.size() < 4095)
        path.insert(0, path.size() % 2 ? "./" : "/");
    write_file("f", "a\nb\n");
    const outcome done = in_child([&] { return file_str_line(path.c_str(), "a", edit::remove, 0); });
    EXPECT_EQ(messages(done.err), "file_str: Unable to stat file " + path + ": File name too long\n");
    EXPECT_EQ(std::to_string(done.status) + read_file("f"), "1a\nb\n");
}

TEST(file_str, loses_no_line_to_another_editor_and_shows_none_by_halves)
{
    const test_folder folder;
    const std::string last(9000, 'z');
    write_file("f", last);
    for (int editor = 0; editor < 4; ++editor)
        if (fork() == 0) {
            for (int turn = 0; turn < 50; ++turn)
                file_str_line("f", "line", edit::add, at_start);
            _exit(0);
        }
    while (waitpid(-1, nullptr, WNOHANG) >= 0)
        ASSERT_TRUE(read_file("f").ends_with(last));
    EXPECT_EQ(read_file("f").size(), 4 * 50 * 5 + last.size());
}
