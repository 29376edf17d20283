#include "control/check.h"

#include "common/conf.h"
#include "common/error.h"
#include "common/panel_db.h"
#include "common/queries.h"
#include "control/obstacles.h"
#include "control/places.h"
#include "control/rows.h"
#include "control/run_lock.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void add(check_result &result, bool is_ok, const std::string &text)
{
    result.lines.push_back({is_ok, text});
}

owned_db check_connection(check_result &result)
{
    char message[text_size + 1];
    char password[100];
    const bool is_readable = read_admin_password(password, message) == 0;
    explicit_bzero(password, sizeof password);
    add(result, is_readable,
        is_readable ? "password: /etc/vlq/.vlq.shadow"
                    : std::string("password: /etc/vlq/.vlq.shadow: ") + message + ": restore the file");
    if (!is_readable)
        return nullptr;
    owned_db db = panel_db_connect(message);
    add(result, db != nullptr,
        db ? "database: vlq, as admin"
           : std::string("database: ") + message + ": start the server, or correct the password file");
    return db;
}

// The query of a format, with something harmless where values go.
std::string query_of(std::string_view format)
{
    std::string query;
    for (std::size_t at = 0; at < format.size(); ++at) {
        if (format[at] != '%') {
            query += format[at];
            continue;
        }
        ++at;
        query += format[at] == '%' ? '%' : '0';
    }
    return query;
}

// The server looks at every table and column of a statement that it prepares, and at the rights to them.
bool can_ask(MYSQL *db, const std::string &query, std::string &cause)
{
    const std::unique_ptr<MYSQL_STMT, releaser<mysql_stmt_close>> statement(mysql_stmt_init(db));
    if (statement && mysql_stmt_prepare(statement.get(), query.c_str(), query.size()) == 0)
        return true;
    cause = statement ? mysql_stmt_error(statement.get()) : "no memory";
    return false;
}

constexpr const char *rebuild_queries[] = {
    domains_query, domain_aliases_query,    group_query,        mail_aliases_query, domain_id_query,
    limit_query,   service_parameter_query, client_email_query, component_query,    names_query};
constexpr const char *antivirus_queries[] = {scanned_names_query, scanned_names_on_aliases_query, scanned_aliases_query,
                                             scanned_aliases_on_aliases_query};
constexpr const char *spam_queries[] = {spam_domains_query, spam_names_query,   spam_filter_query, spam_state_query,
                                        spam_score_query,   spam_subject_query, spam_lists_query};

template <std::size_t Count>
void check_queries(MYSQL *db, check_result &result, const char *what, const char *const (&queries)[Count])
{
    std::string cause;
    for (const char *query : queries)
        if (!can_ask(db, query_of(query), cause)) {
            add(result, false, std::string(what) + ": " + cause + ": repair the panel's database");
            return;
        }
    add(result, true, what);
}

// Whether a component is installed; its row has to be there, once and with a version.
bool check_component(MYSQL *db, check_result &result, const char *name)
{
    const owned_rows rows = panel_db_rows(db, formatted(component_query, name));
    const MYSQL_ROW row = rows && mysql_num_rows(rows.get()) == 1 ? mysql_fetch_row(rows.get()) : nullptr;
    if (!row || !row[0]) {
        add(result, false,
            std::string("component ") + name +
                ": Components has not one row with its version: repair the panel's database");
        return false;
    }
    add(result, true, std::string("component ") + name + ": " + row[0]);
    return strcmp(row[0], "not_installed") != 0;
}

void check_user(check_result &result, const char *name)
{
    const struct passwd *user = getpwnam(name);
    const bool is_fine = user && user->pw_uid != 0 && user->pw_gid != 0 && getgrgid(user->pw_gid);
    add(result, is_fine, std::string("user ") + name + (is_fine ? "" : ": there is none, or it has no group: add it"));
}

void check_directory(check_result &result, const std::string &path)
{
    const std::string obstacle = obstacle_at(path, true);
    add(result, obstacle.empty(), "directory " + path + (obstacle.empty() ? "" : ": " + obstacle));
}

void check_program(check_result &result, const std::string &path)
{
    struct stat status = {};
    const bool is_fine = stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 &&
                         access(path.c_str(), X_OK) == 0;
    add(result, is_fine, "program " + path + (is_fine ? "" : ": it is missing or cannot be run: install it again"));
}

