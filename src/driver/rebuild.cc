#include "driver/rebuild.h"

#include "common/accounts.h"
#include "common/conf.h"
#include "common/error.h"
#include "common/file_str.h"
#include "common/get.h"
#include "common/names.h"
#include "common/panel_db.h"
#include "common/queries.h"
#include "common/safe_open.h"
#include "filters/antivirus.h"
#include "qmail/domain.h"
#include "qmail/forward.h"
#include "qmail/layout.h"
#include "qmail/mailbox.h"
#include "qmail/nonexist.h"
#include "qmail/quota.h"

#include <algorithm>
#include <cerrno>
#include <crypt.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <sys/stat.h>

namespace {

// What holds for the whole pass.
struct rebuild_pass {
    MYSQL *db;
    int short_names_disabled;
    char salt[12]; // "$1$", eight characters, NUL: one salt for every password that the run encrypts
    std::map<std::string, unsigned long long> domains; // by their ASCII form: the lowest id of those that have it
    std::map<std::string, std::string> aliases;        // by their ASCII form: the id of the domain of the first
};

struct domain_row {
    const char *id;
    const char *name;
    int disabled;
};

#define COLUMN_NAME(name, source) name,
enum mail_column { MAIL_COLUMNS(COLUMN_NAME) };
#undef COLUMN_NAME

// The columns of a domain's row.
enum domain_column { domain_id, domain_name, domain_status, service_status };

void empty_file(const char *below)
{
    truncate_or_create_file(qmail_path(below));
}

void empty_qmail_files()
{
    empty_file("/control/rcpthosts");
    empty_file("/control/virtualdomains");
    empty_file("/users/assign");
    file_str_line(qmail_path("/users/assign"), ".\n", edit::add, at_end);

    const mode_t former = umask(077); // a new one is about to hold password hashes
    empty_file("/users/poppasswd");
    umask(former);
}

void prepare_mailnames_dir(gid_t qmail_gid)
{
    struct stat status;
    if (stat(QMAIL_MAILNAMES_D, &status) != 0) {
        if (errno != ENOENT)
            report_fatal(1, "ERROR: Unable to stat for mailnames dir: %s", strerror(errno));
        if (safe_mkdir(QMAIL_MAILNAMES_D, 0755) != 0)
            report_fatal(1, "ERROR: Unable to mkdir for mailnames dir: %s", strerror(errno));
    }
    const safe_step failed = safe_give(QMAIL_MAILNAMES_D, safe_kind::directory, 0, qmail_gid, 0755);
    if (failed != safe_step::none)
        report_fatal(1, "ERROR: Unable to %s for mailnames dir: %s", failed == safe_step::chown ? "chown" : "chmod",
                     strerror(errno));
}

void prepare_ground()
{
    const gid_t qmail_gid = get_user_id("qmails", 1);
    if (safe_chdir(QMAIL_ROOT_D) != 0)
        report_fatal(1, "ERROR: Unable to chdir to qmail dir: %s", strerror(errno));
    empty_qmail_files();
    prepare_mailnames_dir(qmail_gid);
    if (safe_chdir(QMAIL_MAILNAMES_D) != 0)
        report_fatal(1, "WARNING: Unable to chdir to mailnames dir: %s", strerror(errno));
}

bool is_set(const char *column)
{
    return column && strcmp(column, "false") != 0;
}

// Writes or removes the quota of a domain (mail_name null) or a mail name from its text in bytes.
void rebuild_quota(const char *domain, const char *name, const char *text)
{
    long quota = -1;
    if (!text || sscanf(text, "%ld", &quota) != 1)
        quota = -1;
    if (quota < 0)
        remove_mbox_quota(domain, name);
    else if (write_mbox_quota(domain, name, quota >> 10) == 0)
        report_error(0, 0, "Warning: unable to write mailbox quota\n");
}

// Whether an alias has the ASCII form of a domain that the pass walks or of an earlier alias. A domain that is walked
// twice has its own aliases twice; `seen` are those of this walk.
bool is_taken(rebuild_pass &pass, std::set<std::string> &seen, const char *domain_id, const char *alias)
{
    const auto key = domain_key(alias);
    if (!key)
        return false;
    const bool is_free = !pass.domains.contains(*key) && seen.insert(*key).second;
    return !is_free || pass.aliases.emplace(*key, domain_id).first->second != domain_id;
}

void rebuild_domain_aliases(rebuild_pass &pass, const domain_row &domain)
{
    const owned_rows rows =
        panel_db_rows_safe(pass.db, 1, "domain aliases", formatted(domain_aliases_query, domain.id, 0U));
    std::set<std::string> seen;
    while (const MYSQL_ROW row = mysql_fetch_row(rows.get())) {
        const char *alias = row[0];
        if (is_unfit_domain(alias)) {
            report_error(0, 0, "Warning: domain alias %s is passed over: the name is unfit\n", alias);
            continue;
        }
        if (is_taken(pass, seen, domain.id, alias)) {
            report_error(0, 0, "Warning: domain alias %s is passed over: another has its ASCII form\n", alias);
            continue;
        }
        add_domain_alias(domain.name, alias);
        const char *policy = get_DomainService_Parameter(domain.id, "mail", "nonexist_mail", pass.db);
        if (policy && strcmp(policy, "reject") == 0)
            renew_reject(alias);
    }
}

const char *encrypt_password(const rebuild_pass &pass, const domain_row &domain, const MYSQL_ROW mail)
{
    const char *password = mail[account_password] ? mail[account_password] : "";
    const bool is_stored = mail[account_type] && strcmp(mail[account_type], "crypt") == 0;
    const char *encrypted = is_stored ? password : crypt(password, pass.salt);
    if (is_stored ? !is_unfit_hash(encrypted) : encrypted && encrypted[0] != '*')
        return encrypted;
    report_error(0, 0, "Warning: unable to encrypt password for %s@%s\n", mail[mail_name], domain.name);
    return "*0"; // a record that no password matches
}

void rebuild_forward(const domain_row &domain, const MYSQL_ROW mail, const char *address)
{
    if (is_more_than_line(address))
        report_error(0, 0, "Warning: an address of %s@%s is passed over: it is more than a line\n", mail[mail_name],
                     domain.name);
    else
        add_forward(mail[mail_name], domain.name, address);
}

void rebuild_group(const rebuild_pass &pass, const domain_row &domain, const MYSQL_ROW mail)
{
    const owned_rows rows = panel_db_rows_safe(pass.db, 1, "mailgroup members", formatted(group_query, mail[mail_id]));
    while (const MYSQL_ROW row = mysql_fetch_row(rows.get()))
        if (row[0])
            rebuild_forward(domain, mail, row[0]);
}

void rebuild_mail_aliases(const rebuild_pass &pass, const domain_row &domain, const MYSQL_ROW mail)
{
    const owned_rows rows =
        panel_db_rows_safe(pass.db, 1, "alias for mail", formatted(mail_aliases_query, mail[mail_id]));
    while (const MYSQL_ROW row = mysql_fetch_row(rows.get())) {
        if (is_unfit_name(row[0]))
            report_error(0, 0, "Warning: mail alias %s of %s is passed over: the name is unfit\n", row[0], domain.name);
        else
            add_mail_alias(mail[mail_name], domain.name, row[0]);
    }
}

void rebuild_mail_name(const rebuild_pass &pass, const domain_row &domain, const MYSQL_ROW mail)
{
    const char *name = mail[mail_name];
    if (is_unfit_name(name)) {
        report_error(0, 0, "Warning: mail name %s of %s is passed over: the name is unfit\n", name, domain.name);
        return;
    }
    if (add_mailbox(name, domain.name) != 0)
        return;
    if (is_set(mail[mail_postbox]))
        add_postbox(name, domain.name, encrypt_password(pass, domain, mail), domain.disabled,
                    pass.short_names_disabled);
    if (is_set(mail[mail_redirect]) && !is_empty(mail[mail_redir_addr]))
        rebuild_forward(domain, mail, mail[mail_redir_addr]);
    if (is_set(mail[mail_group]))
        rebuild_group(pass, domain, mail);
    if (is_set(mail[mail_autoresponder]))
        add_autoresponder(name, domain.name);
    rebuild_quota(domain.name, name, mail[mail_mbox_quota]);
    rebuild_mail_aliases(pass, domain, mail);
}

// Whether a status, a number of any length, is not 0.
bool is_status_set(const char *column)
{
    std::string_view digits = column ? column : "";
    digits.remove_prefix(std::min(digits.find_first_not_of(" \t\n\v\f\r"), digits.size()));
    if (digits.starts_with('-') || digits.starts_with('+'))
        digits.remove_prefix(1);
    const std::size_t first = digits.find_first_not_of('0');
    return first != digits.npos && digits[first] >= '1' && digits[first] <= '9';
}

unsigned long long number_of(const char *id)
{
    return strtoull(id, nullptr, 10);
}

// Of two domains with one ASCII form the one that was there first is the domain, whatever the order of the rows.
void find_domains(rebuild_pass &pass, MYSQL_RES *rows)
{
    while (const MYSQL_ROW row = mysql_fetch_row(rows))
        if (const auto key = domain_key(row[domain_name]); key && !is_unfit_domain(row[domain_name])) {
            const auto known = pass.domains.emplace(*key, number_of(row[domain_id])).first;
            known->second = std::min(known->second, number_of(row[domain_id]));
        }
    mysql_data_seek(rows, 0);
}

void rebuild_domain(rebuild_pass &pass, const MYSQL_ROW row)
{
    const domain_row domain = {row[domain_id], row[domain_name],
                               is_status_set(row[domain_status]) || is_status_set(row[service_status])};
    if (is_unfit_domain(domain.name)) {
        report_error(0, 0, "Warning: domain %s is passed over: the name is unfit\n", domain.name);
        return;
    }
    if (const auto key = domain_key(domain.name); key && pass.domains.at(*key) != number_of(domain.id)) {
        report_error(0, 0, "Warning: domain %s is passed over: another has its ASCII form\n", domain.name);
        return;
    }
    add_mail_domain(domain.name, domain.disabled);
    set_nonexist_mail(domain.name, domain.id, pass.db);
    rebuild_quota(domain.name, nullptr, get_dom_Limit(domain.id, "mbox_quota", pass.db));
    rebuild_domain_aliases(pass, domain);
    const owned_rows rows = panel_db_rows_safe(pass.db, 1, "mailnames", formatted(mail_query, mail_columns, domain.id));
    while (const MYSQL_ROW mail = mysql_fetch_row(rows.get()))
        rebuild_mail_name(pass, domain, mail);
}

} // namespace

void rebuild_mail_config()
{
    prepare_ground();
    const owned_db db = panel_db_open();
    if (!db)
        report_fatal(1, "Unable to connect to the mysql database");
    const char *short_names = get_misc_param("allow_short_pop3_names", db.get());
    rebuild_pass pass = {db.get(), short_names && strcmp(short_names, "disabled") == 0, "$1$", {}, {}};
    const owned_rows rows = panel_db_rows_safe(pass.db, 1, "domains", domains_query);
    srand(static_cast<unsigned>(time(nullptr)));
    random_salt(pass.salt + 3, 8);
    find_domains(pass, rows.get());
    while (const MYSQL_ROW row = mysql_fetch_row(rows.get()))
        rebuild_domain(pass, row);
    if (is_component_installed("drweb") && is_component_installed("drweb-qmail"))
        av_rebuild_recipients(pass.db);
}
