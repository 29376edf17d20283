#include "qmail/mailbox.h"

#include "common/accounts.h"
#include "common/conf.h"
#include "common/error.h"
#include "common/idn.h"
#include "common/safe_open.h"
#include "process/remove_tree.h"
#include "qmail/domain.h"
#include "qmail/layout.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

constexpr const char *delivery_line = "./Maildir/";

// Relative to the mailbox directory, each after the one that holds it.
constexpr const char *mailbox_entries[] = {"Maildir", "Maildir/tmp", "Maildir/new", "Maildir/cur", "@attachments"};

struct mail_name_ref {
    const char *name;
    const char *domain;
};

// Takes everything of the mail name back, if the failed step allows it, and ends the process.
[[noreturn]] void undo_and_end(const mail_name_ref &mail, const owned_text &message)
{
    if (may_undo(errno))
        remove_mailbox(mail.name, mail.domain);
    report_fatal(1, "%s", message.get());
}

// The same for a step on the mailbox directory or below it: one that was refused is only reported, and the run goes on
// without it.
void fail_step(const mail_name_ref &mail, const owned_text &message)
{
    if (status_of_failure() != 0)
        undo_and_end(mail, message);
    report_error(0, 1, "%s", message.get());
}

void check_mail_name(const char *mail_name, const char *domain, const char *failure)
{
    if (!is_valid_mail_name(mail_name) || is_empty(domain))
        report_fatal(1, "%s", failure);
}

// The file is edited by this name, relative to the mailbox directory, and so is its lock named.
void renew_dot_qmail(const user_ids &ids)
{
    constexpr const char *file = ".qmail";
    if (truncate_or_create_file(file) != 0) {
        report_error(status_of_failure(), 1, "Unable to create %s file\n", file);
        return;
    }
    if (!own_dot_qmail(file, ids))
        return;
    const edit_end end = file_str_end(file, "| true", edit::add, at_end);
    if (end != edit_end::done)
        report_error(status_of_failure(end), 1, "Unable to add string to .qmail file\n");
}

// `shown` is what messages call the path. False when it was refused.
bool make_owned_dir(const mail_name_ref &mail, const char *path, const char *shown, const user_ids &ids)
{
    const safe_step failed = safe_make_dir(path, ids.uid, ids.gid, 0700);
    if (failed == safe_step::none)
        return true;
    const char *verb = failed == safe_step::mkdir ? "make" : "chown";
    fail_step(mail, alloc_printf("Unable to %s %s dir: %s", verb, shown, strerror(errno)));
    return false;
}

// What lies below an entry that was refused is passed over.
void make_entries(const mail_name_ref &mail, const char *dir, const user_ids &ids)
{
    std::string refused;
    for (const std::string entry : mailbox_entries)
        if ((refused.empty() || !entry.starts_with(refused)) &&
            !make_owned_dir(mail, entry.c_str(), alloc_printf("%s/%s", dir, entry.c_str()).get(), ids))
            refused = entry + "/";
}

// False when the mailbox directory was refused.
bool make_mailbox_dir(const mail_name_ref &mail, const char *dir, const user_ids &ids)
{
    if (!make_owned_dir(mail, dir, dir, ids))
        return false;
    text saved_dir;
    if (!getcwd(saved_dir.bytes, sizeof saved_dir.bytes))
        undo_and_end(mail, alloc_printf("Unable to getcwd: %s", strerror(errno)));
    if (safe_chdir(dir) != 0) {
        fail_step(mail, alloc_printf("Unable to chdir %s: %s", dir, strerror(errno)));
        return false;
    }
    renew_dot_qmail(ids);
    make_entries(mail, dir, ids);
    if (safe_chdir(saved_dir) != 0)
        undo_and_end(mail, alloc_printf("Unable to chdir %s: %s", saved_dir.c_str(), strerror(errno)));
    return true;
}

// A record is found again by the end of its home directory.
int remove_poppasswd_record(const char *mail_name, const owned_text &ascii_domain)
{
    const text ending = formatted("/%s/%s", ascii_domain.get(), mail_name);
    return file_str_line(qmail_path("/users/poppasswd"), ending, edit::remove_matching, suffix);
}

} // namespace

