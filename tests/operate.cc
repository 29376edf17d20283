// Does one operation of the program for a session in the shell: operate OPERATION [ARGUMENT...]. What it gave follows
// on standard output, and whether a descriptor or a child was left behind.
#include "common/accounts.h"
#include "common/conf.h"
#include "common/error.h"
#include "common/file_lock.h"
#include "common/file_str.h"
#include "common/get.h"
#include "common/idn.h"
#include "common/panel_db.h"
#include "filters/antivirus.h"
#include "filters/spam.h"
#include "process/exec.h"
#include "process/remove_tree.h"
#include "process/send_sig.h"
#include "process/service.h"
#include "qmail/domain.h"
#include "qmail/forward.h"
#include "qmail/mailbox.h"
#include "qmail/nonexist.h"
#include "qmail/quota.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <string>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// Time passes at once: the wait is noted, and what the session has happen meanwhile happens.
extern "C" unsigned sleep(unsigned seconds)
{
    FILE *calls = fopen("/run/host/calls", "ae");
    fprintf(calls, "sleep %u\n", seconds);
    fclose(calls);
    return system("[ ! -e /run/meanwhile ] || . /run/meanwhile") == 0 ? 0 : seconds;
}

static std::string last_query;

// One query reaches the server as another: the answers of old and of broken servers.
extern "C" int STDCALL mysql_query(MYSQL *db, const char *query)
{
    static const auto send = reinterpret_cast<int (*)(MYSQL *, const char *)>(dlsym(RTLD_NEXT, "mysql_query"));
    const char *replaced = getenv("QUERY");
    last_query = query;
    return send(db, replaced && last_query == replaced ? getenv("INSTEAD") : query);
}

extern "C" MYSQL *STDCALL mysql_init(MYSQL *db)
{
    static const auto make = reinterpret_cast<MYSQL *(*)(MYSQL *)>(dlsym(RTLD_NEXT, "mysql_init"));
    return getenv("NO_MEMORY") ? nullptr : make(db);
}

extern "C" int vasprintf(char **text, const char *format, va_list arguments)
{
    static const auto make = reinterpret_cast<decltype(&vasprintf)>(dlsym(RTLD_NEXT, "vasprintf"));
    return getenv("NO_MEMORY") ? errno = ENOMEM, -1 : make(text, format, arguments);
}

