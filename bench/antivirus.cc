// The antivirus phase on the panel that is loaded, against the bare line edits that it consists of: for each address
// six lines removed and one added.
//
//   antivirus REPETITIONS      prints the number of addresses, then the median seconds of the phase and of the edits

#include "filters/antivirus.h"
#include "common/conf.h"
#include "common/error.h"
#include "common/file_str.h"
#include "common/panel_db.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace {

using rule_set = std::vector<std::string>; // the six forms; the third is the one that is added

double seconds_for(const std::function<void()> &operation)
{
    const auto start = std::chrono::steady_clock::now();
    operation();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

std::vector<rule_set> read_rules(MYSQL *db)
{
    std::vector<rule_set> all;
    const owned_rows rows = panel_db_rows(db, "SELECT m.mail_name, d.name FROM mail m, domains d WHERE m.dom_id=d.id");
    while (const MYSQL_ROW row = rows ? mysql_fetch_row(rows.get()) : nullptr) {
        const std::string address = std::string(row[0]) + "@" + row[1];
        rule_set rules;
        for (const char *direction : {"from", "to", "any"})
            rules.push_back(std::string("allow\t") + direction + "\tregex\t^" + address + "$");
        for (const char *direction : {"from", "to", "any"})
            rules.push_back(std::string("allow\t") + direction + "\texact\t" + address);
        all.push_back(rules);
    }
    return all;
}

void edit_alone(const char *path, const std::vector<rule_set> &all)
{
    truncate_or_create_file(path);
    file_str_line(path, "[version=2]", edit::add, at_end);
    for (const rule_set &rules : all) {
        std::vector<const char *> lines;
        for (const std::string &rule : rules)
            lines.push_back(rule.c_str());
        lines.push_back(nullptr);
        file_str(path, lines.data(), edit::remove, 0);
        file_str_line(path, rules[2].c_str(), edit::add, at_end);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2)
        return 2;
    program_name = argv[0];
    load_conf();
    const owned_db db = panel_db_open();
    if (!db)
        return 1;
    const std::vector<rule_set> all = read_rules(db.get());
    const std::string list = std::string(DRWEB_ETC_D) + "/edited.conf";
    std::vector<double> phase;
    std::vector<double> edits;
    for (int turn = 0; turn < atoi(argv[1]); ++turn) {
        phase.push_back(seconds_for([&] { av_rebuild_recipients(db.get()); }));
        edits.push_back(seconds_for([&] { edit_alone(list.c_str(), all); }));
    }
    printf("%zu %.4f %.4f\n", all.size(), median(phase), median(edits));
}
