// What mboxfixctl is made of, by itself: texts, places, and what a stage holds. As root, in a private host.
#include "common/conf.h"
#include "common/file_bytes.h"
#include "control/changes.h"
#include "control/lines.h"
#include "control/obstacles.h"
#include "control/places.h"
#include "control/refusals.h"
#include "control/say.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

const std::string control = "/var/qmail/control/";
const std::string names = "/var/qmail/mailnames/";
const std::string box = names + "d.example/m";

void write_file(const std::string &path, const std::string &text)
{
    std::filesystem::create_directories(dir_of(path));
    std::ofstream(path) << text;
}

struct stat status_of(const std::string &path)
{
    struct stat status = {};
    lstat(path.c_str(), &status);
    return status;
}

// A stage of the mailnames directory and of control/, as a run leaves one, in a directory.
const std::string stage_top = "/run/stage";

std::string in_layer(const std::string &path)
{
    return stage_top + "/u/" +
           (path.starts_with(names) ? "0/" + path.substr(names.size()) : "1/" + path.substr(control.size()));
}

struct staged_run {
    stage made;
    changes found;
};

staged_run begin_run()
{
    for (const std::string &dir : {stage_top, names})
        std::filesystem::remove_all(dir);
    write_file(box + "/.qmail", "old\n");
    for (const std::string &dir : {names, control})
        std::filesystem::create_directories(in_layer(dir));
    const std::string dirs[] = {dir_of(names + "x"), dir_of(control + "x")};
    staged_run run{};
    run.made.dir = owned_fd(open(stage_top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    run.made.where.covered = {{dirs[0], dirs[0], true}, {dirs[1], dirs[1], true}};
    note_lists(run.found);
    return run;
}

void whiteout(const std::string &path)
{
    std::filesystem::create_directories(dir_of(in_layer(path)));
    mknod(in_layer(path).c_str(), S_IFCHR, makedev(0, 0));
}

std::string changed(staged_run &run)
{
    constexpr const char *kinds[] = {"directory", "file", "content", "attributes", "removal", "loss"};
    if (!find_changes(run.made, run.found))
        return "failed";
    std::string text;
    for (const change &entry : run.found.entries)
        text += std::string(kinds[static_cast<int>(entry.what)]) + " " + entry.path.substr(11) + "\n";
    return text;
}

std::string joined(const std::vector<std::string> &lines)
{
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return text;
}

TEST(lines, are_found_counted_and_merged)
{
    EXPECT_EQ(lines_of("a\n\nb"), lines_of("a\n\nb\n"));
    EXPECT_EQ(lines_of("a\n\nb").size() + lines_of("").size(), 3U);
    const line_counts counts = count_lines("b\na\nb\nb\n", "b\nc\na\nd");
    EXPECT_EQ(counts.come, 2U);
    EXPECT_EQ(counts.go, 2U);
    EXPECT_EQ(common_lines("c\na\nx\nb", "b\nc\n"), "c\nb\n");
    // What another program has added stays, what goes goes, and what comes comes once.
    EXPECT_EQ(merged_lines("his\nkept\ngoes\n", "kept\ngoes\n", "new\nkept\nnew"), "his\nkept\nnew\n");
    EXPECT_EQ(merged_lines("his", "", ""), "his\n");
    EXPECT_EQ(merged_lines("twice\ntwice\n", "", "twice\n"), "twice\ntwice\n");
}

TEST(lines, are_masked_but_for_what_a_reader_may_know)
{
    EXPECT_EQ(masked("u:$1$a$b:popuser:x\n"), "u:(hash):popuser:x\n");
    EXPECT_EQ(masked("u:!pa:ss:popuser:x"), "u:!(hash):popuser:x\n");
    EXPECT_EQ(masked("u:a:popusers:popuser:x"), "u:(hash):popuser:x\n");
    EXPECT_EQ(masked("u:hash\nno colon\nu::9:x\n"), "u:(hash)\nno colon\nu:(hash):9:x\n");
}

TEST(printable, steers_no_terminal)
{
    const struct {
        const char *text;
        const char *shown;
    } rows[] = {
        {"", ""},
        {"a\tb~ ", "a\tb~ "},
        {"\033[2J\r\x7f\x01", "?[2J???"},
        {"ü \u00a0\u2027\u202f\u2065\u206a\u200d\u2010", "ü \u00a0\u2027\u202f\u2065\u206a\u200d\u2010"},
        {"\u0080\u009f", "????"},
        {"\u200e\u200f\u2028\u202e\u2066\u2069", "??????????????????"},
        {"\U0001f600€", "\U0001f600€"},
        {"\xc1\xbf", "??"},                // longer than it has to be
        {"\xe0\x9f\xbf", "???"},           // the same
        {"\xf0\x8f\xbf\xbf", "????"},      // the same
        {"\xc3", "?"},                     // cut off
        {"\xe2\x82", "??"},                // the same
        {"\xc3(", "?("},                   // not gone on with
        {"\xf5\x80\x80\x80\xff", "?????"}, // beyond what there is
        {"\xef\xbf\xbd", "\xef\xbf\xbd"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(printable(row.text), row.shown);
}

TEST(places, are_named)
{
    EXPECT_EQ(dir_of("/a//b") + dir_of("/a") + dir_of("//a") + dir_of("a") + dir_of("/a/b/"), "/a////a/b");
    for (const char *below : {"/d.example/m/Maildir/cur", "//d.example///m//Maildir/x", "/Maildir/Maildir/Maildir/new"})
        EXPECT_TRUE(is_below_maildir(mailnames_dir() + below)) << below;
    for (const char *not_below :
         {"/d.example/m/Maildir", "/d.example/Maildir/m", "/Maildir/m/x", "2/d/m/Maildir/x", ""})
        EXPECT_FALSE(is_below_maildir(mailnames_dir() + not_below)) << not_below;
}

TEST(places, are_found_by_links_of_root_alone)
{
    staged_run run = begin_run();
    for (const char *dir : {"/run/lists", "/run/box/Maildir/tmp", "/run/box/else"})
        std::filesystem::create_directories(dir);
    write_file("/run/lists/kept", "");
    std::filesystem::remove(control + "rcpthosts");
    symlink("/run/lists/kept", (control + "rcpthosts").c_str());
    symlink("/run/box", (names + "d.example/link").c_str());
    const std::string his[] = {names + "d.example/his", "/run/box/Maildir/tmp/cur", "/run/box/Maildir/cur",
                               "/run/box/Maildir/else", "/run/box/else/his",        names + "his.example"};
    for (const std::string &link : his) {
        symlink("/run/lists", link.c_str());
        lchown(link.c_str(), 1, 1);
    }
    places found;
    std::string cause;
    ASSERT_TRUE(find_places(found, cause)) << cause;
    std::string covered;
    for (const place &at : found.covered)
        covered += at.real + " " + at.named + (at.is_shown ? " shown\n" : "\n");
    EXPECT_EQ(covered, "/etc/drweb /etc/drweb shown\n"
                       "/run/box /var/qmail/mailnames/d.example/link shown\n"
                       "/run/lists /run/lists\n"
                       "/usr/local/vlq/var/lock/files /usr/local/vlq/var/lock/files\n"
                       "/var/qmail/control /var/qmail/control shown\n"
                       "/var/qmail/mailnames /var/qmail/mailnames shown\n"
                       "/var/qmail/users /var/qmail/users shown\n");
    std::sort(found.strangers.begin(), found.strangers.end());
    EXPECT_EQ(joined(found.strangers),
              names + "d.example/his\n" + names + "d.example/link/Maildir/cur\n" + names + "his.example\n");
    symlink("/", (names + "root.example").c_str());
    EXPECT_FALSE(find_places(found, cause));
    EXPECT_EQ(cause, names + "root.example leads to the root directory");
}

TEST(changes, a_file_is_the_one_that_was_looked_at)
{
    write_file("/run/file", "text");
    const struct stat one = status_of("/run/file");
    for (const std::size_t at :
         {offsetof(struct stat, st_mode), offsetof(struct stat, st_uid), offsetof(struct stat, st_gid),
          offsetof(struct stat, st_size), offsetof(struct stat, st_ino), offsetof(struct stat, st_dev),
          offsetof(struct stat, st_mtim.tv_sec), offsetof(struct stat, st_mtim.tv_nsec),
          offsetof(struct stat, st_ctim.tv_sec), offsetof(struct stat, st_ctim.tv_nsec)}) {
        struct stat other = one;
        reinterpret_cast<char *>(&other)[at] ^= 1;
        EXPECT_FALSE(is_same_file(one, other)) << at;
    }

    change seen{kind::content, "/run/file", 0, 0, one, one};
    EXPECT_EQ(old_bytes(seen).value_or("none"), "text");
    seen.before.st_mtim.tv_nsec ^= 1;
    EXPECT_FALSE(old_bytes(seen));
    mkfifo("/run/fifo", 0600);
    seen = {kind::content, "/run/fifo", 0, 0, status_of("/run/fifo"), one};
    EXPECT_FALSE(old_bytes(seen));
    EXPECT_EQ(errno, EINVAL);
    symlink("/run/file", "/run/link");
    seen = {kind::content, "/run/link", 0, 0, one, one};
    EXPECT_FALSE(old_bytes(seen));
}

TEST(changes, of_a_list_in_bytes_owner_or_mode)
{
    const list_state same = {"a", "a", {}, {}};
    std::vector<list_state> lists(14, same);
    lists[12].status_after.st_gid = 1;
    lists[13].status_after.st_uid = 1;
    for (std::size_t bit = 0; bit < 12; ++bit)
        lists[bit].status_after.st_mode = 1U << bit;
    lists.insert(lists.end(), {{"a", {}, {}, {}}, {{}, "", {}, {}}});
    for (const list_state &list : lists)
        EXPECT_TRUE(is_list_changed(list));
    EXPECT_FALSE(is_list_changed(same));
    EXPECT_FALSE(is_list_changed({}));
}

TEST(changes, that_would_take_away_what_nobody_gives_back)
{
    staged_run run = begin_run();
    write_file(box + "/@mbox.quota", "1\n");
    write_file(box + "/.qmail.tmp", "leftover\n");
    for (const char *mail : {"/Maildir/cur/1", "/Maildir/cur/1.tmp", "/Maildir/new/2", "/@attachments/3"})
        write_file(box + mail, "mail\n");
    mkdir((box + "/x.tmp").c_str(), 0700);
    for (const char *gone : {"/@mbox.quota", "/.qmail.tmp", "/Maildir/cur/1", "/Maildir/cur/1.tmp", "/x.tmp", "/never"})
        whiteout(box + gone);
    write_file(in_layer(box + "/Maildir/new/2"), "other\n");
    std::filesystem::create_symlink("/", in_layer(box + "/.qmail"));
    std::filesystem::create_directories(in_layer(box + "/@attachments"));
    setxattr(in_layer(box + "/@attachments").c_str(), "trusted.overlay.opaque", "y", 1, 0);
    const std::string losses[] = {".qmail",        "@attachments", "Maildir/cur/1", "Maildir/cur/1.tmp",
                                  "Maildir/new/2", "x.tmp"};
    std::string refused;
    for (const std::string &loss : losses)
        refused += box + "/" + loss + " would be taken away, with what is in it\n";
    EXPECT_NE(changed(run).find("removal mailnames/d.example/m/@mbox.quota\n"), std::string::npos);
    EXPECT_EQ(changed(run).find(".qmail.tmp"), std::string::npos);
    EXPECT_EQ(changed(run).find("never"), std::string::npos);
    EXPECT_EQ(joined(find_refusals(run.made, run.found)), refused);
    run.made.status = 3;
    EXPECT_EQ(joined(find_refusals(run.made, run.found)), "the run would end with exit status 3\n" + refused);
}

TEST(refusals, of_links_that_the_run_comes_by)
{
    staged_run run = begin_run();
    changed(run);
    run.found.lists[assign].after = "+d.example-:popuser:1:2:" + names + "d.example:-::\n=x:popuser:1:2:" + box +
                                    ":::\n"
                                    "+7-:popuser:1:2:" +
                                    names + "d.example:::\n.\n";
    const std::string come_by[] = {control + "rcpthosts",
                                   box,
                                   box + "/Maildir",
                                   box + "/Maildir/tmp",
                                   names + "d.example",
                                   names + "d.example/.qmail-default",
                                   names + "d.example/@mbox.quota"};
    const std::string passed_by[] = {names + "else", names + "else/m", names + "d.example/other",
                                     names + "else/.qmail-default", names + "else/m/Maildir"};
    for (const std::string &path : come_by) {
        run.made.where.strangers = {path};
        EXPECT_EQ(joined(find_refusals(run.made, run.found)), path + " is a link, but not root's: take it away\n");
    }
    for (const std::string &path : passed_by) {
        run.made.where.strangers = {path};
        EXPECT_EQ(joined(find_refusals(run.made, run.found)), "") << path;
    }
    run.made.status = 1;
    EXPECT_EQ(find_refusals(run.made, run.found).size(), 2U);
}

TEST(obstacles, no_byte_and_no_file_too_many)
{
    staged_run run = begin_run();
    const std::string small = "/var/qmail/mailnames/small.example";
    mkdir(small.c_str(), 0755);
    ASSERT_EQ(mount("small", small.c_str(), "tmpfs", 0, "size=64k,nr_inodes=9"), 0);
    write_file(small + "/m/there", "x");
    changed(run);
    struct statvfs room = {};
    statvfs(small.c_str(), &room);
    const auto bytes = static_cast<off_t>(room.f_bfree * room.f_frsize);
    const auto obstacles = [&](kind what, std::vector<off_t> sizes) {
        run.found.entries.clear();
        for (const off_t size : sizes) {
            change entry = {what, small + "/m/" + (what == kind::new_file ? "new" : "there"), 0, 0, {}, {}};
            entry.after.st_size = size;
            entry.after.st_mode = S_IFREG;
            entry.before.st_mode = what == kind::new_file ? 0 : S_IFREG;
            run.found.entries.push_back(entry);
        }
        return joined(find_obstacles(run.found));
    };
    EXPECT_EQ(obstacles(kind::new_file, {bytes - 8192, 4096, 0}), "");
    EXPECT_EQ(obstacles(kind::content, {bytes, bytes}), "");
    const std::string told = "no room at " + small + "/m: " + std::to_string(bytes + 4096) + " bytes to be written, " +
                             std::to_string(bytes) + " free: make room\n";
    EXPECT_EQ(obstacles(kind::content, {1, bytes + 1}), told);
    EXPECT_EQ(obstacles(kind::new_file, {bytes, 1}), told);
    EXPECT_EQ(obstacles(kind::new_file, std::vector<off_t>(room.f_ffree, 1)), "");
    EXPECT_EQ(obstacles(kind::new_file, std::vector<off_t>(room.f_ffree + 1, 1)),
              "no room at " + small + "/m: " + std::to_string(room.f_ffree + 1) + " files to be made, " +
                  std::to_string(room.f_ffree) + " free: make room\n");
    umount(small.c_str());
}

// As chattr +i and -i do; not every file system has it.
bool set_immutable(const std::string &path, bool is_immutable)
{
    const owned_fd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    int flags = is_immutable ? FS_IMMUTABLE_FL : 0;
    return ioctl(file.get(), FS_IOC_SETFLAGS, &flags) == 0;
}

TEST(obstacles, what_must_not_be_changed)
{
    staged_run run = begin_run();
    if (!set_immutable(box + "/.qmail", true))
        GTEST_SKIP() << "no such attribute here";
    symlink(".qmail", (box + "/@mbox.quota").c_str());
    for (const char *name : {"/.qmail", "/@mbox.quota"})
        write_file(in_layer(box + name), "new\n");
    changed(run);
    const std::string advice = "it must not be changed: take the attribute off with chattr -i or -a";
    EXPECT_EQ(joined(find_obstacles(run.found)), box + "/.qmail: " + advice + "\n");
    EXPECT_EQ(obstacle_at(box + "/.qmail", false), advice);
    set_immutable(box + "/.qmail", false);
    for (const std::string &dir : {box, std::string("/usr/local/vlq/var/lock/files")}) {
        set_immutable(dir, true);
        EXPECT_EQ(joined(find_obstacles(run.found)), dir + ": " + advice + "\n");
        set_immutable(dir, false);
    }
}

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    umask(022);
    load_conf();
    return RUN_ALL_TESTS();
}
