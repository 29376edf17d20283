#pragma once

#include <string>
#include <string_view>
#include <vector>

// Texts as lines. A line is what stands before a newline; a last one without a newline is one too.

std::vector<std::string_view> lines_of(std::string_view text);

// How many lines of the second text the first has not, and the other way round; the order does not matter.
struct line_counts {
    std::size_t come;
    std::size_t go;
};
line_counts count_lines(std::string_view before, std::string_view after);

// The lines of `text`, in their order, that `other` has too.
std::string common_lines(std::string_view text, std::string_view other);

// `text` without the lines that `before` has and `after` has not, and then those that `after` has and it has not yet.
std::string merged_lines(std::string_view text, std::string_view before, std::string_view after);

// A text of records of users/poppasswd with what stands between the name and ":popuser:", but its "!", as "(hash)"; in
// any other record that is the second field.
std::string masked(std::string_view text);

// The number of lines that begin with this byte.
std::size_t count_starting(std::string_view text, char byte);
