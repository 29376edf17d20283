#include "qmail/mailbox.h"

#include "common/accounts.h"
#include "common/conf.h"
#include "common/error.h"
#include "common/file_str.h"
#include "common/idn.h"
#include "common/safe_open.h"
#include "process/send_sig.h"
#include "qmail/domain.h"
#include "qmail/layout.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *delivery_line = "./Maildir/";

// Relative to the mailbox directory, each after the one that holds it.
constexpr const char *mailbox_entries[] = {"Maildir", "Maildir/tmp", "Maildir/new", "Maildir/cur", "@attachments"};

struct mail_name_ref {
    const char *name;
    const char *domain;
};

// Ends the process with the message, which speaks of the step that failed, after everything of the mail name is gone.
[[noreturn]] void undo_and_end(const mail_name_ref &mail, char *message)
{
    remove_mailbox(mail.name, mail.domain);
    report_fatal(1, "%s", message);
}

void check_mail_name(const char *mail_name, const char *domain, const char *failure)
{
    if (!is_valid_mail_name(mail_name) || is_empty(domain))
        report_fatal(1, "%s", failure);
}

void register_mailbox_line(const mail_name_ref &mail, const char *line)
{
    text_buffer path;
    qmail_path(path, "/users/assign");
    if (file_str_line(path, line, edit::remove, 0) != 0)
        report_error(0, 0, "Unable to remove record for %s from assign file", mail.name);
    if (file_str_line(path, line, edit::add, at_start) != 0)
        undo_and_end(mail, alloc_printf("Unable to add record for %s to assign file", mail.name));
    chmod(path, 0600);
}

// The file is edited by this name, relative to the mailbox directory, and so is its lock named.
void renew_dot_qmail(const popuser_ids &ids)
{
    constexpr const char *file = ".qmail";
    if (truncate_or_create_file(file) != 0)
        report_fatal(1, "Unable to create %s file\n", file);
    if (safe_chown(file, ids.uid, ids.gid) != 0)
        report_fatal(1, "Unable to chown .qmail file: %s", strerror(errno));
    if (safe_chmod(file, 0600) != 0)
        report_fatal(1, "Unable to chmod .qmail file: %s", strerror(errno));
    if (file_str_line(file, "| true", edit::add, at_end) != 0)
        report_fatal(1, "Unable to add string to .qmail file\n");
}

void make_entries(const mail_name_ref &mail, const char *dir, const popuser_ids &ids)
{
    for (const char *entry : mailbox_entries) {
        if (safe_mkdir(entry, 0700) != 0 && errno != EEXIST)
            undo_and_end(mail, alloc_printf("Unable to make %s/%s dir: %s", dir, entry, strerror(errno)));
        if (safe_chown(entry, ids.uid, ids.gid) != 0)
            undo_and_end(mail, alloc_printf("Unable to chown %s/%s dir: %s", dir, entry, strerror(errno)));
    }
}

void make_mailbox_dir(const mail_name_ref &mail, const char *dir, const popuser_ids &ids)
{
    if (safe_mkdir(dir, 0700) != 0 && errno != EEXIST)
        undo_and_end(mail, alloc_printf("Unable to make %s dir: %s", dir, strerror(errno)));
    if (safe_chown(dir, ids.uid, ids.gid) != 0)
        undo_and_end(mail, alloc_printf("Unable to chown %s dir: %s", dir, strerror(errno)));
    text_buffer saved_dir;
    if (!getcwd(saved_dir, sizeof saved_dir))
        undo_and_end(mail, alloc_printf("Unable to getcwd: %s", strerror(errno)));
    if (safe_chdir(dir) != 0)
        undo_and_end(mail, alloc_printf("Unable to chdir %s: %s", dir, strerror(errno)));
    renew_dot_qmail(ids);
    make_entries(mail, dir, ids);
    if (chdir(saved_dir) != 0)
        undo_and_end(mail, alloc_printf("Unable to chdir %s: %s", saved_dir, strerror(errno)));
}

// A record is found again by the end of its home directory.
int remove_poppasswd_record(const char *mail_name, const char *ascii_domain)
{
    text_buffer path;
    qmail_path(path, "/users/poppasswd");
    text_buffer ending;
    format_text(ending, "/%s/%s", ascii_domain, mail_name);
    return file_str_line(path, ending, edit::remove_matching, suffix);
}

} // namespace

