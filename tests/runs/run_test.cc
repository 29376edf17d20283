#include "support.h"

#include <crypt.h>
#include <gtest/gtest.h>

// Words for a host: a small panel, a run with a table away, a count of the connections opened, a look at the files.
constexpr const char *words = R"sh(umask 022
cp -u "$MBOXFIX" /usr/local/sbin/mboxfix # where every user can start it
run() { mboxfix --without-spam; }
ask() { mariadb --no-defaults -N vlq -e "$1"; }
conf() { sed -i "s,^$1 .*,$1 $2," /etc/vlq/vlq.conf; }
panel() { ask "insert clients set id = 1, login = 'a'; insert domains set id = 1, name = '${1-x.test}', cl_id = 1;
  insert DomainServices values (1, 1, 'mail', 0, null); insert domainaliases set name = 'y.test', dom_id = 1;
  insert mail set id = 1, mail_name = 'm', dom_id = 1, mail_group = 'true', postbox = 'true';
  insert mail_aliases values (1, 1, 'z')"; }
away() { panel; ask "rename table $1 to away"; run || status=$?; ask "rename table away to $1"; exit $status; }
connections() { ask "show global status like 'Connections'" | cut -f2; }
filters() { ask "delete from Components; insert Components (name, version) values ('drweb', '$1'),
  ('drweb-qmail', '$1'), ('vlq-spamassassin', '$1')"; }
bin=/usr/local/vlq/admin/bin
count() { before=$(connections); run; echo $(($(connections) - before - 1)); }
look() { cd /var/qmail; find control users mailnames | LC_ALL=C sort | while read -r path; do
    echo "$path $(stat -c '%u:%g %a' $path)$([ -d $path ] || (echo; cat $path) | tr '\n' '|')"
  done | sed -e 's,:popuser:7791:7791:/var/qmail/mailnames/,@,g; s,:popuser:/var/qmail/mailnames/,~,g' >/run/tree
  grep -vx 'mailnames/.* 7791:7791 700' /run/tree; grep -cx 'mailnames/.* 7791:7791 700' /run/tree; }
)sh";

const auto in_shell = [](const std::string &command) { return run_program({"sh", "-c", words + command}); };

// Each branch of the pass at least once. Rows come in the same order by id and by name.
constexpr const char *panel = R"(
insert misc values ('mysql41_compatible', 'true'), ('allow_short_pop3_names', 'disabled'), ('admin_email', 'a@b.test');
insert clients (id, login, email) values (1, 'c', '');
insert Limits values (1, 'mbox_quota', '1048576'), (2, 'mbox_quota', '-1'), (3, 'mbox_quota', 'none');
insert Parameters values (1, 'nonexist_mail', 'bounce'), (1, 'bounce_mess', 'catch "it",\ndon''t\nGrüß!'),
  (2, 'nonexist_mail', 'reject'), (3, 'nonexist_mail', 'catch'), (4, 'nonexist_mail', 'odd'),
  (5, 'nonexist_mail', 'catch'), (5, 'catch_addr', 'bounce@zürich.test'), (6, 'nonexist_mail', 'bounce');
insert domains (id, name, cl_id, status, limits_id) values (1, 'full.test', 1, 0, 1), (2, 'off.test', 1, 2, 2),
  (3, 'bücher.test', 1, 0, 3), (4, 'xn--mnchen-3ya.test', 1, 0, null), (5, 'all.test', 1, 4294967296, null),
  (6, 'web.test', 1, 0, 1), (7, 'plain.test', 1, 0, null);
insert DomainServices (id, dom_id, type, status, parameters_id) values (1, 1, 'mail', 0, 1), (2, 2, 'mail', null, 2),
  (3, 3, 'mail', 16, 3), (4, 4, 'mail', null, 4), (5, 5, 'mail', 0, 5), (6, 6, 'web', 0, null), (7, 7, 'mail', 0, 6);
insert domainaliases (name, dom_id, status, mail) values ('alias.test', 1, 0, 'true'), ('för.test', 2, 0, 'true'),
  ('old.test', 1, 1, 'true'), ('only-web.test', 1, 0, 'false'), ('odd.test', 4, 0, 'true');
insert accounts values (1, 'plain', 'tulip "x"'), (2, 'crypt', 'as is'), (3, 'plain', repeat(1, 600)), (4, 'crypt', '');
insert mail (id, mail_name, dom_id, account_id, postbox, mbox_quota, redirect, redir_addr, mail_group, autoresponder)
  values (1, 'a.all', 1, 1, 'true', ' 2048.5', 'true', 'a@far.test', 'true', 'true'),
  (2, 'b-box', 1, 4, 'true', '0', 'true', '', 'false', 'false'), (4, 'd', 1, null, null, null, null, null, null, null),
  (3, 'c', 1, null, 'true', '1023', 'true', null, 'true', 'true'),
  (5, 'e', 1, 3, 'true', '9', 'false', 'no@no.test', 'false', 'false'),
  (6, 'info', 2, 2, 'true', '-5', 'true', 'x@zürich.test', 'false', 'false');
insert mail_redir (mn_id, address) values (1, 'First@zürich.test'), (1, null), (1, 'a@far.test');
insert mail_aliases (mn_id, alias) values (1, 'a'), (1, 'z'), (6, 'office'))";

