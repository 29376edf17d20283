#include "support.h"

#include "common/conf.h"
#include "common/error.h"
#include "common/file_lock.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sched.h>
#include <sstream>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

static std::string product_root;

test_folder::test_folder() : former_dir(fs::current_path())
{
    path = access("/dev/shm", W_OK) == 0 ? "/dev/shm/mboxfix-test.XXXXXX" : "/tmp/mboxfix-test.XXXXXX";
    EXPECT_NE(mkdtemp(path.data()), nullptr);
    fs::current_path(path);
    product_root = path + "/product";
    fs::create_directories(product_root + "/var/lock/files");
    PRODUCT_ROOT_D = product_root.c_str();
    program_name = "/usr/sbin/mboxfix";
    errno = 0;
}

test_folder::~test_folder()
{
    fs::current_path(former_dir);
    fs::remove_all(path);
}

static std::string take_all(FILE *file)
{
    std::string text;
    rewind(file);
    for (int byte; (byte = fgetc(file)) != EOF;)
        text += static_cast<char>(byte);
    fclose(file);
    return text;
}

// What is still allocated where an operation ends the process is no leak, whatever a sanitizer makes of it.
static void skip_leak_check(int status, void *returned)
{
    if (*static_cast<bool *>(returned))
        return;
    fflush(nullptr);
    _exit(status);
}

outcome in_child(const std::function<int()> &operation)
{
    fflush(nullptr);
    FILE *out = tmpfile();
    FILE *err = tmpfile();
    const pid_t child = fork();
    if (child == 0) {
        dup2(fileno(out), 1);
        dup2(fileno(err), 2);
        program_name = "/usr/sbin/mboxfix";
        errno = 0;
        static bool returned = false;
        on_exit(skip_leak_check, &returned);
        const int result = operation();
        returned = true;
        exit(result);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return {WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status), take_all(out), take_all(err)};
}

outcome run_program(const std::vector<std::string> &argv)
{
    return in_child([&] {
        std::vector<char *> pointers;
        for (const std::string &word : argv)
            pointers.push_back(const_cast<char *>(word.c_str()));
        pointers.push_back(nullptr);
        dup2(open("/dev/null", O_RDONLY), 0);
        execvp(pointers[0], pointers.data());
        return 126;
    });
}

std::string report(const std::string &text, int error)
{
    std::string line = "mboxfix: " + text;
    if (error != 0)
        line += "\nSystem error " + std::to_string(error) + ": " + strerror(error);
    return line.ends_with('\n') ? line : line + "\n";
}

void write_file(const std::string &path, const std::string &text, unsigned mode)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
}

std::string read_file(const std::string &path)
{
    if (fs::is_directory(path))
        return "(directory)";
    std::ifstream file(path, std::ios::binary);
    return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "(none)";
}

bool exists(const std::string &path)
{
    return fs::exists(fs::symlink_status(path));
}

std::string owner_mode(const std::string &path)
{
    struct stat status;
    if (lstat(path.c_str(), &status) != 0)
        return "(none)";
    char text[64];
    format_text(text, "%u:%u %04o", status.st_uid, status.st_gid, status.st_mode & 07777U);
    return text;
}

bool is_unlocked(const std::string &path)
{
    return lock_file_is_held(lock_file_open(path.c_str(), O_RDWR | O_CREAT, LOCK_EX | LOCK_NB, 1));
}

int open_descriptors()
{
    int count = 0;
    for (int fd = 0; fd < 1024; ++fd)
        if (const int flags = fcntl(fd, F_GETFL); flags >= 0 && (flags & O_PATH) == 0)
            ++count;
    return count;
}

void mount_on_itself(const char *path)
{
    if (unshare(CLONE_NEWNS) != 0 || mount("", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(path, path, "", MS_BIND, nullptr) != 0)
        abort();
}

constexpr const char *renew_host = R"(set -e
former=/run/former
cd /
[ -d $former ] || { mkdir $former; cp -a --parents etc/vlq etc/init.d etc/passwd var/qmail $former; }
rm -rf /etc/vlq /etc/init.d /var/qmail /run/host/exit/*
cp -a $former/etc $former/var /
: >/run/host/calls
panel='mariadb --no-defaults -N vlq'
{
    echo 'set foreign_key_checks = 0;'
    echo "select concat('delete from ', table_name, ';') from information_schema.tables where table_schema = 'vlq'" |
        $panel
    echo "insert Components (name, version) values ('drweb', 'not_installed'), ('vlq-spamassassin', 'not_installed');"
} | $panel)";

test_host::test_host()
{
    const outcome renewal = run_program({"sh", "-c", renew_host});
    EXPECT_EQ(renewal.status, 0) << renewal.err;
    PRODUCT_ROOT_D = "/usr/local/vlq";
    PRODUCT_RC_D = "/etc/init.d";
    QMAIL_ROOT_D = "/var/qmail";
    QMAIL_MAILNAMES_D = "/var/qmail/mailnames";
}

std::string sql(const std::string &statements)
{
    const outcome done =
        run_program({"mariadb", "--no-defaults", "--default-character-set=utf8mb4", "-N", "vlq", "-e", statements});
    EXPECT_EQ(done.status, 0) << statements << done.err;
    return done.out;
}

std::string messages(const std::string &stream)
{
    std::string texts;
    std::istringstream lines(stream);
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with("System error "))
            texts += line.substr(line.starts_with("mboxfix: ") ? strlen("mboxfix: ") : 0) + "\n";
        else if (texts.ends_with("\n\n")) // of a message that ends in a newline
            texts.pop_back();
    }
    if (!texts.empty() && !stream.ends_with('\n'))
        texts.pop_back();
    return texts;
}

std::string replaced(std::string text, const std::string &what, const std::string &by)
{
    for (std::size_t at = 0; (at = text.find(what, at)) != text.npos; at += by.size())
        text.replace(at, what.size(), by);
    return text;
}

std::string trial(const std::function<const char *()> &lookup)
{
    const outcome done = in_child([&] {
        const char *value = lookup();
        fputs(value ? value : "(none)", stderr);
        return 0;
    });
    if (done.status == 128 + SIGABRT)
        return "stopped";
    EXPECT_TRUE(done.err.starts_with(done.out)) << done.err;
    return messages(done.err) + (done.status == 0 ? "" : "[" + std::to_string(done.status) + "]");
}
