#include "qmail/nonexist.h"

#include "common/error.h"
#include "common/get.h"
#include "common/idn.h"
#include "common/names.h"
#include "common/safe_open.h"
#include "qmail/layout.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr const char *default_message = "This address no longer accepts mail.";

// By a byte's value: "*" gets a backslash, "n" single quotes around it, "-" and all bytes beyond the table nothing.
constexpr std::string_view escape_classes = "---------*n---------------------*-***-*****----------------**-**--------"
                                            "-------------------**---*---------------------------*-*";
static_assert(escape_classes.size() == 127 && escape_classes['|'] == '*' && escape_classes['\\'] == '*');

const char *get_mail_parameter(const char *domain_id, const char *parameter, MYSQL *connection)
{
    return get_DomainService_Parameter(domain_id, "mail", parameter, connection);
}

// Catches everything into one address: the domain's own setting, its owner's address, or root at the domain.
int set_catch(const char *domain, const char *domain_id, MYSQL *connection)
{
    const char *address = get_mail_parameter(domain_id, "catch_addr", connection);
    if (is_empty(address) || is_more_than_line(address))
        address = get_client_email(domain_id, connection);
    const text root_address = formatted("root@%s", domain);
    if (is_empty(address) || is_more_than_line(address))
        address = root_address;
    const owned_text converted = idn_email_toascii_safe(address);
    set_reject(domain, 0);
    return add_bounce(domain, formatted("&%s", converted.get()));
}

} // namespace

int set_nonexist_mail(const char *domain, const char *domain_id, MYSQL *connection)
{
    // The policy's text is gone with the next parameter, which lands in the same buffer: it is judged first.
    const char *policy = get_mail_parameter(domain_id, "nonexist_mail", connection);
    if (is_empty(policy))
        return set_bounce_message(domain, default_message);
    if (strcmp(policy, "catch") == 0)
        return set_catch(domain, domain_id, connection);
    if (strcmp(policy, "bounce") == 0) {
        const char *message = get_mail_parameter(domain_id, "bounce_mess", connection);
        return set_bounce_message(domain, is_empty(message) ? default_message : message);
    }
    renew_reject(domain);
    return 0;
}

int set_bounce_message(const char *domain, const char *message)
{
    std::string text = message;
    std::replace(text.begin(), text.end(), '\n', ' ');
    const std::string line = "|bouncesaying " + shell_escape(text);
    set_reject(domain, 0);
    return add_bounce(domain, line.c_str());
}

std::string shell_escape(std::string_view text)
{
    std::string escaped;
    for (const char byte : text) {
        const std::size_t at = static_cast<unsigned char>(byte);
        const char type = at < escape_classes.size() ? escape_classes[at] : '-';
        if (type == '*')
            escaped += '\\';
        if (type == 'n')
            escaped += '\'';
        escaped += byte;
        if (type == 'n')
            escaped += '\'';
    }
    return escaped;
}

int set_reject(const char *domain, int reject)
{
    if (is_empty(domain))
        report_fatal(1, "set_reject: empty domain");
    const owned_text ascii = domain_toascii_safe(domain);
    const text path = qmail_path("/control/rejectnonexist");
    if (create_file(path) != 0)
        report_fatal(1, "set_reject: Unable to create %s file.", path.c_str());
    if (file_str_line(path, ascii.get(), reject ? edit::add : edit::remove, at_end) != 0)
        report_fatal(1, "set_reject: Unable to update %s file.", path.c_str());
    if (safe_chmod(path, safe_kind::file, 0644) != 0)
        report_fatal(1, "set_reject: chmod %s failed: %s\n", path.c_str(), strerror(errno));
    return 0;
}

void renew_reject(const char *domain)
{
    set_reject(domain, 0);
    set_reject(domain, 1);
}

int add_bounce(const char *domain, const char *line)
{
    if (is_empty(domain))
        report_fatal(1, "add_bounce: empty domain");
    const owned_text ascii = domain_toascii_safe(domain);
    static user_ids ids;
    if (!find_popuser(ids))
        report_fatal(1, "add_bounce: Unable to define UID or GID for user popuser");
    const text path = mailbox_dir(ascii, ".qmail-default");
    safe_unlink(path);
    if (file_str_line(path, line, edit::add, at_end) != 0)
        report_fatal(1, "add_bounce: Unable to add record to %s file.", path.c_str());
    const safe_step failed = safe_give(path, safe_kind::file, ids.uid, ids.gid, 0600);
    if (failed == safe_step::chown)
        report_fatal(1, "add_bounce: chown %s failed: %s", path.c_str(), strerror(errno));
    if (failed == safe_step::chmod)
        report_fatal(1, "add_bounce: chmod %s failed: %s\n", path.c_str(), strerror(errno));
    return 0;
}
