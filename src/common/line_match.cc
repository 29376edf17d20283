#include "common/line_match.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::size_t piece_size = 4094;

std::string_view text_of(std::string_view piece)
{
    if (piece.ends_with('\n'))
        piece.remove_suffix(1);
    return piece;
}

// What of a string takes part in the comparison.
std::string_view pattern_of(const char *string, comparison how)
{
    const std::string_view pattern = string;
    if (how == comparison::equal)
        return pattern.substr(0, pattern.find('\n'));
    return how == comparison::substring ? pattern : text_of(pattern);
}

bool matches(std::string_view piece, std::string_view pattern, comparison how)
{
    switch (how) {
    case comparison::equal:
        return text_of(piece) == pattern;
    case comparison::prefix:
        return text_of(piece).starts_with(pattern);
    case comparison::suffix:
        return text_of(piece).ends_with(pattern);
    case comparison::substring:
        return piece.find(pattern) != piece.npos;
    case comparison::never:
        break;
    }
    return false;
}

// What has to stand somewhere in the file for a string to match a line that is no longer than a piece, given a newline
// before the first line and after the last.
std::vector<std::string> needles_of(const char *const *strings, comparison how)
{
    std::vector<std::string> needles;
    for (; *strings; ++strings) {
        std::string needle(pattern_of(*strings, how));
        if (how == comparison::equal || how == comparison::prefix)
            needle.insert(0, 1, '\n');
        if (how == comparison::equal || how == comparison::suffix)
            needle += '\n';
        needles.push_back(needle);
    }
    return needles;
}

// Follows the lines of a text through its blocks: `behind` is how much of a line lies behind this one. False once a
// line is longer than a piece.
bool has_whole_lines(std::string_view block, std::size_t &behind)
{
    while (!block.empty()) {
        const std::string_view window = block.substr(0, piece_size - behind);
        const std::size_t newline = window.rfind('\n');
        if (newline == window.npos) {
            behind += window.size();
            return behind < piece_size;
        }
        behind = 0;
        block.remove_prefix(newline + 1);
    }
    return true;
}

bool holds_any(std::string_view block, const std::vector<std::string> &needles)
{
    return std::any_of(needles.begin(), needles.end(), [&](const std::string &needle) {
        return memmem(block.data(), block.size(), needle.data(), needle.size()) != nullptr;
    });
}

} // namespace

std::size_t drop_lines(char *text, std::size_t size, const char *const *strings, comparison how)
{
    std::vector<std::string_view> patterns;
    for (; *strings; ++strings)
        patterns.push_back(pattern_of(*strings, how));
    std::size_t kept = 0;
    for (std::string_view rest(text, size), piece; !rest.empty(); rest.remove_prefix(piece.size())) {
        const std::string_view window = rest.substr(0, piece_size);
        piece = window.substr(0, std::min(window.find('\n'), window.size() - 1) + 1);
        if (std::any_of(patterns.begin(), patterns.end(),
                        [&](std::string_view pattern) { return matches(piece, pattern, how); }))
            continue;
        if (text + kept != piece.data())
            memmove(text + kept, piece.data(), piece.size());
        kept += piece.size();
    }
    return kept;
}

finding search_lines(int fd, const char *const *strings, comparison how)
{
    const std::vector<std::string> needles = needles_of(strings, how);
    char block[65536];
    std::size_t overlap = 0; // what the next block repeats, so that no needle is cut
    for (const std::string &needle : needles)
        overlap = std::max(overlap, needle.size());
    if (overlap > sizeof block / 2)
        return finding::possible;
    block[0] = '\n';
    std::size_t filled = 1;
    std::size_t behind = 0;
    for (;;) {
        const ssize_t got = read(fd, block + filled, sizeof block - filled);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return finding::failed;
        if (got == 0)
            block[filled++] = '\n'; // there is room: a full block is never kept
        const std::size_t end = filled + static_cast<std::size_t>(got);
        if (!has_whole_lines({block + filled, static_cast<std::size_t>(got)}, behind) ||
            holds_any({block, end}, needles))
            return finding::possible;
        if (got == 0)
            return finding::none;
        filled = std::min(end, overlap);
        memmove(block, block + end - filled, filled);
    }
}
