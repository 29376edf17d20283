#include "qmail/domain.h"

#include "common/accounts.h"
#include "common/conf.h"
#include "common/error.h"
#include "common/file_str.h"
#include "common/get.h"
#include "common/idn.h"
#include "process/send_sig.h"
#include "qmail/layout.h"

#include <cassert>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace {

text_buffer id_buffer;

// Puts the id of the domain of exactly this name into the id buffer; false when there is none. The name is looked at
// here: the conversion to ASCII may have made a quote of a look-alike.
bool ask_dom_id(MYSQL *db, const char *name)
{
    assert(is_plain_text(name));
    format_text(id_buffer, "select id from domains where name='%s'", name);
    if (mysql_real_query(db, id_buffer, strlen(id_buffer)) != 0)
        report_fatal(1, "Unable to query domain ID: %s\n", mysql_error(db));
    MYSQL_RES *result = mysql_store_result(db);
    const MYSQL_ROW row = result ? mysql_fetch_row(result) : nullptr;
    const bool found = row && row[0];
    if (found)
        format_text(id_buffer, "%s", row[0]);
    mysql_free_result(result);
    return found;
}

void domain_line(text_buffer &line, const char *domain_id, const popuser_ids &ids, const char *ascii_domain)
{
    format_text(line, "+%s:popuser:%d:%d:%s/%s:::", domain_id, static_cast<int>(ids.uid), static_cast<int>(ids.gid),
                QMAIL_MAILNAMES_D, ascii_domain);
}

// qmail-send reads its control files again on SIGHUP; ps cuts its name to this.
void signal_qmail_send()
{
    kill_by_name("qmail-se", SIGHUP);
}

void register_assign_line(const char *line)
{
    text_buffer path;
    qmail_path(path, "/users/assign");
    if (file_str_line(path, line, edit::remove, 0) != 0)
        report_error(0, 0, "Unable to remove domain record from assign file");
    if (file_str_line(path, line, edit::add, at_start) != 0)
        report_fatal(1, "Unable to add default string to assign file for mail domain");
    chmod(path, 0600);
}

// Takes the records of everything below a domain directory out of one of qmail's user files.
void remove_below(const char *below, const char *dir_prefix, const char *failure)
{
    text_buffer path;
    qmail_path(path, below);
    if (file_str_line(path, dir_prefix, edit::remove_matching, substring) != 0)
        report_fatal(1, "error while deleting from file %s", failure);
}

} // namespace

const char *get_dom_id(const char *domain, MYSQL *connection)
{
    assert(is_plain_text(domain));
    MYSQL *db = lend_or_open(connection, 0);
    if (!db)
        return nullptr;
    char *ascii = domain_toascii_safe(domain);
    const bool found = ask_dom_id(db, ascii) || (strcmp(ascii, domain) != 0 && ask_dom_id(db, domain));
    free(ascii);
    if (!found)
        report_fatal(1, "get_dom_id(): domains record not found in DB for '%s'\n", domain);
    close_own(db, connection);
    return id_buffer;
}

const char *get_dom_id_safe(const char *domain)
{
    const char *id = get_dom_id(domain, nullptr);
    if (!id)
        report_fatal(1, "Unable to define ID for domain %s", domain);
    return id;
}

int add_mail_domain(const char *domain, int disabled)
{
    if (is_empty(domain))
        report_fatal(1, "empty domain");
    char *ascii = domain_toascii_safe(domain);
    static popuser_ids ids;
    find_popuser_safe(ids);

    text_buffer path;
    domain_dir(path, ascii);
    if (make_dir(path, ids.uid, ids.gid, 0700) != 0) {
        remove_mail_domain(domain);
        end_process(-1);
    }
    text_buffer line;
    domain_line(line, get_dom_id_safe(domain), ids, ascii);
    register_assign_line(line);

    qmail_path(path, "/control/rcpthosts");
    if (file_str_line(path, ascii, edit::remove, 0) != 0)
        report_error(0, 0, "Unable to remove domain record from rcpthosts file");
    if (!disabled && file_str_line(path, ascii, edit::add, at_end) != 0) {
        remove_mail_domain(domain);
        report_fatal(1, "Unable to add domain record to rcpthosts.");
    }

    format_text(line, "%s:%s\n", ascii, get_dom_id_safe(domain));
    free(ascii);
    qmail_path(path, "/control/virtualdomains");
    if (file_str_line(path, line, edit::remove, 0) != 0)
        report_error(0, 0, "Unable to remove record from virtualdomains.");
    if (!disabled && file_str_line(path, line, edit::add, at_end) != 0) {
        remove_mail_domain(domain);
        report_fatal(1, "Unable to add record to virtualdomains.");
    }
    signal_qmail_send();
    return 0;
}

