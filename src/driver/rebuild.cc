#include "driver/rebuild.h"

#include "common/accounts.h"
#include "common/conf.h"
#include "common/error.h"
#include "common/file_str.h"
#include "common/get.h"
#include "common/panel_db.h"
#include "filters/antivirus.h"
#include "qmail/domain.h"
#include "qmail/forward.h"
#include "qmail/layout.h"
#include "qmail/mailbox.h"
#include "qmail/nonexist.h"
#include "qmail/quota.h"

#include <cerrno>
#include <crypt.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// What holds for the whole pass.
struct rebuild_pass {
    MYSQL *db;
    int short_names_disabled;
    char salt[12]; // "$1$", eight characters, NUL: one salt for every password that the run encrypts
};

struct domain_row {
    const char *id;
    const char *name;
    int disabled;
};

// The columns of a mail name's row, in the order of its query.
enum mail_column {
    mail_id,
    mail_name,
    mail_postbox,
    account_type,
    account_password,
    mail_redirect,
    mail_redir_addr,
    mail_group,
    mail_autoresponder,
    mail_mbox_quota,
};

void empty_file(const char *below)
{
    text_buffer path;
    qmail_path(path, below);
    truncate_or_create_file(path);
}

void empty_qmail_files()
{
    empty_file("/control/rcpthosts");
    empty_file("/control/virtualdomains");
    empty_file("/users/assign");
    text_buffer path;
    qmail_path(path, "/users/assign");
    file_str_line(path, ".\n", edit::add, at_end);

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
        if (mkdir(QMAIL_MAILNAMES_D, 0755) != 0)
            report_fatal(1, "ERROR: Unable to mkdir for mailnames dir: %s", strerror(errno));
    }
    if (chown(QMAIL_MAILNAMES_D, 0, qmail_gid) != 0)
        report_fatal(1, "ERROR: Unable to chown for mailnames dir: %s", strerror(errno));
    if (chmod(QMAIL_MAILNAMES_D, 0755) != 0)
        report_fatal(1, "ERROR: Unable to chmod for mailnames dir: %s", strerror(errno));
}

void prepare_ground()
{
    const gid_t qmail_gid = get_user_id("qmails", 1);
    if (chdir(QMAIL_ROOT_D) != 0)
        report_fatal(1, "ERROR: Unable to chdir to qmail dir: %s", strerror(errno));
    empty_qmail_files();
    prepare_mailnames_dir(qmail_gid);
    if (chdir(QMAIL_MAILNAMES_D) != 0)
        report_fatal(1, "WARNING: Unable to chdir to mailnames dir: %s", strerror(errno));
}

bool is_set(const char *column)
{
    return column && strcmp(column, "false") != 0;
}

int short_pop3_names_allowed(MYSQL *db)
{
    const char *value = get_misc_param("allow_short_pop3_names", db);
    return !value || strcmp(value, "disabled") != 0;
}

// Writes or removes the quota of a domain (mail_name none) or a mail name from its text in bytes.
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

void rebuild_domain_aliases(const rebuild_pass &pass, const domain_row &domain)
{
    MYSQL_RES *rows = panel_db_rows_safe(pass.db, 1, "domain aliases",
                                         "SELECT name FROM domainaliases WHERE dom_id=%s AND status=%u AND mail='true'",
                                         domain.id, 0U);
    while (const MYSQL_ROW row = mysql_fetch_row(rows)) {
        add_domain_alias(domain.name, row[0]);
        const char *policy = get_DomainService_Parameter(domain.id, "mail", "nonexist_mail", pass.db);
        if (policy && strcmp(policy, "reject") == 0)
            renew_reject(row[0]);
    }
    mysql_free_result(rows);
}

const char *encrypt_password(const rebuild_pass &pass, const domain_row &domain, const MYSQL_ROW mail)
{
    const char *password = mail[account_password] ? mail[account_password] : "";
    if (mail[account_type] && strcmp(mail[account_type], "crypt") == 0)
        return password;
    const char *encrypted = crypt(password, pass.salt);
    if (encrypted && encrypted[0] != '*')
        return encrypted;
    report_error(0, 0, "Warning: unable to encrypt password for %s@%s\n", mail[mail_name], domain.name);
    return "*0"; // a record that no password matches
}

