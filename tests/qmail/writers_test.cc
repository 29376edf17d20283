#include "qmail/domain.h"
#include "qmail/forward.h"
#include "qmail/mailbox.h"
#include "qmail/nonexist.h"
#include "qmail/quota.h"
#include "support.h"

#include <gtest/gtest.h>

using operation = int (*)();

constexpr const char *domain = "d.example"; // of id 7
constexpr operation add_domain = [] { return add_mail_domain(domain, 0); };
constexpr operation add_info = [] { return add_mailbox("info", domain); };
constexpr operation enable_info = [] { return add_postbox("info", domain, "new", 0, 0); };
constexpr operation limit_info = [] { // 10 and the result, and 2 more when the lock stays held
    const int result = write_mbox_quota(domain, "info", 64);
    return 10 + result + (is_unlocked("/var/qmail/mailnames/d.example/info/@mbox.quota") ? 0 : 2);
};

// Lays out the files of two domains and a mailbox, and says words for putting something else in a place.
constexpr const char *scene = R"(cd /var/qmail; rm -rf control users mailnames
mkdir -p control users mailnames/d.example/info/Maildir/new; touch mailnames/d.example/info/Maildir/new/1
printf 'other.example\nd.example\n' >control/rcpthosts; printf 'other.example:9\nd.example:7\n' >control/virtualdomains
home=:popuser:7791:7791:/var/qmail/mailnames box=mailnames/d.example/info
printf "=7-info$home/d.example/info:::\n+7$home/d.example:::\n+9$home/other.example:::\n.\n" >users/assign
printf "info:x$home/d.example/info\ninfo:x$home/other.example/info\n" >users/poppasswd
dir() { rm -rf $1; mkdir $1; }; link() { rm -rf $1; ln -s $2 $1; }
)";

