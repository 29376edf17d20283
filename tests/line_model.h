#pragma once

#include "common/file_str.h"

#include <algorithm>
#include <string>
#include <vector>

// The same edit as the contract words it: the lines one by one, cut where they are too long.
inline std::string edited_plainly(const std::string &text, const std::vector<std::string> &strings, edit action,
                                  int mode)
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
        bool drops = false;
        for (const std::string &string : strings)
            drops |= action == edit::remove ? bare(line) == string.substr(0, string.find('\n'))
                     : mode == prefix       ? bare(line).starts_with(bare(string))
                     : mode == suffix       ? bare(line).ends_with(bare(string))
                                            : line.find(string) != line.npos;
        kept += drops ? "" : line;
    }
    return kept;
}