namespace {

std::string shown(const auto &value)
{
    if constexpr (requires { value.get(); })
        return shown(value.get());
    else if constexpr (requires { std::to_string(value); })
        return std::to_string(value);
    else if (const char *text = value)
        return text;
    else
        return "(none)";
}

std::string with_errno(int result)
{
    return shown(result) + ", errno " + shown(errno);
}

std::string converted(const owned_text &name)
{
    return shown(name) + ", " + idn_error_text(idn_last_error);
}

const char **word; // the operation's first argument, and those that follow

int number(int at)
{
    return static_cast<int>(strtol(word[at], nullptr, 0));
}

// A connection where the session lends one.
MYSQL *lent()
{
    static const owned_db db = getenv("LENT") ? panel_db_open() : nullptr;
    return db.get();
}

std::string connect()
{
    char message[4097] = "";
    return panel_db_connect(message) ? last_query : message;
}

std::string lock(const char *path)
{
    auto taken = lock_file_exclusive(path, 1);
    const std::string place = taken->path.get();
    const bool held = lock_file_is_held(taken);
    const bool inherited = held && (fcntl(taken->fd, F_GETFD) & FD_CLOEXEC) == 0;
    return place + (held ? " held" : " not held") + (inherited ? " by children, too " : " ") +
           shown(lock_file_release(std::move(taken)));
}

std::string salt()
{
    char buffer[] = "!!!!!!!!!";
    srand(static_cast<unsigned>(number(0)));
    return random_salt(buffer, 8), buffer;
}

std::string report()
{
    program_name = word[0][0] ? word[0] : nullptr;
    const std::string text(static_cast<std::size_t>(number(4)), 'a');
    errno = number(1);
    report_error(number(2), 1, "%s%s", text.c_str(), word[3]);
    return shown(errno);
}

#define TEN "0", "1", "2", "3", "4", "5", "6", "7", "8", "9"
#define MANY TEN, TEN, TEN, TEN, TEN, TEN, TEN, TEN, TEN, TEN, TEN

const struct {
    const char *name;
    std::string (*perform)();
} operations[] = {
    {"report", report},
    {"conf_get", [] { return shown(conf_get(word[0])); }},
    {"connect", connect},
    {"get_misc_param", [] { return shown(get_misc_param(word[0], lent())); }},
    {"get_dom_Limit", [] { return shown(get_dom_Limit(word[0], word[1], lent())); }},
    {"get_DomainService_Parameter",
     [] { return shown(get_DomainService_Parameter(word[0], word[1], word[2], lent())); }},
    {"get_client_email", [] { return shown(get_client_email(word[0], lent())); }},
    {"get_dom_id", [] { return shown(get_dom_id(word[0], lent())); }},
    {"is_component_installed", [] { return shown(is_component_installed(word[0])); }},
    {"idn_toascii", [] { return converted(idn_toascii(word[0])); }},
    {"idn_toascii_safe", [] { return shown(idn_toascii_safe(word[0])); }},
    {"idn_email_toascii", [] { return converted(idn_email_toascii(word[0])); }},
    {"idn_email_toascii_safe", [] { return shown(idn_email_toascii_safe(word[0])); }},
    {"idn_error_text", [] { return shown(idn_error_text(number(0))); }},
    {"lock", [] { return lock(word[0]); }},
    {"file_str", [] { return shown(file_str(word[2], word + 3, static_cast<edit>(number(0)), number(1))); }},
    {"make_dir", [] { return with_errno((errno = EPERM, make_dir(word[0], 7, 8, 02775))); }},
    {"set_owner_mode", [] { return with_errno((errno = EPERM, set_owner_mode(word[0], 7, 8, 02775))); }},
    {"rename_dir", [] { return shown(rename_dir(word[0], word[1])); }},
    {"is_inside_dir", [] { return shown(is_inside_dir(word[0], word[1])); }},
    {"random_salt", salt},
    {"add_mail_domain", [] { return shown(add_mail_domain(word[0], number(1))); }},
    {"add_domain_alias", [] { return shown(add_domain_alias(word[0], word[1])); }},
    {"add_mailbox", [] { return shown(add_mailbox(word[0], word[1])); }},
    {"remove_mailbox", [] { return shown(remove_mailbox(word[0], word[1])); }},
    {"add_postbox", [] { return shown(add_postbox(word[0], word[1], word[2], 0, 0)); }},
    {"add_forward", [] { return shown(add_forward(word[0], word[1], word[2])); }},
    {"add_autoresponder", [] { return shown(add_autoresponder(word[0], word[1])); }},
    {"add_mail_alias", [] { return shown(add_mail_alias(word[0], word[1], word[2])); }},
    {"set_reject", [] { return shown(set_reject(word[0], number(1))); }},
    {"add_bounce", [] { return shown(add_bounce(word[0], word[1])); }},
    {"shell_escape", [] { return shell_escape(word[0]); }},
    {"write_mbox_quota", [] { return shown(write_mbox_quota(word[0], word[1], number(2))); }},
    {"remove_mbox_quota", [] { return shown(remove_mbox_quota(word[0], word[1])); }},
    {"copy_file_locked", [] { return shown(copy_file_locked(word[0], word[1])); }},
    {"spam_apply_settings", [] { return shown(spam_apply_settings(word[0], lent())); }},
    {"util_exec", [] { return shown(util_exec(word[0], MANY, nullptr)); }},
    {"util_execv", [] { return shown(util_execv(word[0], word)); }},
    {"run_quiet_wait", [] { return shown(run_quiet_wait(word[0], MANY, nullptr)); }},
    {"is_process_running", [] { return shown(is_process_running(word[0])); }},
    {"kill_by_name", [] { return shown(kill_by_name(word[0], number(1))); }},
    {"kill_by_field", [] { return shown(kill_by_field(word[0], word[1], number(2))); }},
    {"remove_tree", [] { return remove_tree(word[0], number(1)), shown("done"); }},
    {"deferred_remove", [] { return deferred_remove(word[0]), shown("done"); }},
    {"purge_deferred_dirs", [] { return purge_deferred_dirs(), shown("done"); }},
    {"service_control", [] { return shown(service_control(word[0], word[1])); }},
};

// What is open, or left to be waited for, by its number. Some directories are kept open on purpose.
std::map<int, std::string> held()
{
    std::map<int, std::string> places;
    for (int fd = 0; fd < 1024; ++fd) {
        char place[4096] = "";
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        if (readlink(link.c_str(), place, sizeof place - 1) > 0 && !std::filesystem::is_directory(link))
            places[fd] = std::string(place, strcspn(place, "["));
    }
    if (waitpid(-1, nullptr, WNOHANG) != -1)
        places[-1] = "a child";
    return places;
}

} // namespace

int main(int, char **argv)
{
    program_name = "mboxfix";
    if (strcmp(argv[1], "conf_get") != 0)
        load_conf();
    word = const_cast<const char **>(argv) + 2;
    const std::map<int, std::string> former = held();
    lent();
    for (const auto &operation : operations) {
        if (strcmp(operation.name, argv[1]) != 0)
            continue;
        std::map<int, std::string> before = held();
        errno = 0;
        const std::string result = operation.perform();
        printf("%s\n", result.c_str());
        for (const auto &[fd, place] : held()) {
            if (before[fd] != place)
                printf("left: %s\n", place.c_str());
            if (!former.contains(fd) && fd >= 0 && (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0)
                printf("left to children: %s\n", place.c_str());
        }
        return 0;
    }
    return 2;
}