// A letter for each line, folder and file of the domain that is left, and what should not be there.
constexpr const char *look_around = R"(cd /var/qmail
has() { if grep -qs -e "$2" "$3"; then printf $1; fi; }
has r '^d.example$' control/rcpthosts; has v '^d.example:7$' control/virtualdomains; has + '^+7:' users/assign
has = '^=7-info:' users/assign; has p '/d.example/info$' users/poppasswd; [ -d mailnames/d.example ] || exit 0
(cd mailnames/d.example; ls -d . info info/@* info/*/new/1 2>/dev/null) | sed 's,.*/,,; s,^\(.\).*,\1,' | tr -d '\n'
[ $(cat control/* users/* | grep -c other.example) -ge 3 ] || printf ' lost'; find . -name '*.tmp')";

constexpr const char *all = "rv+=p.i1";
const std::string absent = ": No such file or directory\n";
const auto unopened = [](const char *file) { return std::string("Unable to open file ") + file + absent; };

const struct {
    const char *setup;
    operation write;
    int status;
    const char *left;
    std::string reported;
} cases[] = {
    {"rm -r mailnames", add_domain, 255, "", "ERROR: Unable to mkdir ~" + absent},
    {"link control/rcpthosts /no/file", add_domain, 1, "",
     "Unable to remove domain record from rcpthosts file\n" + unopened("control/rcpthosts") +
         "Unable to remove domain from rcpthosts file\nUnable to add domain record to rcpthosts.\n"},
    {"link control/virtualdomains /no/file", add_domain, 1, "+=p.i1",
     "Unable to remove record from virtualdomains.\n" + unopened("control/virtualdomains") +
         "Unable to remove domain from virtualdomains file\n"},
    {"link control/rcpthosts /no/file", [] { return add_domain_alias(domain, "a.example"); }, 1, "v+=p.i1",
     "Unable to remove domain record alias from rcpthosts file\n" + unopened("control/rcpthosts") +
         "Unable to remove domain alias from rcpthosts file\nUnable to add domain record alias to rcpthosts.\n"},
    {"rm users/assign", add_info, 1, "rv../users/assign.tmp\n",
     "Unable to remove record for info from assign file\n" + unopened("users/assign") +
         "Unable to remove info mailbox record from assign file\nUnable to add record for info to assign file\n"},
    {"rm -r mailnames/d.example", add_info, 1, "rv+", "Unable to make ~/info dir" + absent},
    {"link $box /proc/sys/net", add_info, 1, "rv+.", "Unable to chown ~/info dir: Operation not permitted\n"},
    {"rm -r $box; echo >$box", add_info, 1, "rv+.", "Unable to chdir ~/info: Not a directory\n"},
    {"dir $box/.qmail", add_info, 1, all,
     "Unable to truncate or create file .qmail: Is a directory\nUnable to create .qmail file\n"},
    {"link $box/.qmail /proc/self/comm", add_info, 0, "rv+=p.i@1", ""},
    {"rm -r $box/Maildir; echo >$box/Maildir", add_info, 0, "rv+=p.i@",
     "Unable to chown ~/info/Maildir dir: Too many links\n"},
    {"rm -r $box/Maildir; echo >$box/Maildir; chown popuser $box/Maildir", add_info, 1, "rv+.",
     "Unable to make ~/info/Maildir/tmp dir: Not a directory\n"},
    {"rm -r $box", enable_info, 1, "rv+=.",
     unopened("~/info/.qmail") +
         "Unable to remove string from ~/info/.qmail file\nUnable to add string to ~/info/.qmail file.\n"},
    {"link users/poppasswd /no/file", enable_info, 1, "rv+=.i1",
     unopened("users/poppasswd") + "Unable to remove record from popasswd file\n" + unopened("users/poppasswd") +
         "Unable to add record to poppasswd file\n"},
    {"rm -r $box", [] { return add_autoresponder("info", domain); }, 1, "rv+=p.",
     unopened("~/info/.qmail") + "Unable to add string to ~/info/.qmail file\n"},
    {"", [] { return add_forward("info", domain, "nobody"); }, 1, all, "idn_email_toascii() failed: Success\n"},
    {"rm -r control", [] { return set_reject(domain, 1); }, 1, "+=p.i1 lost",
     "Unable to create file control/rejectnonexist" + absent +
         "set_reject: Unable to create control/rejectnonexist file.\n"},
    {"rm -r mailnames/d.example", [] { return add_bounce(domain, "x"); }, 1, "rv+=p",
     unopened("~/.qmail-default") + "add_bounce: Unable to add record to ~/.qmail-default file.\n"},
    {"link $box/@mbox.quota /dev/full", limit_info, 10, "rv+=p.i@1", "No space left on device\n"},
    {"link $box/@mbox.quota /proc/sys/net/ipv4/ip_default_ttl", limit_info, 10, all,
     "Unable to chown quota file ~/info/@mbox.quota\n"},
    {"link $box/@mbox.quota /proc/self/comm", limit_info, 10, all,
     "Unable to chmod for quota file ~/info/@mbox.quota\n"},
    {"dir $box/@mbox.quota", [] { return 10 + remove_mbox_quota(domain, "info"); }, 10, "rv+=p.i@1",
     "System Error: can not remove quota file ~/info/@mbox.quota\n"},
    {"", [] { return add_mailbox("slash/", domain); }, 0, all, ""},
    {"", [] { return add_mailbox(".info", domain); }, 1, all, "invalid mailname or domain name.\n"},
    {"", [] { return add_mail_alias("info", domain, "\xc3\xa9"); }, 1, all,
     "empty mailname, maildomainor or mailalias\n"},
    {"", [] { return add_mail_domain("no.example", 1); }, 1, all,
     "get_dom_id(): domains record not found in DB for 'no.example'\n"},
    {"rm /etc/vlq/.vlq.shadow", [] { return add_mail_alias("info", domain, "x"); }, 1, all,
     "Unable to open admin password file" + absent +
         "Unable to connect to the mysql database\nUnable to define ID for domain d.example\n"},
    {"sed -i /^popuser:/d /etc/passwd", add_info, 1, all,
     "Unable to getpwnam for user popuser\nUnable to getpwnam for user popuser\nUnable to define UID or GID for user "
     "popuser\n"},
};

TEST(writers, undo_what_they_cannot_finish)
{
    const test_host host;
    sql("insert clients (id, login) values (1, 'a'); insert domains (id, name, cl_id) values (7, 'd.example', 1)");
    for (const auto &[setup, write, status, left, reported] : cases) {
        EXPECT_EQ(run_program({"sh", "-c", std::string(scene) + setup}).err, "") << setup;
        const outcome done = in_child(write);
        EXPECT_EQ(done.status, status) << setup;
        const std::string text = replaced(messages(done.err), "/var/qmail/", "");
        EXPECT_EQ(replaced(text, "mailnames/d.example", "~"), reported) << setup;
        EXPECT_EQ(done.out, done.err) << setup;
        EXPECT_EQ(run_program({"sh", "-c", look_around}).out, left) << setup;
    }
}

TEST(writers, escape_every_byte_that_the_shell_would_take_for_its_own)
{
    std::string text;
    for (int byte = 1; byte < 256; ++byte)
        text += static_cast<char>(byte);
    EXPECT_EQ(run_program({"sh", "-c", "printf %s a" + shell_escape(text)}).out, "a" + text);
}
