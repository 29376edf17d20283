#include "control/lines.h"

#include <algorithm>
#include <iterator>
#include <unordered_set>

namespace {

using line_set = std::unordered_set<std::string_view>;

line_set set_of(std::string_view text)
{
    const std::vector<std::string_view> lines = lines_of(text);
    return {lines.begin(), lines.end()};
}

std::size_t count_missing(const std::vector<std::string_view> &sorted, const std::vector<std::string_view> &in)
{
    std::vector<std::string_view> missing;
    std::set_difference(sorted.begin(), sorted.end(), in.begin(), in.end(), std::back_inserter(missing));
    return missing.size();
}

void append_line(std::string &text, std::string_view line)
{
    text += line;
    text += '\n';
}

} // namespace

std::vector<std::string_view> lines_of(std::string_view text)
{
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        lines.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

line_counts count_lines(std::string_view before, std::string_view after)
{
    std::vector<std::string_view> old_lines = lines_of(before);
    std::vector<std::string_view> new_lines = lines_of(after);
    std::sort(old_lines.begin(), old_lines.end());
    std::sort(new_lines.begin(), new_lines.end());
    return {count_missing(new_lines, old_lines), count_missing(old_lines, new_lines)};
}

std::string common_lines(std::string_view text, std::string_view other)
{
    const line_set kept = set_of(other);
    std::string result;
    for (const std::string_view line : lines_of(text))
        if (kept.contains(line))
            append_line(result, line);
    return result;
}

std::string merged_lines(std::string_view text, std::string_view before, std::string_view after)
{
    const line_set old_lines = set_of(before);
    const line_set new_lines = set_of(after);
    std::string result;
    for (const std::string_view line : lines_of(text))
        if (new_lines.contains(line) || !old_lines.contains(line))
            append_line(result, line);
    line_set known = set_of(text);
    for (const std::string_view line : lines_of(after))
        if (known.insert(line).second)
            append_line(result, line);
    return result;
}

std::string masked(std::string_view text)
{
    std::string result;
    for (const std::string_view line : lines_of(text)) {
        const std::size_t name_end = line.find(':');
        if (name_end == line.npos) {
            append_line(result, line);
            continue;
        }
        const std::string_view rest = line.substr(name_end + 1);
        std::size_t hash_end = rest.find(":popuser:"); // a hash of another program's may have a colon
        if (hash_end == rest.npos)
            hash_end = std::min(rest.find(':'), rest.size());
        result += line.substr(0, name_end + 1);
        result += rest.starts_with('!') ? "!(hash)" : "(hash)";
        append_line(result, rest.substr(hash_end));
    }
    return result;
}

std::size_t count_starting(std::string_view text, char byte)
{
    std::size_t count = 0;
    for (const std::string_view line : lines_of(text))
        count += line.starts_with(byte) ? 1 : 0;
    return count;
}