void check_lists(check_result &result, bool has_antivirus)
{
    for (int number = 0; number < list_count; ++number) {
        if (number == recipients && !has_antivirus)
            continue;
        const std::string path = list_path(static_cast<list_number>(number));
        const std::string obstacle = obstacle_at_list(path);
        add(result, obstacle.empty(), "list " + path + (obstacle.empty() ? "" : ": " + obstacle));
    }
}

void check_locks(check_result &result)
{
    for (int number = 0; number < list_count; ++number) {
        const std::string path = list_path(static_cast<list_number>(number));
        std::string holder;
        if (is_locked(path, holder))
            add(result, false,
                formatted("the lock of %s is held by %s: wait for it", path.c_str(), holder.c_str()).c_str());
    }
    owned_fd lock;
    std::string holder;
    const bool is_free = take_run_lock(lock, holder);
    add(result, is_free, is_free ? "no other run" : "another run is at work: " + holder + ": wait for it");
}

void check_room(MYSQL *db, check_result &result)
{
    const std::size_t missing = count_missing_mailboxes(db);
    std::string cause;
    const bool is_enough = has_room_for(missing, cause);
    add(result, is_enough, is_enough ? "room for " + std::to_string(missing) + " missing mailboxes" : cause);
}

void check_ground(check_result &result)
{
    check_user(result, "popuser");
    check_user(result, "qmails");
    const std::string qmail = QMAIL_ROOT_D;
    for (const std::string &path : {qmail + "/control", qmail + "/users", existing(QMAIL_MAILNAMES_D),
                                    std::string(PRODUCT_ROOT_D) + "/var/lock/files"})
        check_directory(result, path);
    check_programs(result);
}

void check_database(MYSQL *db, const run_mode &mode, check_result &result, bool &has_antivirus)
{
    const std::string product = PRODUCT_ROOT_D;
    check_queries(db, result, "tables of the rebuild", rebuild_queries);
    std::string cause;
    if (!can_ask(db, formatted(mail_query, mail_columns, "0").c_str(), cause) ||
        !can_ask(db, formatted(param_query, "val", "misc", "param", "0").c_str(), cause))
        add(result, false, "tables of the rebuild: " + cause + ": repair the panel's database");
    has_antivirus = check_component(db, result, "drweb") && check_component(db, result, "drweb-qmail");
    if (has_antivirus) {
        check_queries(db, result, "tables of the antivirus list", antivirus_queries);
        check_directory(result, DRWEB_ETC_D);
        check_program(result, product + "/admin/bin/virsetup");
    }
    result.has_spam_filter = mode.with_spam && check_component(db, result, "vlq-spamassassin");
    if (result.has_spam_filter) {
        check_queries(db, result, "tables of the spam filter", spam_queries);
        check_program(result, product + "/admin/bin/spamsetup");
    }
}

} // namespace

void check_programs(check_result &result)
{
    check_program(result, std::string(QMAIL_ROOT_D) + "/bin/qmail-newu");
    if (!conf_get("NO_RESTART_DAEMON"))
        check_program(result, std::string(PRODUCT_RC_D) + "/qmail");
}

// The keys are looked up one by one, so that all that are missing can be told.
bool check_configuration(check_result &result)
{
    std::string missing;
#define CONF_LOOKUP(key)                                                                                               \
    if (!conf_get(#key))                                                                                               \
        missing += missing.empty() ? #key : ", " #key;
    CONF_KEYS(CONF_LOOKUP)
#undef CONF_LOOKUP
    if (missing.empty())
        load_conf();
    add(result, missing.empty(),
        missing.empty() ? "configuration: /etc/vlq/vlq.conf"
                        : "configuration: /etc/vlq/vlq.conf does not set " + missing + ": add a line for each");
    return missing.empty();
}

check_result check_everything(const run_mode &mode, bool looks_for_runs)
{
    check_result result{};
    if (!check_configuration(result))
        return result;
    bool has_antivirus = false;
    const owned_db db = check_connection(result);
    if (db)
        check_database(db.get(), mode, result, has_antivirus);
    check_ground(result);
    check_lists(result, has_antivirus);
    if (looks_for_runs)
        check_locks(result);
    if (db && is_fine(result)) {
        check_room(db.get(), result);
        check_rows(db.get(), result);
    }
    return result;
}
