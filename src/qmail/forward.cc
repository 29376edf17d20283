#include "qmail/forward.h"

#include "common/error.h"
#include "common/file_str.h"
#include "common/idn.h"
#include "qmail/domain.h"
#include "qmail/layout.h"

#include <cstdlib>
#include <sys/stat.h>

int add_forward(const char *mail_name, const char *domain, const char *address)
{
    if (!is_valid_mail_name(mail_name) || is_empty(domain))
        report_fatal(1, "empty mailname or maildomain");
    char *ascii = domain_toascii_safe(domain);
    static popuser_ids ids;
    find_popuser_safe(ids);
    text_buffer path;
    dot_qmail_path(path, ascii, mail_name);
    free(ascii);

    char *converted = idn_email_toascii(address);
    if (!converted)
        report_fatal(1, "idn_email_toascii() failed: %s", idn_error_text(idn_last_error));
    text_buffer line;
    format_text(line, "&%s", converted);
    free(converted);
    file_str_line(path, line, edit::remove, 0);
    if (file_str_line(path, line, edit::add, at_end) != 0)
        report_fatal(1, "Unable to add string to %s file.", path);
    own_dot_qmail_safe(path, ids);
    return 0;
}

int add_autoresponder(const char *mail_name, const char *domain)
{
    constexpr const char *line = "|autoresponder";
    if (is_empty(mail_name) || is_empty(domain))
        report_fatal(1, "empty mailname or maildomain");
    char *ascii = domain_toascii_safe(domain);
    text_buffer path;
    dot_qmail_path(path, ascii, mail_name);
    free(ascii);
    file_str_line(path, line, edit::remove, 0);
    if (file_str_line(path, line, edit::add, at_end) != 0)
        report_fatal(1, "Unable to add string to %s file", path);
    return 0;
}

int add_mail_alias(const char *mail_name, const char *domain, const char *alias)
{
    if (!is_valid_mail_name(mail_name) || !is_valid_mail_name(alias) || is_empty(domain))
        report_fatal(1, "empty mailname, maildomainor or mailalias");
    char *ascii = domain_toascii_safe(domain);
    static popuser_ids ids;
    find_popuser_safe(ids);
    text_buffer line;
    mailbox_line(line, get_dom_id_safe(domain), alias, ids, ascii, mail_name);
    free(ascii);

    text_buffer path;
    qmail_path(path, "/users/assign");
    if (file_str_line(path, line, edit::remove, 0) != 0)
        report_error(0, 0, "Unable to remove record from assign file");
    if (file_str_line(path, line, edit::add, at_start) != 0)
        report_fatal(1, "Unable to add record to assign file");
    chmod(path, 0600);
    return 0;
}
