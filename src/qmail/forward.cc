#include "qmail/forward.h"

#include "common/error.h"
#include "common/idn.h"
#include "qmail/domain.h"
#include "qmail/layout.h"

int add_forward(const char *mail_name, const char *domain, const char *address)
{
    if (!is_valid_mail_name(mail_name) || is_empty(domain))
        report_fatal(1, "empty mailname or maildomain");
    const owned_text ascii = domain_toascii_safe(domain);
    static user_ids ids;
    find_popuser_safe(ids);
    const text path = dot_qmail_path(ascii, mail_name);
    const owned_text converted = idn_email_toascii(address);
    if (!converted)
        report_fatal(1, "idn_email_toascii() failed: %s", idn_error_text(idn_last_error));
    const edit_end end = renew_line(path, formatted("&%s", converted.get()));
    if (end == edit_end::done)
        own_dot_qmail(path, ids);
    else
        report_error(status_of_failure(end), 1, "Unable to add string to %s file.", path.c_str());
    return 0;
}

int add_autoresponder(const char *mail_name, const char *domain)
{
    if (is_empty(mail_name) || is_empty(domain))
        report_fatal(1, "empty mailname or maildomain");
    const text path = dot_qmail_path(domain_toascii_safe(domain), mail_name);
    const edit_end end = renew_line(path, "|autoresponder");
    if (end != edit_end::done)
        report_error(status_of_failure(end), 1, "Unable to add string to %s file", path.c_str());
    return 0;
}

int add_mail_alias(const char *mail_name, const char *domain, const char *alias)
{
    if (!is_valid_mail_name(mail_name) || !is_valid_mail_name(alias) || is_empty(domain))
        report_fatal(1, "empty mailname, maildomainor or mailalias");
    const owned_text ascii = domain_toascii_safe(domain);
    static user_ids ids;
    find_popuser_safe(ids);
    const text line = mailbox_line(get_dom_id_safe(domain), alias, ids, ascii, mail_name);
    if (!renew_assign_line(line, "Unable to remove record from assign file"))
        report_fatal(1, "Unable to add record to assign file");
    return 0;
}
