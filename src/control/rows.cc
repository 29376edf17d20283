#include "control/rows.h"

#include "common/conf.h"
#include "common/error.h"
#include "common/get.h"
#include "common/idn.h"
#include "common/names.h"
#include "common/panel_db.h"
#include "common/queries.h"
#include "qmail/layout.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <sys/stat.h>

namespace {

// What a run would ask row by row, asked at once.
constexpr const char *all_aliases = "SELECT dom_id, name FROM domainaliases WHERE status=0 AND mail='true' ORDER BY id";
constexpr const char *all_names = "SELECT dom_id, id, mail_name, redirect, redir_addr, mail_group FROM mail";
constexpr const char *all_members = "SELECT mn_id, address FROM mail_redir";
constexpr const char *all_mail_aliases = "SELECT mn_id, alias FROM mail_aliases";

enum domain_column { domain_id, domain_name };
enum name_column { name_domain, name_id, name_text, name_redirect, name_address, name_group };

struct mail_row {
    std::string name; // NAME@DOMAIN
    bool is_group;
};

// The rows that a run comes to, by their ids.
struct panel_rows {
    MYSQL *db;
    check_result &result;
    std::map<std::string, unsigned long long> keys; // of the domains: the lowest id of each
    std::map<std::string, std::string> domains;
    std::map<std::string, mail_row> names;
};

unsigned long long number_of(const char *id)
{
    return strtoull(id, nullptr, 10);
}

void pass_over(const panel_rows &rows, const std::string &what, const char *why)
{
    rows.result.warnings.push_back(what + " would be passed over: " + why);
}

void end_run(const panel_rows &rows, const std::string &what, const char *why)
{
    rows.result.lines.push_back({false, what + " would end the run: " + why + ": correct it in the panel"});
}

std::string or_null(const char *text)
{
    return text ? text : "(none)";
}

bool is_set(const char *column)
{
    return column && strcmp(column, "false") != 0;
}

owned_rows ask(const panel_rows &rows, const char *query)
{
    owned_rows answer = panel_db_rows(rows.db, query);
    if (!answer)
        rows.result.lines.push_back({false, std::string("the panel's rows: ") + mysql_error(rows.db)});
    return answer;
}

// Whether a run gets by this name of a domain or alias, and takes it.
bool check_domain_name(const panel_rows &rows, const std::string &what, const char *name)
{
    const owned_text ascii = name ? idn_toascii(name) : nullptr;
    if (is_empty(name))
        end_run(rows, what, "the name is empty");
    else if (is_unfit_domain(name))
        pass_over(rows, what, "the name is unfit");
    else if (!ascii)
        end_run(rows, what, idn_error_text(idn_last_error));
    else if (!is_plain_text(name))
        end_run(rows, what, "the name has a quote or a backslash");
    else
        return true;
    return false;
}

void check_domains(panel_rows &rows)
{
    const owned_rows answer = ask(rows, domains_query);
    if (!answer)
        return;
    while (const MYSQL_ROW row = mysql_fetch_row(answer.get()))
        if (const auto key = domain_key(row[domain_name]); key && !is_unfit_domain(row[domain_name])) {
            const auto known = rows.keys.emplace(*key, number_of(row[domain_id])).first;
            known->second = std::min(known->second, number_of(row[domain_id]));
        }
    mysql_data_seek(answer.get(), 0);
    while (const MYSQL_ROW row = mysql_fetch_row(answer.get())) {
        const std::string what = "domain " + or_null(row[domain_name]);
        if (!check_domain_name(rows, what, row[domain_name]))
            continue;
        if (rows.keys.at(domain_key(row[domain_name]).value_or("")) == number_of(row[domain_id]))
            rows.domains.emplace(row[domain_id], row[domain_name]);
        else
            pass_over(rows, what, "another has its ASCII form");
    }
    rows.result.domains = rows.domains.size();
}

void check_domain_aliases(panel_rows &rows)
{
    const owned_rows answer = ask(rows, all_aliases);
    std::set<std::string> seen;
    while (const MYSQL_ROW row = answer ? mysql_fetch_row(answer.get()) : nullptr) {
        const std::string what = "domain alias " + or_null(row[1]);
        if (!rows.domains.contains(row[0]) || !check_domain_name(rows, what, row[1]))
            continue;
        const std::string key = domain_key(row[1]).value_or("");
        if (rows.keys.contains(key) || !seen.insert(key).second)
            pass_over(rows, what, "another has its ASCII form");
    }
}

void check_address(const panel_rows &rows, const std::string &name, const char *address)
{
    const std::string what = "an address of " + name;
    if (is_more_than_line(address))
        pass_over(rows, what, "it is more than a line");
    else if (!idn_email_toascii(address))
        end_run(rows, what, "it is none");
}

void check_mail_names(panel_rows &rows)
{
    const owned_rows answer = ask(rows, all_names);
    while (const MYSQL_ROW row = answer ? mysql_fetch_row(answer.get()) : nullptr) {
        const auto domain = row[name_domain] ? rows.domains.find(row[name_domain]) : rows.domains.end();
        if (domain == rows.domains.end())
            continue;
        const std::string name = or_null(row[name_text]) + "@" + domain->second;
        if (is_unfit_name(row[name_text])) {
            pass_over(rows, "mail name " + name, "the name is unfit");
            continue;
        }
        if (!is_valid_mail_name(row[name_text])) {
            end_run(rows, "mail name " + name, "it begins with no letter, digit, \"_\" or \"-\"");
            continue;
        }
        rows.names.emplace(row[name_id], mail_row{name, is_set(row[name_group])});
        if (is_set(row[name_redirect]) && !is_empty(row[name_address]))
            check_address(rows, name, row[name_address]);
    }
}

void check_members(panel_rows &rows)
{
    const owned_rows answer = ask(rows, all_members);
    while (const MYSQL_ROW row = answer ? mysql_fetch_row(answer.get()) : nullptr)
        if (const auto name = rows.names.find(row[0]); name != rows.names.end() && name->second.is_group && row[1])
            check_address(rows, name->second.name, row[1]);
}

void check_mail_aliases(panel_rows &rows)
{
    const owned_rows answer = ask(rows, all_mail_aliases);
    while (const MYSQL_ROW row = answer ? mysql_fetch_row(answer.get()) : nullptr) {
        const auto name = rows.names.find(row[0]);
        if (name == rows.names.end())
            continue;
        const std::string what = "mail alias " + or_null(row[1]) + " of " + name->second.name;
        if (is_unfit_name(row[1]))
            pass_over(rows, what, "the name is unfit");
        else if (!is_valid_mail_name(row[1]))
            end_run(rows, what, "it begins with no letter, digit, \"_\" or \"-\"");
    }
}

} // namespace