void rebuild_group(const rebuild_pass &pass, const domain_row &domain, const MYSQL_ROW mail)
{
    MYSQL_RES *rows = panel_db_rows_safe(pass.db, 1, "mailgroup members",
                                         "SELECT address FROM mail_redir WHERE mn_id=%s", mail[mail_id]);
    while (const MYSQL_ROW row = mysql_fetch_row(rows))
        if (row[0])
            add_forward(mail[mail_name], domain.name, row[0]);
    mysql_free_result(rows);
}

void rebuild_mail_aliases(const rebuild_pass &pass, const domain_row &domain, const MYSQL_ROW mail)
{
    MYSQL_RES *rows = panel_db_rows_safe(pass.db, 1, "alias for mail", "SELECT alias FROM mail_aliases WHERE mn_id=%s",
                                         mail[mail_id]);
    while (const MYSQL_ROW row = mysql_fetch_row(rows))
        add_mail_alias(mail[mail_name], domain.name, row[0]);
    mysql_free_result(rows);
}

void rebuild_mail_name(const rebuild_pass &pass, const domain_row &domain, const MYSQL_ROW mail)
{
    const char *name = mail[mail_name];
    add_mailbox(name, domain.name);
    if (is_set(mail[mail_postbox]))
        add_postbox(name, domain.name, encrypt_password(pass, domain, mail), domain.disabled,
                    pass.short_names_disabled);
    if (is_set(mail[mail_redirect]) && !is_empty(mail[mail_redir_addr]))
        add_forward(name, domain.name, mail[mail_redir_addr]);
    if (is_set(mail[mail_group]))
        rebuild_group(pass, domain, mail);
    if (is_set(mail[mail_autoresponder]))
        add_autoresponder(name, domain.name);
    rebuild_quota(domain.name, name, mail[mail_mbox_quota]);
    rebuild_mail_aliases(pass, domain, mail);
}

void rebuild_mail_names(const rebuild_pass &pass, const domain_row &domain)
{
    MYSQL_RES *rows = panel_db_rows_safe(
        pass.db, 1, "mailnames",
        "SELECT m.id, m.mail_name, m.postbox, a.type, a.password, m.redirect, m.redir_addr, m.mail_group, "
        "m.autoresponder, m.mbox_quota FROM mail m LEFT JOIN accounts a ON a.id = m.account_id "
        "WHERE dom_id=%s",
        domain.id);
    while (const MYSQL_ROW row = mysql_fetch_row(rows))
        rebuild_mail_name(pass, domain, row);
    mysql_free_result(rows);
}

int status_number(const char *column)
{
    return column ? atoi(column) : 0;
}

void rebuild_domain(const rebuild_pass &pass, const MYSQL_ROW row)
{
    const domain_row domain = {row[0], row[1], status_number(row[2]) != 0 || status_number(row[3]) != 0};
    add_mail_domain(domain.name, domain.disabled);
    set_nonexist_mail(domain.name, domain.id, pass.db);
    rebuild_quota(domain.name, nullptr, get_dom_Limit(domain.id, "mbox_quota", pass.db));
    rebuild_domain_aliases(pass, domain);
    rebuild_mail_names(pass, domain);
}

} // namespace

void rebuild_mail_config()
{
    prepare_ground();
    rebuild_pass pass = {panel_db_open(), 0, "$1$"};
    if (!pass.db)
        report_fatal(1, "Unable to connect to the mysql database");
    pass.short_names_disabled = !short_pop3_names_allowed(pass.db);
    MYSQL_RES *rows =
        panel_db_rows_safe(pass.db, 1, "domains",
                           "SELECT d.id, d.name, d.status, s.status FROM domains d LEFT JOIN DomainServices s "
                           "ON d.id=s.dom_id WHERE s.type='mail'");
    srand(static_cast<unsigned>(time(nullptr)));
    random_salt(pass.salt + 3, 8);
    pass.salt[11] = '\0';
    while (const MYSQL_ROW row = mysql_fetch_row(rows))
        rebuild_domain(pass, row);
    mysql_free_result(rows);
    if (is_component_installed("drweb") && is_component_installed("drweb-qmail"))
        av_rebuild_recipients(pass.db);
    mysql_close(pass.db);
}