int add_mailbox(const char *mail_name, const char *domain)
{
    check_mail_name(mail_name, domain, "invalid mailname or domain name.");
    const owned_text ascii = idn_toascii_safe(domain);
    static user_ids ids;
    find_popuser_safe(ids);
    const mail_name_ref mail = {mail_name, domain};
    const text line = mailbox_line(get_dom_id_safe(domain), mail_name, ids, ascii, mail_name);
    const owned_text not_removed = alloc_printf("Unable to remove record for %s from assign file", mail_name);
    if (!renew_assign_line(line, not_removed.get()))
        undo_and_end(mail, alloc_printf("Unable to add record for %s to assign file", mail_name));
    return make_mailbox_dir(mail, mailbox_dir(ascii, mail_name), ids) ? 0 : 1;
}

int remove_mailbox(const char *mail_name, const char *domain)
{
    check_mail_name(mail_name, domain, "empty mailname or maildomain");
    const owned_text ascii = domain_toascii_safe(domain);
    const user_ids ids = get_user_ids("popuser");
    if (ids.uid == 0 || ids.gid == 0)
        report_fatal(1, "Unable to get popuser uid or gid\n");

    const text assign = qmail_path("/users/assign");
    const text line = mailbox_line(get_dom_id_safe(domain), mail_name, ids, ascii, mail_name);
    if (file_str_line(assign, line, edit::remove, 0) != 0)
        report_error(0, 0, "Unable to remove %s mailbox record from assign file", mail_name);
    safe_chmod(assign, safe_kind::file, 0600);
    if (remove_poppasswd_record(mail_name, ascii) != 0)
        report_error(0, 0, "Unable to remove %s mailbox record from password file\n", mail_name);
    safe_chmod(qmail_path("/users/poppasswd"), safe_kind::file, 0600);
    remove_tree(mailbox_dir(ascii, mail_name), 1);
    return 0;
}

int add_postbox(const char *mail_name, const char *domain, const char *password, int disabled, int short_names_disabled)
{
    check_mail_name(mail_name, domain, "empty mailname or maildomain");
    add_poppasswd_record(mail_name, domain, password, disabled, short_names_disabled);
    const text path = dot_qmail_path(domain_toascii_safe(domain), mail_name);
    const edit_end end = renew_line(path, delivery_line);
    if (end != edit_end::done) {
        if (may_undo(errno))
            remove_postbox(mail_name, domain);
        report_error(status_of_failure(end), 1, "Unable to add string to %s file.", path.c_str());
        return 0;
    }
    static user_ids ids;
    find_popuser_safe(ids);
    own_dot_qmail(path, ids);
    return 0;
}

int remove_postbox(const char *mail_name, const char *domain)
{
    check_mail_name(mail_name, domain, "empty mailname or maildomain");
    const owned_text ascii = domain_toascii_safe(domain);
    if (remove_poppasswd_record(mail_name, ascii) != 0)
        report_error(0, 0, "Unable to remove a record from poppassword file\n");
    const text path = dot_qmail_path(ascii, mail_name);
    if (file_str_line(path, delivery_line, edit::remove, 0) != 0)
        report_error(0, 0, "Unable to remove string from %s file", path.c_str());
    return 0;
}

int add_poppasswd_record(const char *mail_name, const char *domain, const char *password, int disabled,
                         int short_names_disabled)
{
    if (is_empty(mail_name) || is_empty(domain))
        report_fatal(1, "empty mailname or maildomain");
    const owned_text ascii = domain_toascii_safe(domain);
    if (remove_poppasswd_record(mail_name, ascii) != 0)
        report_error(0, 0, "Unable to remove record from popasswd file\n");
    if (is_empty(password))
        return 0;
    const text record = formatted("%s%s%s:%s%s:popuser:%s/%s/%s\n", mail_name, short_names_disabled ? "@" : "",
                                  short_names_disabled ? ascii.get() : "", disabled ? "!" : "", password,
                                  QMAIL_MAILNAMES_D, ascii.get(), mail_name);
    if (file_str_line(qmail_path("/users/poppasswd"), record, edit::add, at_end) != 0)
        report_fatal(1, "Unable to add record to poppasswd file");
    return 0;
}
