// Any input for what reads, quotes or edits text, held against what has to be true of each: FUZZ=NAME fuzz, fed by
// libFuzzer where the compiler has it, else by a generator of the same inputs every time.
#include "common/conf.cc"
#include "common/file_str.h"
#include "filters/spam.h"
#include "process/send_sig.cc"
#include "qmail/nonexist.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

void must(bool holds)
{
    if (!holds)
        abort();
}

// Texts appended, cut back and appended again: the vector holds just those that it took, and stays in its block.
void arg_vector_keeps(const std::string &input)
{
    static arg_vector args;
    arg_cut(args, {});
    std::vector<std::string> taken;
    std::vector<arg_mark> marks = {args.end};
    for (std::size_t at = 0; at + 1 < std::min<std::size_t>(input.size(), 500); at += 2) {
        const auto first = static_cast<unsigned char>(input[at]), second = static_cast<unsigned char>(input[at + 1]);
        if (first == 0) {
            taken.resize(second % (taken.size() + 1));
            marks.resize(taken.size() + 1);
            arg_cut(args, marks.back());
        } else {
            const std::string text(first % 8 == 0 ? first * second / 2 : second % 9, static_cast<char>('a' + at % 26));
            const std::size_t left = sizeof args.texts - args.end.bytes;
            const bool fits = !text.empty() && taken.size() < 99 && text.size() < left;
            must(arg_append(args, text.c_str()) == fits);
            if (fits)
                taken.push_back(text), marks.push_back(args.end);
        }
        must(args.end.slots == taken.size() && !args.slots[taken.size()]);
    }
    for (std::size_t at = 0; at < taken.size(); ++at)
        must(taken[at] == args.slots[at]);
}

// Every key is looked up in any file, and none gets what spans lines.
void conf_values_are_of_a_line(const std::string &input)
{
    cache.reset(static_cast<char *>(calloc(input.size() + 2, 1)));
    memcpy(cache.get(), input.data(), input.size());
    cache_size = input.size();
    cut_lines(cache.get(), cache_size);
    for (const char *key : {"HTTPD_SERVICE", "a", ""})
        if (const char *value = conf_get(key))
            must(*value != '\0' && !strchr(value, '\n'));
}

// An edit as the contract words it: the lines one by one, cut where they are too long.
std::string edited_plainly(const std::string &text, const std::vector<std::string> &strings, edit action, int mode)
{
    const auto bare = [](std::string line) { return line.ends_with('\n') ? line.substr(0, line.size() - 1) : line; };
    std::string added, kept;
    for (const std::string &string : strings)
        added += bare(string) + "\n";
    if (action == edit::add)
        return mode == at_start ? added + text : mode == at_end ? text + added : text;
    for (std::size_t at = 0, size; at < text.size(); at += size) {
        size = std::min({text.find('\n', at) - at, text.size() - at - 1, std::size_t{4093}}) + 1;
        const std::string line = text.substr(at, size);
        kept += std::any_of(strings.begin(), strings.end(),
                            [&](const std::string &string) {
                                return action == edit::remove ? bare(line) == string.substr(0, string.find('\n'))
                                       : mode == prefix       ? bare(line).starts_with(bare(string))
                                       : mode == suffix       ? bare(line).ends_with(bare(string))
                                                              : line.find(string) != line.npos;
                            })
                    ? ""
                    : line;
    }
    return kept;
}

void file_str_edits_plainly(const std::string &input)
{
    if (input.size() < 2)
        return;
    const auto how = static_cast<unsigned char>(input[0]), cut = static_cast<unsigned char>(input[1]);
    const auto action = static_cast<edit>(how % 3);
    const int mode = how / 3 % 3;
    std::vector<std::string> strings((how / 9 + 1U) % 3);
    std::string text = input.substr(2);
    for (std::string &string : strings) {
        string = text.substr(0, cut % 64U).c_str();
        text.erase(0, cut % 64U);
    }
    if (!strings.empty() && how >= 200) // a whole line, or the piece of one that is compared at once
        strings[0] = std::string(text, 0, std::min<std::size_t>(text.find('\n'), 4093U + cut % 3)).c_str();
    std::vector<const char *> lines;
    for (const std::string &string : strings)
        lines.push_back(string.c_str());
    lines.push_back(nullptr);
    std::ofstream("f", std::ios::binary) << text;
    must(file_str("f", lines.data(), action, mode) == 0);
    std::ifstream file("f", std::ios::binary);
    must(std::string(std::istreambuf_iterator<char>(file), {}) == edited_plainly(text, strings, action, mode));
}

// The heading of ps' output is passed over, each line counts once at most. The signal is none.
void ps_lines_count_once(const std::string &input)
{
    must(signal_matches(input.c_str(), "mark", 0) <= std::count(input.begin(), input.end(), '\n'));
}

// Taking the quoting off again gives the text, and nothing special is left bare.
void shell_escape_can_be_taken_off(const std::string &input)
{
    const std::string escaped = shell_escape(input);
    std::string back;
    for (std::size_t at = 0; at < escaped.size(); ++at) {
        const bool quoted = escaped.compare(at, 3, "'\n'") == 0;
        must(quoted || std::string_view("|&;<>()$`\"'*?[#~ \t\n").find(escaped[at]) == std::string_view::npos);
        if (quoted || escaped[at] == '\\')
            ++at;
        back += escaped.at(at);
        at += quoted;
    }
    must(back == input);
}

const std::map<std::string_view, void (*)(const std::string &)> targets = {
    {"arg_vector", arg_vector_keeps},
    {"conf", conf_values_are_of_a_line},
    {"file_str", file_str_edits_plainly},
    {"ps_output", ps_lines_count_once},
    {"shell_escape", shell_escape_can_be_taken_off}};

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    static char folder[] = "/dev/shm/mboxfix-fuzz.XXXXXX";
    must(mkdtemp(folder) && chdir(folder) == 0);
    std::filesystem::create_directories("product/var/lock/files");
    PRODUCT_ROOT_D = "product";
    atexit([] { std::filesystem::remove_all(folder); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const auto try_input = targets.at(getenv("FUZZ"));
    try_input({reinterpret_cast<const char *>(data), size});
    return 0;
}

#ifndef HAS_LIBFUZZER
int main()
{
    LLVMFuzzerInitialize(nullptr, nullptr);
    if (!freopen("/dev/null", "w", stdout) || !freopen("/dev/null", "w", stderr))
        return 1;
    std::minstd_rand random(2026);
    const auto below = [&](unsigned limit) { return static_cast<unsigned>(random() >> 4) % limit; };
    for (int count = 0; count < 20000; ++count) {
        std::string input(below(4) == 0 ? 4080 + below(40) : below(80), 'a');
        const unsigned newlines = below(2) == 0 ? 9999 : 6, any = below(4);
        for (char &byte : input)
            byte = below(newlines) == 0 ? '\n'
                   : any == 0           ? static_cast<char>(below(256))
                                        : "\0ab mrk1"[below(any * 2 + 2)];
        for (std::size_t at = 0; at < std::min<std::size_t>(2, input.size()); ++at)
            input[at] = static_cast<char>(below(256));
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(input.data()), input.size());
    }
    return 0;
}
#endif
