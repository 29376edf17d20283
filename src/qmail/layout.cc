#include "qmail/layout.h"

#include "common/conf.h"
#include "common/idn.h"
#include "common/safe_open.h"

#include <cctype>
#include <cerrno>
#include <cstring>

bool find_popuser(user_ids &ids)
{
    if (ids.uid == 0)
        ids.uid = get_user_id("popuser", 0);
    if (ids.gid == 0)
        ids.gid = get_user_id("popuser", 1);
    return ids.uid != 0 && ids.gid != 0;
}

void find_popuser_safe(user_ids &ids)
{
    if (!find_popuser(ids))
        report_fatal(1, "Unable to define UID or GID for user popuser");
}

bool is_valid_mail_name(const char *name)
{
    return name && (isalnum(static_cast<unsigned char>(*name)) || *name == '_' || *name == '-');
}

bool is_empty(const char *text)
{
    return !text || *text == '\0';
}

owned_text domain_toascii_safe(const char *domain)
{
    owned_text ascii = idn_toascii(domain);
    if (!ascii)
        report_fatal(1, "idn_toascii() failed: %s", idn_error_text(idn_last_error));
    return ascii;
}

text qmail_path(const char *below)
{
    return formatted("%s%s", QMAIL_ROOT_D, below);
}

text domain_dir(const owned_text &ascii_domain)
{
    return formatted("%s/%s", QMAIL_MAILNAMES_D, ascii_domain.get());
}

text mailbox_dir(const owned_text &ascii_domain, const char *name)
{
    return formatted("%s/%s/%s", QMAIL_MAILNAMES_D, ascii_domain.get(), name);
}

text dot_qmail_path(const owned_text &ascii_domain, const char *mail_name)
{
    return formatted("%s/%s/%s/.qmail", QMAIL_MAILNAMES_D, ascii_domain.get(), mail_name);
}

text mailbox_line(const char *domain_id, const char *local_part, const user_ids &ids, const owned_text &ascii_domain,
                  const char *mail_name)
{
    return formatted("=%s-%s:popuser:%d:%d:%s/%s/%s:::", domain_id, local_part, static_cast<int>(ids.uid),
                     static_cast<int>(ids.gid), QMAIL_MAILNAMES_D, ascii_domain.get(), mail_name);
}

edit_end renew_line(const char *path, const char *line)
{
    file_str_line(path, line, edit::remove, 0);
    return file_str_end(path, line, edit::add, at_end);
}

bool renew_assign_line(const char *line, const char *not_removed)
{
    const text path = qmail_path("/users/assign");
    if (file_str_line(path, line, edit::remove, 0) != 0)
        report_error(0, 0, "%s", not_removed);
    if (file_str_line(path, line, edit::add, at_start) != 0)
        return false;
    safe_chmod(path, safe_kind::file, 0600);
    return true;
}

bool may_undo(int error)
{
    return !is_refusal(error) && error != EMFILE && error != ENFILE && error != EFBIG;
}

int status_of_failure()
{
    return is_refusal(errno) ? 0 : 1;
}

int status_of_failure(edit_end end)
{
    return end == edit_end::refused ? 0 : 1;
}

bool own_dot_qmail(const char *path, const user_ids &ids)
{
    const safe_step failed = safe_give(path, safe_kind::file, ids.uid, ids.gid, 0600);
    if (failed != safe_step::none)
        report_error(status_of_failure(), 1, "Unable to %s %s file: %s", failed == safe_step::chown ? "chown" : "chmod",
                     path, strerror(errno));
    return failed == safe_step::none;
}