// What an earlier run left, and what an administrator made of it.
constexpr const char *former_state = R"(cd /var/qmail
mkdir -p mailnames/full.test/b-box/@mbox.quota mailnames/off.test mailnames/xn--mnchen-3ya.test
echo 1 | tee mailnames/off.test/@mbox.quota users/assign.linked control/rcpthosts |
  tee mailnames/xn--mnchen-3ya.test/.qmail-default
ln -s assign.linked users/assign; printf 'gone.test\noff.test\nfull.test\nall.test\n' >control/rejectnonexist
chmod 750 mailnames mailnames/full.test/b-box; chmod 640 control/*)";

// The tree with the known passwords in the place of their hashes, as far as these have the salt of the first one.
static std::string look_around()
{
    std::string tree = in_shell("look").out;
    const std::string salt = tree.substr(tree.find("$1$"), 11);
    for (const std::string password : {"", "tulip \"x\""})
        if (const std::string hash = crypt(password.c_str(), salt.c_str()); tree.find(hash) != tree.npos)
            tree.replace(tree.find(hash), hash.size(), "<" + password + ">");
    return tree;
}

constexpr const char *rebuilt =
    R"(control 0:0 755
control/rcpthosts 0:0 640|full.test|alias.test|xn--fr-fka.test|xn--mnchen-3ya.test|odd.test|plain.test|
control/rejectnonexist 0:0 644|gone.test|off.test|xn--fr-fka.test|xn--mnchen-3ya.test|
control/virtualdomains 0:0 644|full.test:1|alias.test:1|xn--fr-fka.test:2|xn--mnchen-3ya.test:4|odd.test:4|)"
    R"(plain.test:7|
mailnames 0:2791 755
mailnames/all.test/.qmail-default 7791:7791 600|&bounce@xn--zrich-kva.test|
mailnames/full.test/.qmail-default 7791:7791 600||bouncesaying catch\ \"it\",\ don\'t\ Grüß!|
mailnames/full.test/@mbox.quota 7791:7791 640|1024|
mailnames/full.test/a.all/.qmail 7791:7791 600|| true|./Maildir/|&First@xn--zrich-kva.test|&a@far.test||autoresponder|
mailnames/full.test/a.all/@mbox.quota 7791:7791 640|2|
mailnames/full.test/b-box 7791:7791 750
mailnames/full.test/b-box/.qmail 7791:7791 600|| true|./Maildir/|
mailnames/full.test/b-box/@mbox.quota 0:0 755
mailnames/full.test/c/.qmail 7791:7791 600|| true|./Maildir/||autoresponder|
mailnames/full.test/c/@mbox.quota 7791:7791 640|0|
mailnames/full.test/d/.qmail 7791:7791 600|| true|
mailnames/full.test/e/.qmail 7791:7791 600|| true|./Maildir/|
mailnames/full.test/e/@mbox.quota 7791:7791 640|0|
mailnames/off.test/info/.qmail 7791:7791 600|| true|./Maildir/|&x@xn--zrich-kva.test|
mailnames/plain.test/.qmail-default 7791:7791 600||bouncesaying This\ address\ no\ longer\ accepts\ mail.|
mailnames/xn--bcher-kva.test/.qmail-default 7791:7791 600|&a@b.test|
mailnames/xn--mnchen-3ya.test/.qmail-default 0:0 644|1|
users 0:0 755
users/assign 0:0 600|+7@plain.test:::|+5@all.test:::|+4@xn--mnchen-3ya.test:::|+3@xn--bcher-kva.test:::|)"
    R"(=2-office@off.test/info:::|=2-info@off.test/info:::|+2@off.test:::|=1-e@full.test/e:::|=1-d@full.test/d:::|)"
    R"(=1-c@full.test/c:::|=1-b-box@full.test/b-box:::|=1-z@full.test/a.all:::|=1-a@full.test/a.all:::|)"
    R"(=1-a.all@full.test/a.all:::|+1@full.test:::|.|
users/assign.linked 0:0 644|.|
users/poppasswd 0:0 600|a.all@full.test:<tulip "x">~full.test/a.all|)"
    R"(c@full.test:<>~full.test/c|e@full.test:*0~full.test/e|info@off.test:!as is~off.test/info|
41
)";

TEST(run, rebuilds_the_whole_tree_and_the_same_again)
{
    const test_host host;
    sql(panel);
    EXPECT_EQ(in_shell(former_state).err, "");
    for (int round = 0; round < 2; ++round) {
        const outcome done = in_shell("run");
        EXPECT_EQ(done.status, 0);
        EXPECT_EQ(messages(done.err),
                  "Unable to open file /var/qmail/mailnames/full.test/b-box/@mbox.quota: Is a directory\n"
                  "Warning: unable to write mailbox quota\n"
                  "Warning: unable to encrypt password for e@full.test\n");
        EXPECT_EQ(done.out, done.err);
        EXPECT_EQ(look_around(), rebuilt);
    }
    EXPECT_EQ(read_file("/run/host/calls"), "qmail-newu\nqmail restart\nqmail-newu\nqmail restart\n");
}

// The rules and calls of the sample panel, shortened where they are exactly as they should be.
constexpr const char *filtered = R"sh(cd /etc/drweb; stat -c '%u:%g %a' users.conf; head -1 users.conf
tail -n +2 users.conf | sed 's/^allow\t\(from\|to\|any\)\tregex\t^\(.*\)\$$/\1 \2/' | LC_ALL=C sort | tr '\n' '|'
echo; sed -e 's/--add-to-blacklist sender\([0-9]*\)@spam.example/s\1/g' \
  -e 's/spamsetup --mailname/M/' /run/host/calls | tr -s xy
grep -o '[xy]*@long' /run/host/calls | awk '{ print length }')sh";

constexpr const char *sample_rules =
    "any contact@north-gone.test|any contact@north-old.test|any contact@north-web.test|any contact@north.example|"
    "any contact@north.test|any contact@nördlich.example|any info@north.example|any info@north.test|"
    "any info@nördlich.example|any rathaus@muenchen.test|any rathaus@xn--mnchen-3ya.example|"
    "any sales@north-gone.test|any sales@north-old.test|any sales@north-web.test|any sales@north.example|"
    "any sales@north.test|any sales@nördlich.example|any stadt@muenchen-old.test|any stadt@muenchen.test|"
    "any stadt@xn--mnchen-3ya.example|from info@closed.example|from info@closed.test|from lost@north.example|"
    "from lost@north.test|from lost@nördlich.example|from office@closed.example|from office@closed.test|"
    "to a.lind@north-gone.test|to a.lind@north-old.test|to a.lind@north-web.test|to a.lind@north.example|"
    "to a.lind@north.test|to a.lind@nördlich.example|to anna.lind@north.example|to anna.lind@north.test|"
    "to anna.lind@nördlich.example|to lesen@bücher.example|to o'hara@north.example|to o'hara@north.test|"
    "to o'hara@nördlich.example|\n";

const std::string sample_calls =
    "spamsetup start --enable-server-configs --enable-user-configs --max-children 12 --sensitivity 7 "
    "--modify-header \\[spam\\] --add-to-blacklist \\*@spam.example --add-to-whitelist \\*@hosting.example\n"
    "M $'lesen@b\\303\\274cher.example' --enable-mailname --action delete --add-to-blacklist "
    "$'*@m\\303\\274ll.example'\n"
    "M anna.lind@north.example --disable-mailname --sensitivity --modify-header \\[\\ spam\\?\\ \\] --add-to-whitelist "
    "mother@family.example --add-to-blacklist offers@shop.example --add-to-unblacklist news@shop.example "
    "--add-to-unwhitelist cousin@family.example\n"
    "M info@north.example --enable-mailname --action delete --sensitivity 5.5 --not-modify-header s1 s2 s3 s4 s5 s6 s7 "
    "s8 s9 s10 s11 s12 s13 s14 s15 s16 s17 s18 s19 s20 s21 s22 s23 s24 s25 s26 s27 s28 s29 s30 s31 s32 s33 s34 s35 s36 "
    "s37 s38 s39 s40 s41 s42 s43 s44 s45\n"
    "M info@north.example s46 s47 s48 s49 s50 s51 s52 s53 s54 s55 s56 s57 s58 s59 s60\n"
    "M lost@north.example --disable-mailname\n"
    "M o\\'hara@north.example --enable-mailname --action delete --sensitivity 3\n"
    "M team@north.example --enable-mailname --action save --add-to-blacklist x@long.example\n"
    "M team@north.example --add-to-blacklist y@long.example --add-to-whitelist short@long.example\n";
const std::string long_lengths = "9206\n9206\n5\n"; // of what stands before ".example"

TEST(run, replays_the_filters_of_the_sample_panel)
{
    const test_host host;
    const outcome loaded = in_shell("rm -f /etc/drweb/*; ask 'delete from Components'\n"
                                    "mariadb --no-defaults --default-character-set=utf8mb4 vlq <$DEMO/panel.sql");
    EXPECT_EQ(loaded.err, "");
    const struct {
        const char *command;
        std::string head, calls;
    } rounds[] = {
        {"mboxfix --with-spam", "[version=2]", "virsetup -r\n" + sample_calls + "qmail-newu\nqmail restart\n"},
        {"mboxfix -v without-spam; mboxfix --without-spam", "[version=2]", "virsetup -r\nqmail-newu\nqmail restart\n"},
        {"echo mine >/etc/drweb/users.conf.in; mboxfix --without-spam", "mine",
         "virsetup -r\nqmail-newu\nqmail restart\n"},
        {"rm -r /var/qmail; mboxfix --spam-only", "mine", sample_calls},
    };
    for (const auto &[command, head, calls] : rounds) {
        const outcome done = in_shell(std::string(": >/run/host/calls;") + command);
        EXPECT_EQ(std::to_string(done.status) + done.err, "0");
        EXPECT_EQ(in_shell(filtered).out, "0:0 644\n" + head + "\n" + sample_rules + calls +
                                              (calls.find("@long") == calls.npos ? "" : long_lengths));
    }
    in_shell("rm -f /etc/drweb/*");
}

const std::string usage =
    "Usage: mboxfix [OPTION]\n  Restore settings for all mailboxes.\n\n"
    "  --without-spam [--daemon-mode]\n         restore all settings except for SpamAssassin configuration\n"
    "  --with-spam [--daemon-mode]\n         restore all settings\n"
    "  --spam-only [--daemon-mode]\n         restore only SpamAssassin settings\n";
const std::string once = "qmail-newu\nqmail restart\n", absent = ": No such file or directory\n";
const std::string bin = "/usr/local/vlq/admin/bin/", refused = ": Operation not permitted\n",
                  denied = "Unable to set UID or GID" + refused;
const std::string no_dir = ": Not a directory\n", no_table = " doesn't exist\n", both = "x.test\ny.test\n";

const struct {
    const char *command;
    int status;
    std::string rcpthosts, calls, out;
} runs[] = {
    {"mboxfix -v --daemon-mode -v; rm /etc/vlq/vlq.conf; mboxfix -v daemon", 0, "stale\n", "", usage + usage},
    {"mboxfix --with-spam && mboxfix with-spam && mboxfix -v && mboxfix without-spam", 0, "", once + once + once + once,
     ""},
    {"mboxfix --spam-only; mboxfix spam-only", 0, "stale\n", "", ""},
    {"filters 1; ask 'alter table mail rename column virusfilter to away'\n"
     "run >/dev/null 2>/run/err; status=$?; sed -e 's/^mboxfix: //; s/ in .*//' /run/err; cat /etc/drweb/users.conf\n"
     "ask 'alter table mail rename column away to virusfilter'; exit $status",
     0, "", once, "Unable to query drweb mailnames: Unknown column 'm.virusfilter'\n[version=2]\n"},
    {"filters 1; mv $bin/virsetup $bin/gone; run >/dev/null 2>/run/err; status=$?\n"
     "mv $bin/gone $bin/virsetup; grep -v ^mbox /run/err; exit $status",
     0, "", once, "fork_execv: execv(\"" + bin + "virsetup\") failed" + absent},
    {"filters 1; panel; ask \"insert spamfilter values (1, '*@*', 'true'), (2, 'm@x.test', 'true')\"\n"
     "echo 3 >/run/host/exit/spamsetup; mboxfix --spam-only",
     0, "stale\n", "spamsetup start --max-children 5\nspamsetup --mailname m@x.test --disable-mailname\n",
     bin + "spamsetup execution failed:\n" + bin + "spamsetup execution failed:\n"},
    {"ask 'delete from Components'; run", 1, "", "", "Package 'drweb' is not found in Components table\n"},
    {"setpriv --reuid=1 --regid=1 --clear-groups mboxfix x", 1, "stale\n", "", denied},
    {"setpriv --regid=1 --keep-groups --bounding-set=-setgid mboxfix x", 1, "stale\n", "", denied},
    {"sed -i /^CLIENT_PHP_BIN/d /etc/vlq/vlq.conf; run", 1, "stale\n", "", "Error: CLIENT_PHP_BIN not defined\n"},
    {"run <&- >&- 2>&-", 0, "", once, ""},
    {"conf QMAIL_ROOT_D /no; run", 1, "stale\n", "", "ERROR: Unable to chdir to qmail dir" + absent},
    {"rm -r /var/qmail/control; run", 0, "(none)", once,
     "Unable to truncate or create file /var/qmail/control/rcpthosts" + absent +
         "Unable to truncate or create file /var/qmail/control/virtualdomains" + absent},
    {"conf QMAIL_MAILNAMES_D /dev/null/no; run", 1, "", "", "ERROR: Unable to stat for mailnames dir" + no_dir},
    {"conf QMAIL_MAILNAMES_D /proc/sys; run", 1, "", "", "ERROR: Unable to chown for mailnames dir" + refused},
    {"conf QMAIL_MAILNAMES_D /proc/1/task; run", 1, "", "", "ERROR: Unable to chmod for mailnames dir" + refused},
    {"touch /var/qmail/mailnames; run", 1, "", "", "WARNING: Unable to chdir to mailnames dir" + no_dir},
    {"sed -i /^qmails:/d /etc/passwd; run", 0, "", once, "Unable to getpwnam for user qmails\n"},
    {"echo wrong >/etc/vlq/.vlq.shadow; run", 1, "", "",
     "Unable to connect to Velqa Database: Access denied for user 'admin'@'localhost' (using password: YES)\n"
     "Unable to connect to the mysql database\n"},
    {"away domains", 1, "", "", "Unable to query domains: Table 'vlq.domains'" + no_table},
    {"away domainaliases", 1, "x.test\n", "", "Unable to query domain aliases: Table 'vlq.domainaliases'" + no_table},
    {"away mail", 1, both, "", "Unable to query mailnames: Table 'vlq.mail'" + no_table},
    {"away mail_redir", 1, both, "", "Unable to query mailgroup members: Table 'vlq.mail_redir'" + no_table},
    {"away mail_aliases", 1, both, "", "Unable to query alias for mail: Table 'vlq.mail_aliases'" + no_table},
    {"panel \"o''x.test\"; run || status=$?; cd /var/qmail; ls mailnames; cat users/assign; exit $status", 134, "", "",
     "o'x.test\n.\n"},
    {"echo 1 >/run/host/exit/qmail-newu; run", 1, "", once, ""},
    {"echo 1 >/run/host/exit/qmail; run", 255, "", once, "Service /etc/init.d/qmail failed to restart\n"},
    {"echo 6 >/run/host/exit/qmail-newu; echo NO_RESTART_DAEMON 1 >>/etc/vlq/vlq.conf; run", 6, "", "qmail-newu\n", ""},
    {"rm /var/qmail/bin/qmail-newu; run", 127, "", "qmail restart\n", ""},
    {"rm /etc/init.d/qmail; run", 1, "", "qmail-newu\n", "No such file '/etc/init.d/qmail'" + absent},
    {"panel; run; cut -d: -f1 /var/qmail/users/poppasswd", 0, both, once, "m\n"}, // a login without its domain
    // two connections for a domain, one for each alias, mail name and mail alias
    {"empty=$(count); panel; echo $(($(count) - empty))", 0, both, once + once, "5\n"},
    // another program holds the lock of users/assign while the run is in the background
    {"mkfifo /run/held /run/free /run/done; printf '#!/bin/sh\necho $1 >/run/done' >/etc/init.d/qmail\n"
     "lock=/usr/local/vlq/var/lock/files/$(printf /var/qmail/users/assign | md5sum | cut -c-32)\n"
     "flock $lock sh -c 'echo >/run/held; cat /run/free' >/dev/null & cat /run/held >/dev/null\n"
     "mboxfix --without-spam --daemon-mode; timeout 20 sh -c \"until grep -q -e '->' /proc/locks; do :; done\"\n"
     "cat /var/qmail/users/assign; echo waits; echo >/run/free; cat /run/done",
     0, "", "qmail-newu\n", "waits\nrestart\n"},
};

TEST(run, ends_as_its_host_and_its_panel_let_it)
{
    for (const auto &[command, status, rcpthosts, calls, out] : runs) {
        const test_host host;
        write_file("/var/qmail/control/rcpthosts", "stale\n");
        const outcome done = in_shell(command);
        EXPECT_EQ(done.status, status) << command << done.err;
        EXPECT_EQ(messages(done.out), out) << command;
        // Nothing is told on one stream alone, but by the shell and by a failed assertion.
        if (done.err.find("not found") == done.err.npos && status != 134) {
            EXPECT_EQ(done.err, done.out.find("mboxfix: ") == done.out.npos ? "" : done.out) << command;
        }
        EXPECT_EQ(read_file("/var/qmail/control/rcpthosts"), rcpthosts) << command;
        EXPECT_EQ(read_file("/run/host/calls"), calls) << command;
    }
}
