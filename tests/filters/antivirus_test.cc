#include "common/conf.h"
#include "common/panel_db.h"
#include "filters/antivirus.h"
#include "support.h"

#include <gtest/gtest.h>

constexpr const char *list = "/etc/drweb/users.conf";

constexpr const char *panel = R"(set foreign_key_checks = 0;
insert into domains (id, name, cl_id) values (7, 'd.example', 1);
insert into domainaliases (dom_id, name, status, mail) values (7, 'on.test', 0, 'true'), (7, 'off.test', 2, 'true'),
  (7, 'web.test', 0, 'false');
insert into mail (id, dom_id, mail_name, virusfilter) values (1, 7, 'in', 'incoming'), (2, 7, 'out', 'outgoing'),
  (3, 7, 'any', 'any'), (4, 7, 'none', 'none'), (5, 99, 'orphan', 'any');
insert into mail_aliases (mn_id, alias) values (1, 'alias'), (2, 'any'), (4, 'unwatched'), (5, 'lost'))";

// "any" is a mail name of its own and an alias of "out": the rule that is written last stands alone.
constexpr const char *rules = "allow\tto\tregex\t^in@d.example$\n"
                              "allow\tfrom\tregex\t^out@d.example$\n"
                              "allow\tto\tregex\t^in@on.test$\n"
                              "allow\tfrom\tregex\t^out@on.test$\n"
                              "allow\tto\tregex\t^alias@d.example$\n"
                              "allow\tfrom\tregex\t^any@d.example$\n"
                              "allow\tto\tregex\t^alias@on.test$\n"
                              "allow\tto\tregex\t^alias@off.test$\n"
                              "allow\tto\tregex\t^alias@web.test$\n"
                              "allow\tfrom\tregex\t^any@on.test$\n"
                              "allow\tfrom\tregex\t^any@off.test$\n"
                              "allow\tfrom\tregex\t^any@web.test$\n";

static outcome rebuild()
{
    return in_child([] {
        DRWEB_ETC_D = "/etc/drweb";
        const owned_db db = panel_db_open();
        av_rebuild_recipients(db.get());
        return 0;
    });
}

static void empty_list_dir()
{
    run_program({"sh", "-c", "rm -rf /etc/drweb; mkdir /etc/drweb"});
}

TEST(antivirus, rebuilds_every_rule_once_over_the_header_or_the_template)
{
    const test_host host;
    sql(panel);
    const struct {
        const char *setup;
        std::string head, reported;
    } cases[] = {
        {":", "[version=2]\n", ""},
        {":", "[version=2]\n", ""}, // over its own result
        {"printf 'old\\n' >users.conf; chmod 600 users.conf; chown 9:9 users.conf", "[version=2]\n", ""},
        {"printf 'mine\\nallow\\tany\\texact\\tin@d.example\\nallow\\tany\\tregex\\t^out@d.example$\\n' >users.conf.in",
         "mine\n", ""},
        {"rm users.conf.in; mkdir users.conf.in", "[version=2]\n",
         "Error while copying file /etc/drweb//users.conf.in to /etc/drweb//users.conf: Is a directory\n"},
    };
    empty_list_dir();
    for (const auto &[setup, head, reported] : cases) {
        EXPECT_EQ(run_program({"sh", "-ec", std::string("cd /etc/drweb; umask 077; ") + setup}).err, "");
        const outcome done = rebuild();
        EXPECT_EQ(messages(done.err), reported) << setup;
        EXPECT_EQ(done.out, done.err);
        EXPECT_EQ(read_file(list), head + rules) << setup;
        EXPECT_EQ(owner_mode(list), "0:0 0644") << setup;
        EXPECT_TRUE(is_unlocked("/etc/drweb//users.conf"));
    }
    EXPECT_EQ(read_file("/run/host/calls"), "virsetup -r\nvirsetup -r\nvirsetup -r\nvirsetup -r\nvirsetup -r\n");
}

TEST(antivirus, keeps_what_it_has_and_tells_nobody_when_a_query_fails)
{
    const test_host host;
    const std::pair<const char *, const char *> cases[] = {
        {"mail", "mailnames"}, {"domainaliases", "mailnames on domain aliases"}, {"mail_aliases", "mail aliases"}};
    for (const auto &[table, what] : cases) {
        sql(std::string("rename table ") + table + " to away");
        empty_list_dir();
        const outcome done = rebuild();
        sql(std::string("rename table away to ") + table);
        EXPECT_EQ(messages(done.err),
                  std::string("Unable to query drweb ") + what + ": Table 'vlq." + table + "' doesn't exist\n");
        EXPECT_EQ(read_file(list), "[version=2]\n");
    }
    sql(panel);
    sql("rename table domainaliases to away");
    rebuild();
    sql("rename table away to domainaliases");
    EXPECT_EQ(read_file(list), std::string("[version=2]\n") +
                                   "allow\tto\tregex\t^in@d.example$\n"
                                   "allow\tfrom\tregex\t^out@d.example$\nallow\tany\tregex\t^any@d.example$\n");
    EXPECT_EQ(read_file("/run/host/calls"), "");
}

TEST(antivirus, goes_on_when_the_list_or_the_utility_fails)
{
    const test_host host;
    sql(panel);
    sql("delete from mail where id > 1; delete from mail_aliases; delete from domainaliases");
    empty_list_dir();
    write_file("/etc/drweb/users.conf.in", "mine\n", 0600);
    in_child([] { return umask(077), DRWEB_ETC_D = "/etc/drweb", av_reset_list(); });
    EXPECT_EQ(read_file(list) + owner_mode(list), "mine\n0:0 0644");
    run_program({"sh", "-c", "rm -rf /etc/drweb"});
    write_file("/run/host/exit/virsetup", "3\n");
    EXPECT_EQ(messages(rebuild().err),
              "Unable to open /etc/drweb//users.conf file for writing: No such file or directory\n"
              "Unable to open file /etc/drweb//users.conf: No such file or directory\n"
              "Unable to add record for 'in@d.example' to '/etc/drweb//users.conf' file\n"
              "/usr/local/vlq/admin/bin/virsetup execution failed:\n");
    empty_list_dir();
}
