#include "filters/antivirus.h"

#include "common/accounts.h"
#include "common/conf.h"
#include "common/error.h"
#include "common/file_bytes.h"
#include "common/file_lock.h"
#include "common/file_str.h"
#include "common/names.h"
#include "common/panel_db.h"
#include "common/queries.h"
#include "common/safe_open.h"
#include "process/exec.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct recipient_query {
    const char *what;
    const char *text;
};

constexpr recipient_query recipient_queries[] = {
    {"mailnames", scanned_names_query},
    {"mailnames on domain aliases", scanned_names_on_aliases_query},
    {"mail aliases", scanned_aliases_query},
    {"mail aliases on domain aliases", scanned_aliases_on_aliases_query},
};

// What stands around an address in the rules that it may have, from whatever tool wrote them.
struct rule_form {
    const char *before;
    const char *after;
};
constexpr rule_form rule_forms[] = {
    {"from\tregex\t^", "$"}, {"to\tregex\t^", "$"}, {"any\tregex\t^", "$"},
    {"from\texact\t", ""},   {"to\texact\t", ""},   {"any\texact\t", ""},
};

constexpr const char *header = "[version=2]\n";

bool is_dash(const char *path)
{
    return strcmp(path, "-") == 0;
}

int report_open(const char *path)
{
    report_error(0, 0, "Unable to open file %s: %s", path, strerror(errno));
    return 1;
}

int report_close(const char *path)
{
    report_error(0, 0, "Unable to close file %s: %s\n", path, strerror(errno));
    return 1;
}

int copy_chunks(int in, int out, const char *src, const char *dst)
{
    char chunk[4096];
    for (std::size_t copied = 0;;) {
        const ssize_t got = read(in, chunk, sizeof chunk);
        if (got == 0)
            return 0;
        copied += got > 0 ? static_cast<std::size_t>(got) : 0;
        if (copied > max_content)
            errno = EFBIG;
        if (got < 0 || copied > max_content) {
            report_error(0, 0, "Error while copying file %s to %s: %s", src, dst, strerror(errno));
            return 1;
        }
        ssize_t put;
        do
            put = write(out, chunk, static_cast<std::size_t>(got));
        while (put == 0);
        if (put != got) {
            report_error(0, 0, "Unable to copy file %s to %s: %s\n", src, dst, strerror(errno));
            return 1;
        }
    }
}

// Opens the file that is copied over. One that has to be made gets 0644, whatever the umask.
int open_emptied(const char *dst)
{
    const mode_t former = umask(0);
    const int out = safe_open(dst, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    umask(former);
    return out;
}

int copy_file(const char *src, const char *dst)
{
    const int in = is_dash(src) ? STDIN_FILENO : safe_open(src, O_RDONLY);
    if (in < 0)
        return report_open(src);
    const int out = is_dash(dst) ? STDOUT_FILENO : open_emptied(dst);
    int result = out < 0 ? report_open(dst) : copy_chunks(in, out, src, dst);
    if (out >= 0 && !is_dash(dst) && close(out) != 0 && result == 0)
        result = report_close(dst);
    if (!is_dash(src) && close(in) != 0 && result == 0)
        result = report_close(src);
    return result;
}

bool rebuild_from(MYSQL *db, const recipient_query &query)
{
    const owned_rows rows = panel_db_rows(db, query.text);
    if (!rows) {
        report_error(0, 1, "Unable to query drweb %s: %s", query.what, mysql_error(db));
        return false;
    }
    while (const MYSQL_ROW row = mysql_fetch_row(rows.get())) {
        const bool is_orphan = !row[1] || !row[2]; // a mail name without a domain to form an address with
        if (!is_orphan && !is_unfit_name(row[1]) && !is_unfit_domain(row[2]) && !is_more_than_line(row[0]))
            av_set_recipient(row[2], row[1], row[0]);
    }
    return true;
}

} // namespace

text av_list_path()
{
    return formatted("%s/%s", DRWEB_ETC_D, "/users.conf");
}

void av_rebuild_recipients(MYSQL *db)
{
    av_reset_list();
    for (const recipient_query &query : recipient_queries)
        if (!rebuild_from(db, query))
            return;
    util_exec("virsetup", "-r", static_cast<char *>(nullptr));
}

int av_reset_list()
{
    const text path = av_list_path();
    const text template_path = formatted("%s.in", path.c_str());
    struct stat status;
    if (stat(template_path, &status) == 0 && copy_file_locked(template_path, path) == 0)
        return 0;
    const int fd = safe_open(path, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0) {
        report_error(0, 0, "Unable to open %s file for writing: %s\n", path.c_str(), strerror(errno));
        return -1;
    }
    const int failed = write_all(fd, header) == 0 ? 0 : errno;
    if (close(fd) == 0 && failed == 0)
        return 0;
    if (failed != 0)
        errno = failed;
    report_error(0, 0, "An error occured during writing the file %s: %s\n", path.c_str(), strerror(errno));
    return -1;
}

int av_set_recipient(const char *domain, const char *name, const char *virusfilter)
{
    av_clear_recipient(domain, name);
    const text address = formatted("%s@%s", name, domain);
    const text path = av_list_path();
    const char *direction = virusfilter;
    if (strncmp(virusfilter, "outgoing", 8) == 0)
        direction = "from";
    else if (strncmp(virusfilter, "incoming", 8) == 0)
        direction = "to";
    const text rule = formatted("allow\t%s\tregex\t^%s$", direction, address.c_str());
    if (file_str_line(path, rule, edit::add, at_end) != 0) {
        report_error(0, 0, "Unable to add record for '%s' to '%s' file", address.c_str(), path.c_str());
        return -1;
    }
    set_owner_mode(path, 0, 0, 0644);
    return 0;
}

int av_clear_recipient(const char *domain, const char *name)
{
    const text address = formatted("%s@%s", name, domain);
    const text path = av_list_path();
    owned_text texts[std::size(rule_forms)];
    const char *rules[std::size(rule_forms) + 1] = {};
    for (std::size_t at = 0; at < std::size(rule_forms); ++at) {
        texts[at] = alloc_printf("allow\t%s%s%s", rule_forms[at].before, address.c_str(), rule_forms[at].after);
        rules[at] = texts[at].get();
    }
    file_str(path, rules, edit::remove, 0);
    set_owner_mode(path, 0, 0, 0644);
    return 0;
}

int copy_file_locked(const char *src, const char *dst)
{
    if (strcmp(src, dst) == 0)
        return 0;
    auto lock = lock_file_exclusive(dst, 1);
    if (!lock_file_is_held(lock)) {
        report_error(0, 0, "Error occurred while locking the file %s\n", dst);
        return 1;
    }
    const int result = copy_file(src, dst);
    if (lock_file_release(std::move(lock)) != 0 && result == 0)
        report_error(0, 0, "Error occurred while unlocking the file %s\n", dst);
    return result;
}
