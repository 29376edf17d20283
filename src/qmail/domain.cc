#include "qmail/domain.h"

#include "common/accounts.h"
#include "common/conf.h"
#include "common/error.h"
#include "common/get.h"
#include "common/queries.h"
#include "process/remove_tree.h"
#include "process/send_sig.h"
#include "qmail/layout.h"

#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace {

text id_buffer;

// Puts the id of the domain of exactly this name into the id buffer; false when there is none. The name is looked at
// here: the conversion to ASCII may have made a quote of a look-alike.
bool ask_dom_id(MYSQL *db, const char *name)
{
    assert(is_plain_text(name));
    format_text(id_buffer, domain_id_query, name);
    if (mysql_query(db, id_buffer) != 0)
        report_fatal(1, "Unable to query domain ID: %s\n", mysql_error(db));
    const owned_rows result(mysql_store_result(db));
    const MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
    const bool found = row && row[0];
    if (found)
        format_text(id_buffer, "%s", row[0]);
    return found;
}

text domain_line(const char *domain_id, const user_ids &ids, const owned_text &ascii_domain)
{
    return formatted("+%s:popuser:%d:%d:%s/%s:::", domain_id, static_cast<int>(ids.uid), static_cast<int>(ids.gid),
                     QMAIL_MAILNAMES_D, ascii_domain.get());
}

// qmail-send reads its control files again on SIGHUP; ps cuts its name to this.
void signal_qmail_send()
{
    kill_by_name("qmail-se", SIGHUP);
}

// Undoes what could be done of an addition, unless the failed step was refused, and ends the process.
template <typename Undo> [[noreturn]] void undo_and_end(Undo undo, const char *message)
{
    if (may_undo(errno))
        undo();
    report_fatal(1, "%s", message);
}

// A line of one of the two control files, and what is said of it.
struct control_line {
    const char *below;
    const char *not_removed;
    const char *not_added;
};

template <typename Undo> void register_control_line(const control_line &file, const char *line, bool wanted, Undo undo)
{
    const text path = qmail_path(file.below);
    if (file_str_line(path, line, edit::remove, 0) != 0)
        report_error(0, 0, "%s", file.not_removed);
    if (wanted && file_str_line(path, line, edit::add, at_end) != 0)
        undo_and_end(undo, file.not_added);
}

// Takes the two lines of a domain or alias out of the control files again.
void remove_control_lines(const owned_text &ascii, const char *domain, const char *not_in_rcpthosts,
                          const char *not_in_virtualdomains)
{
    if (file_str_line(qmail_path("/control/rcpthosts"), ascii.get(), edit::remove, 0) != 0)
        report_error(0, 0, "%s", not_in_rcpthosts);
    const text line = formatted("%s:%s", ascii.get(), get_dom_id_safe(domain));
    if (file_str_line(qmail_path("/control/virtualdomains"), line, edit::remove, 0) != 0)
        report_fatal(1, "%s", not_in_virtualdomains);
    signal_qmail_send();
}

// Takes the records of everything below a domain directory out of one of qmail's user files.
void remove_below(const char *below, const char *dir_prefix, const char *failure)
{
    if (file_str_line(qmail_path(below), dir_prefix, edit::remove_matching, substring) != 0)
        report_fatal(1, "error while deleting from file %s", failure);
}

} // namespace

const char *get_dom_id(const char *domain, MYSQL *connection)
{
    assert(is_plain_text(domain));
    const db_loan loan = lend_or_open(connection, 0);
    if (!loan.db)
        return nullptr;
    const owned_text ascii = domain_toascii_safe(domain);
    if (!ask_dom_id(loan.db, ascii.get()) && (strcmp(ascii.get(), domain) == 0 || !ask_dom_id(loan.db, domain)))
        report_fatal(1, "get_dom_id(): domains record not found in DB for '%s'\n", domain);
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
    constexpr control_line rcpthosts = {"/control/rcpthosts", "Unable to remove domain record from rcpthosts file",
                                        "Unable to add domain record to rcpthosts."};
    constexpr control_line virtualdomains = {"/control/virtualdomains", "Unable to remove record from virtualdomains.",
                                             "Unable to add record to virtualdomains."};
    if (is_empty(domain))
        report_fatal(1, "empty domain");
    const owned_text ascii = domain_toascii_safe(domain);
    static user_ids ids;
    find_popuser_safe(ids);

    const auto undo = [domain] { remove_mail_domain(domain); };
    if (make_dir(domain_dir(ascii), ids.uid, ids.gid, 0700) != 0) {
        if (may_undo(errno))
            undo();
        exit(-1);
    }
    if (!renew_assign_line(domain_line(get_dom_id_safe(domain), ids, ascii),
                           "Unable to remove domain record from assign file"))
        report_fatal(1, "Unable to add default string to assign file for mail domain");
    register_control_line(rcpthosts, ascii.get(), !disabled, undo);
    const text line = formatted("%s:%s\n", ascii.get(), get_dom_id_safe(domain));
    register_control_line(virtualdomains, line, !disabled, undo);
    signal_qmail_send();
    return 0;
}

int remove_mail_domain(const char *domain)
{
    if (is_empty(domain))
        report_fatal(1, "empty maildomain");
    const owned_text ascii = domain_toascii_safe(domain);
    const user_ids ids = get_user_ids("popuser");
    remove_control_lines(ascii, domain, "Unable to remove domain from rcpthosts file",
                         "Unable to remove domain from virtualdomains file");

    const text dir = mailbox_dir(ascii, ""); // "MAILNAMES/DOMAIN/": what every home directory of the domain begins with
    remove_below("/users/poppasswd", dir, "poppasswd");
    remove_below("/users/assign", dir, "assign");
    if (is_virtual_environment())
        deferred_remove(dir);
    else
        remove_tree(dir, 1);

    const text line = domain_line(get_dom_id_safe(domain), ids, ascii);
    if (file_str_line(qmail_path("/users/assign"), line, edit::remove, 0) != 0)
        report_fatal(1, "Unable to remove domain mailbox record from assign file");
    return 0;
}

int add_domain_alias(const char *domain, const char *alias)
{
    constexpr control_line rcpthosts = {"/control/rcpthosts",
                                        "Unable to remove domain record alias from rcpthosts file",
                                        "Unable to add domain record alias to rcpthosts."};
    constexpr control_line virtualdomains = {"/control/virtualdomains",
                                             "Unable to remove domain record alias from virtualdomains.",
                                             "Unable to add domain record alias to virtualdomains."};
    if (is_empty(domain) || is_empty(alias))
        report_fatal(1, "empty domain or domain alias");
    const owned_text ascii = domain_toascii_safe(alias);
    const auto undo = [domain, alias] { remove_domain_alias(domain, alias); };
    register_control_line(rcpthosts, ascii.get(), true, undo);
    const text line = formatted("%s:%s\n", ascii.get(), get_dom_id_safe(domain));
    register_control_line(virtualdomains, line, true, undo);
    signal_qmail_send();
    return 0;
}

int remove_domain_alias(const char *domain, const char *alias)
{
    if (is_empty(domain) || is_empty(alias))
        report_fatal(1, "empty domain or domain alias");
    remove_control_lines(domain_toascii_safe(alias), domain, "Unable to remove domain alias from rcpthosts file",
                         "Unable to remove domain alias from virtualdomains file");
    return 0;
}