int add_mailbox(const char *mail_name, const char *domain)
{
    check_mail_name(mail_name, domain, "invalid mailname or domain name.");
    char *ascii = idn_toascii_safe(domain);
    static popuser_ids ids;
    find_popuser_safe(ids);

    const mail_name_ref mail = {mail_name, domain};
    text_buffer line;
    mailbox_line(line, get_dom_id_safe(domain), mail_name, ids, ascii, mail_name);
    register_mailbox_line(mail, line);
    text_buffer dir;
    mailbox_dir(dir, ascii, mail_name);
    make_mailbox_dir(mail, dir, ids);
    free(ascii);
    return 0;
}

int remove_mailbox(const char *mail_name, const char *domain)
{
    check_mail_name(mail_name, domain, "empty mailname or maildomain");
    char *ascii = domain_toascii_safe(domain);
    const popuser_ids ids = {get_user_id("popuser", 0), get_user_id("popuser", 1)};
    if (ids.uid == 0 || ids.gid == 0)
        report_fatal(1, "Unable to get popuser uid or gid\n");

    text_buffer path;
    qmail_path(path, "/users/assign");
    text_buffer line;
    mailbox_line(line, get_dom_id_safe(domain), mail_name, ids, ascii, mail_name);
    if (file_str_line(path, line, edit::remove, 0) != 0)
        report_error(0, 0, "Unable to remove %s mailbox record from assign file", mail_name);
    chmod(path, 0600);
    if (remove_poppasswd_record(mail_name, ascii) != 0)
        report_error(0, 0, "Unable to remove %s mailbox record from password file\n", mail_name);
    qmail_path(path, "/users/poppasswd");
    chmod(path, 0600);

    mailbox_dir(path, ascii, mail_name);
    free(ascii);
    remove_tree(path, 1);
    return 0;
}

int add_postbox(const char *mail_name, const char *domain, const char *password, int disabled, int short_names_disabled)
{
    check_mail_name(mail_name, domain, "empty mailname or maildomain");
    add_poppasswd_record(mail_name, domain, password, disabled, short_names_disabled);
    char *ascii = domain_toascii_safe(domain);
    text_buffer path;
    dot_qmail_path(path, ascii, mail_name);
    free(ascii);
    file_str_line(path, delivery_line, edit::remove, 0);
    if (file_str_line(path, delivery_line, edit::add, at_end) != 0) {
        remove_postbox(mail_name, domain);
        report_fatal(1, "Unable to add string to %s file.", path);
    }
    static popuser_ids ids;
    find_popuser_safe(ids);
    own_dot_qmail_safe(path, ids);
    return 0;
}

int remove_postbox(const char *mail_name, const char *domain)
{
    check_mail_name(mail_name, domain, "empty mailname or maildomain");
    char *ascii = domain_toascii_safe(domain);
    if (remove_poppasswd_record(mail_name, ascii) != 0)
        report_error(0, 0, "Unable to remove a record from poppassword file\n");
    text_buffer path;
    dot_qmail_path(path, ascii, mail_name);
    free(ascii);
    if (file_str_line(path, delivery_line, edit::remove, 0) != 0)
        report_error(0, 0, "Unable to remove string from %s file", path);
    return 0;
}

int add_poppasswd_record(const char *mail_name, const char *domain, const char *password, int disabled,
                         int short_names_disabled)
{
    if (is_empty(mail_name) || is_empty(domain))
        report_fatal(1, "empty mailname or maildomain");
    char *ascii = domain_toascii_safe(domain);
    if (remove_poppasswd_record(mail_name, ascii) != 0)
        report_error(0, 0, "Unable to remove record from popasswd file\n");
    if (!is_empty(password)) {
        text_buffer path;
        qmail_path(path, "/users/poppasswd");
        text_buffer record;
        format_text(record, "%s%s%s:%s%s:popuser:%s/%s/%s\n", mail_name, short_names_disabled ? "@" : "",
                    short_names_disabled ? ascii : "", disabled ? "!" : "", password, QMAIL_MAILNAMES_D, ascii,
                    mail_name);
        if (file_str_line(path, record, edit::add, at_end) != 0)
            report_fatal(1, "Unable to add record to poppasswd file");
    }
    free(ascii);
    return 0;
}
