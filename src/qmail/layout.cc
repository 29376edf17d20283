#include "qmail/layout.h"

#include "common/accounts.h"
#include "common/conf.h"
#include "common/idn.h"
#include "common/safe_open.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

bool find_popuser(popuser_ids &ids)
{
    if (ids.uid == 0)
        ids.uid = get_user_id("popuser", 0);
    if (ids.gid == 0)
        ids.gid = get_user_id("popuser", 1);
    return ids.uid != 0 && ids.gid != 0;
}

void find_popuser_safe(popuser_ids &ids)
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

char *domain_toascii_safe(const char *domain)
{
    char *ascii = idn_toascii(domain);
    if (!ascii)
        report_fatal(1, "idn_toascii() failed: %s", idn_error_text(idn_last_error));
    return ascii;
}

void qmail_path(text_buffer &path, const char *below)
{
    format_text(path, "%s%s", QMAIL_ROOT_D, below);
}

void domain_dir(text_buffer &path, const char *ascii_domain)
{
    format_text(path, "%s/%s", QMAIL_MAILNAMES_D, ascii_domain);
}

void mailbox_dir(text_buffer &path, const char *ascii_domain, const char *name)
{
    format_text(path, "%s/%s/%s", QMAIL_MAILNAMES_D, ascii_domain, name);
}

void dot_qmail_path(text_buffer &path, const char *ascii_domain, const char *mail_name)
{
    format_text(path, "%s/%s/%s/.qmail", QMAIL_MAILNAMES_D, ascii_domain, mail_name);
}

void own_dot_qmail_safe(const char *path, const popuser_ids &ids)
{
    if (safe_chown(path, ids.uid, ids.gid) != 0)
        report_fatal(1, "Unable to chown %s file: %s", path, strerror(errno));
    if (safe_chmod(path, 0600) != 0)
        report_fatal(1, "Unable to chmod %s file: %s", path, strerror(errno));
}

void mailbox_line(text_buffer &line, const char *domain_id, const char *local_part, const popuser_ids &ids,
                  const char *ascii_domain, const char *mail_name)
{
    format_text(line, "=%s-%s:popuser:%d:%d:%s/%s/%s:::", domain_id, local_part, static_cast<int>(ids.uid),
                static_cast<int>(ids.gid), QMAIL_MAILNAMES_D, ascii_domain, mail_name);
}
