#include "filters/spam.h"

#include "common/conf.h"
#include "common/error.h"
#include "common/get.h"
#include "common/panel_db.h"
#include "common/queries.h"
#include "process/exec.h"

#include <cstdio>
#include <cstring>
#include <iterator>
#include <sys/stat.h>

namespace {

constexpr const char *utility = "spamsetup";
constexpr const char *component = "vlq-spamassassin";
constexpr const char *server_name = "*@*";
constexpr unsigned default_max_children = 5;

// One name's settings on their way to the utility.
struct name_settings {
    const char *full_name;
    MYSQL *db;
    owned_text escaped_name;
    text id;     // of the name's filter row
    text action; // what becomes of spam: "delete" or "save"
    arg_vector args;
    arg_mark base; // the arguments that every run of this name begins with
};

bool is_true(const char *value)
{
    return value && strncmp(value, "true", 4) == 0;
}

const char *or_empty(const char *value)
{
    return value ? value : "";
}

// The rows of a query, null after a report.
owned_rows query_rows(const name_settings &name, const char *query)
{
    owned_rows rows = panel_db_rows(name.db, query);
    if (!rows)
        report_error(0, 1, "Unable to get spamassassin settings for '%s': %s", name.full_name, mysql_error(name.db));
    return rows;
}

bool run_utility(const name_settings &name)
{
    return util_execv(utility, name.args.slots) == 0;
}

// 1 when the name has a filter row, 0 when not, -1 on failure.
int find_filter(name_settings &name)
{
    const owned_rows rows = query_rows(name, formatted(spam_filter_query, name.escaped_name.get()));
    if (!rows)
        return -1;
    const MYSQL_ROW row = mysql_fetch_row(rows.get());
    if (row) {
        format_text(name.id, "%s", or_empty(row[0]));
        format_text(name.action, "%s", or_empty(row[1]));
    }
    return row ? 1 : 0;
}

bool append_mailbox_state(name_settings &name)
{
    const owned_rows rows = query_rows(name, formatted(spam_state_query, name.escaped_name.get()));
    if (!rows)
        return false;
    const MYSQL_ROW row = mysql_fetch_row(rows.get());
    if (row && is_true(row[0])) {
        arg_append(name.args, "--enable-mailname");
        arg_append(name.args, "--action");
        arg_append(name.args, name.action);
    } else if (row) {
        arg_append(name.args, "--disable-mailname");
    }
    return true;
}

void append_server_state(name_settings &name)
{
    arg_append(name.args, "start");
    if (is_true(get_misc_param("spamfilter_enabled", name.db))) {
        arg_append(name.args, "--enable-server-configs");
        if (is_true(get_misc_param("spamfilter_use_mailuser_prefs", name.db)))
            arg_append(name.args, "--enable-user-configs");
    }
    unsigned number = default_max_children;
    const char *value = get_misc_param("spamfilter_max_children", name.db);
    if (!value || sscanf(value, "%u", &number) != 1)
        number = default_max_children;
    arg_append(name.args, "--max-children");
    arg_append(name.args, formatted("%u", number));
}

bool append_score(name_settings &name)
{
    const owned_rows rows = query_rows(name, formatted(spam_score_query, name.id.c_str()));
    if (!rows)
        return false;
    if (const MYSQL_ROW row = mysql_fetch_row(rows.get())) {
        arg_append(name.args, "--sensitivity");
        arg_append(name.args, or_empty(row[0]));
    }
    return true;
}

bool append_subject(name_settings &name)
{
    const owned_rows rows = query_rows(name, formatted(spam_subject_query, name.id.c_str()));
    if (!rows)
        return false;
    if (const MYSQL_ROW row = mysql_fetch_row(rows.get())) {
        const char *subject = or_empty(row[0]);
        arg_append(name.args, *subject ? "--modify-header" : "--not-modify-header");
        arg_append(name.args, subject);
    }
    return true;
}

// Appends one list entry. One that the vector refuses starts a new run, of the base and what follows.
bool append_entry(name_settings &name, const char *list, const char *value)
{
    const text option = formatted("--add-to-%s", list);
    const arg_mark before = name.args.end;
    if (arg_append(name.args, option) && arg_append(name.args, value))
        return true;
    arg_cut(name.args, before);
    if (!run_utility(name))
        return false;
    arg_cut(name.args, name.base);
    arg_append(name.args, option);
    arg_append(name.args, value);
    return true;
}

bool append_lists(name_settings &name)
{
    const owned_rows rows = query_rows(name, formatted(spam_lists_query, name.id.c_str()));
    if (!rows)
        return false;
    bool appended = true;
    for (MYSQL_ROW row; appended && (row = mysql_fetch_row(rows.get()));)
        appended = append_entry(name, or_empty(row[0]), or_empty(row[1]));
    return appended;
}

int apply_settings(name_settings &name)
{
    const bool is_server = strncmp(name.full_name, server_name, 3) == 0;
    arg_cut(name.args, {});
    arg_append(name.args, utility);
    if (!is_server) {
        arg_append(name.args, "--mailname");
        arg_append(name.args, name.full_name);
    }
    name.base = name.args.end;

    const int found = find_filter(name);
    if (found <= 0)
        return found;
    if (is_server)
        append_server_state(name);
    else if (!append_mailbox_state(name))
        return -1;
    return append_score(name) && append_subject(name) && append_lists(name) && run_utility(name) ? 0 : -1;
}

} // namespace