int remove_mail_domain(const char *domain)
{
    if (is_empty(domain))
        report_fatal(1, "empty maildomain");
    char *ascii = domain_toascii_safe(domain);
    const popuser_ids ids = {get_user_id("popuser", 0), get_user_id("popuser", 1)};

    text_buffer path;
    qmail_path(path, "/control/rcpthosts");
    if (file_str_line(path, ascii, edit::remove, 0) != 0)
        report_error(0, 0, "Unable to remove domain from rcpthosts file");
    text_buffer line;
    format_text(line, "%s:%s", ascii, get_dom_id_safe(domain));
    qmail_path(path, "/control/virtualdomains");
    if (file_str_line(path, line, edit::remove, 0) != 0)
        report_fatal(1, "Unable to remove domain from virtualdomains file");
    signal_qmail_send();

    text_buffer dir;
    mailbox_dir(dir, ascii, ""); // "MAILNAMES/DOMAIN/": what every home directory of the domain begins with
    remove_below("/users/poppasswd", dir, "poppasswd");
    remove_below("/users/assign", dir, "assign");
    if (is_virtual_environment())
        deferred_remove(dir);
    else
        remove_tree(dir, 1);

    domain_line(line, get_dom_id_safe(domain), ids, ascii);
    qmail_path(path, "/users/assign");
    if (file_str_line(path, line, edit::remove, 0) != 0)
        report_fatal(1, "Unable to remove domain mailbox record from assign file");
    free(ascii);
    return 0;
}

int add_domain_alias(const char *domain, const char *alias)
{
    if (is_empty(domain) || is_empty(alias))
        report_fatal(1, "empty domain or domain alias");
    char *ascii = domain_toascii_safe(alias);
    text_buffer path;
    qmail_path(path, "/control/rcpthosts");
    if (file_str_line(path, ascii, edit::remove, 0) != 0)
        report_error(0, 0, "Unable to remove domain record alias from rcpthosts file");
    if (file_str_line(path, ascii, edit::add, at_end) != 0) {
        remove_domain_alias(domain, alias);
        report_fatal(1, "Unable to add domain record alias to rcpthosts.");
    }

    text_buffer line;
    format_text(line, "%s:%s\n", ascii, get_dom_id_safe(domain));
    free(ascii);
    qmail_path(path, "/control/virtualdomains");
    if (file_str_line(path, line, edit::remove, 0) != 0)
        report_error(0, 0, "Unable to remove domain record alias from virtualdomains.");
    if (file_str_line(path, line, edit::add, at_end) != 0) {
        remove_domain_alias(domain, alias);
        report_fatal(1, "Unable to add domain record alias to virtualdomains.");
    }
    signal_qmail_send();
    return 0;
}

int remove_domain_alias(const char *domain, const char *alias)
{
    if (is_empty(domain) || is_empty(alias))
        report_fatal(1, "empty domain or domain alias");
    char *ascii = domain_toascii_safe(alias);
    text_buffer path;
    qmail_path(path, "/control/rcpthosts");
    if (file_str_line(path, ascii, edit::remove, 0) != 0)
        report_error(0, 0, "Unable to remove domain alias from rcpthosts file");
    text_buffer line;
    format_text(line, "%s:%s", ascii, get_dom_id_safe(domain));
    qmail_path(path, "/control/virtualdomains");
    if (file_str_line(path, line, edit::remove, 0) != 0)
        report_fatal(1, "Unable to remove domain alias from virtualdomains file");
    signal_qmail_send();
    free(ascii);
    return 0;
}
