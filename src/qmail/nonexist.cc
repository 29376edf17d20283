#include "qmail/nonexist.h"

#include "common/error.h"
#include "common/file_str.h"
#include "common/get.h"
#include "common/idn.h"
#include "common/safe_open.h"
#include "qmail/layout.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

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
    if (is_empty(address))
        address = get_client_email(domain_id, connection);
    text_buffer root_address;
    if (is_empty(address)) {
        format_text(root_address, "root@%s", domain);
        address = root_address;
    }
    char *converted = idn_email_toascii_safe(address);
    text_buffer line;
    format_text(line, "&%s", converted);
    free(converted);
    set_reject(domain, 0);
    return add_bounce(domain, line);
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
    char *ascii = domain_toascii_safe(domain);
    text_buffer path;
    qmail_path(path, "/control/rejectnonexist");
    if (create_file(path) != 0)
        report_fatal(1, "set_reject: Unable to create %s file.", path);
    if (file_str_line(path, ascii, reject ? edit::add : edit::remove, at_end) != 0)
        report_fatal(1, "set_reject: Unable to update %s file.", path);
    free(ascii);
    if (chmod(path, 0644) != 0)
        report_fatal(1, "set_reject: chmod %s failed: %s\n", path, strerror(errno));
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
    char *ascii = domain_toascii_safe(domain);
    static popuser_ids ids;
    if (!find_popuser(ids))
        report_fatal(1, "add_bounce: Unable to define UID or GID for user popuser");
    text_buffer path;
    mailbox_dir(path, ascii, ".qmail-default");
    free(ascii);
    safe_unlink(path);
    if (file_str_line(path, line, edit::add, at_end) != 0)
        report_fatal(1, "add_bounce: Unable to add record to %s file.", path);
    if (safe_chown(path, ids.uid, ids.gid) != 0)
        report_fatal(1, "add_bounce: chown %s failed: %s", path, strerror(errno));
    if (safe_chmod(path, 0600) != 0)
        report_fatal(1, "add_bounce: chmod %s failed: %s\n", path, strerror(errno));
    return 0;
}