bool arg_append(arg_vector &args, const char *text)
{
    const arg_mark end = args.end;
    const std::size_t size = strlen(text) + 1;
    if (size == 1 || size > sizeof args.texts - end.bytes || end.slots + 1 == std::size(args.slots))
        return false;
    args.slots[end.slots] = static_cast<char *>(memcpy(args.texts + end.bytes, text, size));
    arg_cut(args, {end.slots + 1, end.bytes + size});
    return true;
}

void arg_cut(arg_vector &args, const arg_mark &end)
{
    args.end = end;
    args.slots[end.slots] = nullptr;
}

void spam_rebuild_settings()
{
    const owned_db own = panel_db_open();
    MYSQL *db = own.get();
    if (!db)
        report_fatal(0, "Unable to connect to the mysql database");
    spam_apply_server(db);
    const owned_rows domains = panel_db_rows_safe(db, 0, "domains", spam_domains_query);
    while (const MYSQL_ROW domain = mysql_fetch_row(domains.get())) {
        const owned_rows names = panel_db_rows_safe(db, 0, "mailnames", formatted(spam_names_query, domain[0]));
        while (const MYSQL_ROW name = mysql_fetch_row(names.get()))
            spam_apply_mailname(name[0], domain[1], db);
    }
}

int spam_apply_server(MYSQL *db)
{
    return spam_apply_settings(server_name, db);
}

int spam_apply_mailname(const char *mail_name, const char *domain, MYSQL *db)
{
    if (!mail_name || !*mail_name || !domain || !*domain) {
        report_error(0, 1, "empty mailname or maildomain");
        return -1;
    }
    return spam_apply_settings(formatted("%s@%s", mail_name, domain), db);
}

int spam_apply_settings(const char *full_name, MYSQL *db)
{
    if (!is_component_installed(component))
        return 0;
    const text path = formatted("%s/admin/sbin/%s", PRODUCT_ROOT_D, utility);
    struct stat status;
    if (stat(path, &status) != 0) {
        report_error(0, 1, "%s package is installed but '%s' does not exist", component, path.c_str());
        return -1;
    }
    if (!full_name || !*full_name) {
        report_error(0, 1, "empty full mailname");
        return -1;
    }
    owned_db own(db ? nullptr : panel_db_open());
    if (!db && !own) {
        report_error(0, 0, "Unable to connect to mysql database\n");
        return -1;
    }
    name_settings name;
    name.full_name = full_name;
    name.db = db ? db : own.get();
    name.escaped_name = db_escape(name.db, full_name);
    return apply_settings(name);
}
