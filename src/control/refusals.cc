#include "control/refusals.h"

#include "common/conf.h"
#include "control/lines.h"
#include "control/obstacles.h"
#include "qmail/layout.h"

#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace {

// The directories that the run's users/assign names, as its lines have them.
std::set<std::string_view> home_dirs(std::string_view assign_text)
{
    std::set<std::string_view> dirs;
    for (std::string_view line : lines_of(assign_text)) {
        if (!line.ends_with(":::"))
            continue;
        line.remove_suffix(3);
        dirs.insert(line.substr(line.rfind(':') + 1));
    }
    return dirs;
}

// Whether the run comes by this path: in a directory of its lists, or in or at one of a domain or mailbox that it
// knows.
bool is_on_the_way(const std::string &path, const std::set<std::string_view> &homes)
{
    const std::string top = std::string(QMAIL_MAILNAMES_D) + "/";
    if (!path.starts_with(top))
        return true;
    if (homes.contains(path))
        return true;
    const std::string dir = dir_of(path);
    const std::string name = name_of(path);
    const bool is_domain_file = dir_of(dir) + "/" == top && (name == ".qmail-default" || name == "@mbox.quota");
    const bool is_deeper = dir_of(dir) + "/" != top;
    if (is_domain_file)
        return homes.contains(dir);
    return is_deeper && (homes.contains(dir) || homes.contains(dir_of(dir)));
}

} // namespace

std::vector<std::string> find_refusals(const stage &made, const changes &found)
{
    std::vector<std::string> causes;
    if (made.status != 0)
        causes.push_back("the run would end with exit status " + std::to_string(made.status));
    for (const change &entry : found.entries)
        if (entry.what == kind::loss)
            causes.push_back(entry.path + " would be taken away, with what is in it");
    const std::optional<std::string> &staged = found.lists[assign].after;
    const std::set<std::string_view> homes = home_dirs(staged ? std::string_view(*staged) : std::string_view());
    for (const std::string &path : made.where.strangers)
        if (made.status != 0 || is_on_the_way(path, homes)) // a run that failed has not named all its directories
            causes.push_back(path + " is a link, but not root's: take it away");
    for (std::string &cause : find_obstacles(found))
        causes.push_back(std::move(cause));
    return causes;
}
