// The four edits that a mailbox costs, done by file_str and done the plain way: through stdio, a line at a time, always
// with a copy and a rename. Both take the same locks and must leave the same bytes.
//
//   line_edit FOLDER REPETITIONS SIZE...     prints SIZE, then the median seconds of file_str and of the plain way

#include "common/conf.h"
#include "common/error.h"
#include "common/file_lock.h"
#include "common/file_str.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

using edit_function = int (*)(const char *path, const char *line, edit action, int mode);

void require(bool holds, const char *what)
{
    if (!holds) {
        fprintf(stderr, "line_edit: %s\n", what);
        exit(1);
    }
}

bool is_dropped(std::string_view text, std::string_view line, edit action)
{
    if (text.ends_with('\n'))
        text.remove_suffix(1);
    return action == edit::remove ? text == line : text.ends_with(line);
}

void copy_lines(FILE *in, FILE *out, const char *line, edit action)
{
    char text[text_size];
    while (fgets(text, sizeof text, in))
        if (action == edit::add || !is_dropped(text, line, action))
            fputs(text, out);
}

void write_line(FILE *out, const char *line)
{
    fputs(line, out);
    if (!std::string_view(line).ends_with('\n'))
        fputc('\n', out);
}

void rewrite(const char *path, const char *line, edit action)
{
    struct stat status;
    require(stat(path, &status) == 0, "stat");
    const std::string copy = std::string(path) + ".tmp";
    FILE *in = fopen(path, "r");
    FILE *out = fopen(copy.c_str(), "w");
    require(in && out, "fopen");
    if (action == edit::add)
        write_line(out, line);
    copy_lines(in, out, line, action);
    require(fclose(in) == 0 && fclose(out) == 0, "fclose");
    require(rename(copy.c_str(), path) == 0, "rename");
    require(chown(path, status.st_uid, status.st_gid) == 0 && chmod(path, status.st_mode & 07777) == 0, "chown");
}

int plain_edit(const char *path, const char *line, edit action, int mode)
{
    auto lock = lock_file_exclusive(path, 1);
    require(lock_file_is_held(lock), "lock");
    if (action == edit::add && mode == at_end) {
        FILE *out = fopen(path, "a");
        require(out, "fopen");
        write_line(out, line);
        require(fclose(out) == 0, "fclose");
    } else {
        rewrite(path, line, action);
    }
    return lock_file_release(std::move(lock));
}

void edit_entry(edit_function edit_file, int number)
{
    const int domain = number / 10;
    char line[text_size];
    format_text(line, "=%d-user%d:popuser:7791:7791:/var/qmail/mailnames/domain%d.example/user%d:::", domain, number,
                domain, number);
    require(edit_file("assign", line, edit::remove, 0) == 0, "remove");
    require(edit_file("assign", line, edit::add, at_start) == 0, "add at_start");
    format_text(line, "/domain%d.example/user%d", domain, number);
    require(edit_file("poppasswd", line, edit::remove_matching, suffix) == 0, "remove_matching");
    format_text(line, "user%d:$1$0123456$0123456789012345678901:popuser:/var/qmail/mailnames/domain%d.example/user%d\n",
                number, domain, number);
    require(edit_file("poppasswd", line, edit::add, at_end) == 0, "add at_end");
}

double seconds_for(edit_function edit_file, int size)
{
    std::ofstream("assign") << ".\n";
    std::ofstream("poppasswd") << "";
    const auto start = std::chrono::steady_clock::now();
    for (int number = 0; number < size; ++number)
        edit_entry(edit_file, number);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string both_files()
{
    std::string text;
    for (const char *name : {"assign", "poppasswd"}) {
        std::ifstream file(name, std::ios::binary);
        text.append(std::istreambuf_iterator<char>(file), {});
    }
    return text;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void measure(int size, int repetitions)
{
    std::vector<double> ours;
    std::vector<double> plain;
    for (int turn = 0; turn < repetitions; ++turn) {
        ours.push_back(seconds_for(file_str_line, size));
        const std::string left = both_files();
        plain.push_back(seconds_for(plain_edit, size));
        require(left == both_files(), "the two ways left different bytes");
    }
    printf("%d %.4f %.4f\n", size, median(ours), median(plain));
    fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    require(argc > 3, "usage: line_edit FOLDER REPETITIONS SIZE...");
    program_name = argv[0];
    fs::create_directories(std::string(argv[1]) + "/var/lock/files");
    require(chdir(argv[1]) == 0, "chdir");
    PRODUCT_ROOT_D = argv[1];
    for (int at = 3; at < argc; ++at)
        measure(atoi(argv[at]), atoi(argv[2]));
}
