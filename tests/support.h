#pragma once

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace fs = std::filesystem;

// What the tests share: a folder of their own, files as text, and operations or programs watched from outside.

// A fresh folder that is removed at the end of the test; the test runs inside it, and PRODUCT_ROOT_D points into it
// with a lock directory in place.
struct test_folder {
    std::string path;
    std::string former_dir;
    test_folder();
    ~test_folder();
};

// How a child ended and what it wrote. status is the exit status, or 128 and the number of the signal.
struct outcome {
    int status;
    std::string out;
    std::string err;
};

// Runs the operation in a child process, which ends with what it returns, under the program name "mboxfix".
outcome in_child(const std::function<int()> &operation);

// Runs a program with standard input from /dev/null.
outcome run_program(const std::vector<std::string> &argv);

// A report as it stands on each stream: "mboxfix: TEXT", then, for an error number, the system error on its own line.
std::string report(const std::string &text, int error = 0);

void write_file(const std::string &path, const std::string &text, unsigned mode = 0644);
// The file's bytes; "(none)" when it cannot be opened, "(directory)" when it is one.
std::string read_file(const std::string &path);
bool exists(const std::string &path);
// "UID:GID MODE" with the mode in octal, of the path itself.
std::string owner_mode(const std::string &path);
// True when nobody holds the named lock of this path text.
bool is_unlocked(const std::string &path);

// How many descriptors this process has open, but for directories that are only held (O_PATH).
int open_descriptors();
// In a child only: makes the path a mount of itself, which nothing can be renamed over and nobody can remove. It goes
// with the child.
void mount_on_itself(const char *path);

// The private host as it was made, for one test: configuration, init scripts, accounts and qmail's folders are put
// back, the calls forgotten, the tables emptied but for Components, which says that none of the filters is installed.
// The configuration variables for its folders are set, with no file read.
struct test_host {
    test_host();
};

// Runs statements on the panel's database as its root. What they select, a line for each row.
std::string sql(const std::string &statements);

// The messages on a stream alone: without the program's name and without the system errors.
std::string messages(const std::string &stream);

// The text with every occurrence of a part replaced.
std::string replaced(std::string text, const std::string &what, const std::string &by);

// Runs a lookup in a child. Its messages on standard error, then what it gave, "(none)" for none; "stopped" when an
// assertion did so, and the messages with "[STATUS]" when they ended the process.
std::string trial(const std::function<const char *()> &lookup);