void check_rows(MYSQL *db, check_result &result)
{
    const std::size_t former = result.lines.size();
    panel_rows rows = {db, result, {}, {}, {}};
    check_domains(rows);
    check_domain_aliases(rows);
    check_mail_names(rows);
    check_members(rows);
    check_mail_aliases(rows);
    if (result.lines.size() == former)
        result.lines.push_back({true, "rows: " + std::to_string(rows.domains.size()) + " domains, " +
                                          std::to_string(rows.names.size()) + " mail names"});
}

std::size_t count_missing_mailboxes(MYSQL *db)
{
    const owned_rows answer = panel_db_rows(db, "SELECT d.name, m.mail_name FROM mail m, domains d, DomainServices s "
                                                "WHERE m.dom_id=d.id AND s.dom_id=d.id AND s.type='mail'");
    std::size_t missing = 0;
    while (const MYSQL_ROW row = answer ? mysql_fetch_row(answer.get()) : nullptr) {
        const owned_text ascii = row[0] ? idn_toascii(row[0]) : nullptr;
        struct stat status = {};
        if (ascii && row[1] && stat(mailbox_dir(ascii, row[1]), &status) != 0)
            ++missing;
    }
    return missing;
}

std::size_t count_domains()
{
    char message[text_size + 1];
    const owned_db db = panel_db_connect(message);
    const owned_rows rows = db ? panel_db_rows(db.get(), domains_query) : nullptr;
    return rows ? static_cast<std::size_t>(mysql_num_rows(rows.get())) : 0;
}
