#include "common/panel_db.h"
#include "filters/spam.h"
#include "support.h"

#include <gtest/gtest.h>

TEST(spam, fills_the_argument_vector_to_its_limits_and_no_further)
{
    arg_vector args;
    const std::pair<std::size_t, bool> lengths[] = {{0, false}, {1, true}, {16383, true}, {16384, false}};
    for (const auto &[length, fits] : lengths) {
        arg_clear(args);
        EXPECT_EQ(arg_append(args, std::string(length, 'x').c_str()), fits) << length;
        EXPECT_EQ(args.used, fits ? static_cast<int>(length) + 1 : 0);
    }
    arg_clear(args);
    for (int number = 0; number < 99; ++number)
        EXPECT_TRUE(arg_append(args, "x"));
    EXPECT_FALSE(arg_append(args, "x"));
    EXPECT_EQ(args.slots[99], nullptr);
    arg_cut(args, {3, 6});
    EXPECT_TRUE(arg_append(args, "yy"));
    EXPECT_STREQ(args.slots[3], "yy");
    EXPECT_STREQ(args.slots[2], "x");
    EXPECT_EQ(args.slots[4], nullptr);
}

constexpr const char *panel = R"(insert into clients (id, login) values (1, 'a');
update Components set version = '1' where name = 'vlq-spamassassin';
insert into domains (id, name, cl_id) values (7, 'd.example', 1);
insert into mail (dom_id, mail_name, spamfilter) values (7, 'on', 'true'), (7, 'off', 'false'), (7, 'null', null))";

// A name with a filter row and these preferences.
static std::string filter(const std::string &name, const std::string &preferences, const std::string &reject = "true")
{
    std::string statements = "insert into spamfilter values (1, '" + name + "', '" + reject + "')";
    if (!preferences.empty())
        statements += "; insert into spamfilter_preferences (spamfilter_id, preference, value) values " + preferences;
    return statements;
}

static outcome apply(const std::string &name)
{
    return in_child([&] { return spam_apply_settings(name.c_str(), nullptr) == 0 ? 10 : 20; });
}

static std::string repeated(const std::string &text, int from, int to)
{
    std::string all;
    for (int number = from; number <= to; ++number) {
        std::string entry = text;
        entry.replace(entry.find('#'), 1, std::to_string(number));
        all += entry;
    }
    return all;
}

TEST(spam, passes_each_setting_in_its_place)
{
    const std::string on = "spamsetup --mailname on@d.example --enable-mailname --action ";
    const std::string black = " --add-to-blacklist s#@x";
    const std::string long_entry(16400, 'x');
    const struct {
        const char *name;
        std::string rows, calls;
    } cases[] = {
        {"on@d.example", "", ""},
        {"on@d.example", filter("on@d.example", ""), on + "delete\n"},
        {"on@d.example", filter("on@d.example", "", "false"), on + "save\n"},
        {"off@d.example", filter("off@d.example", ""), "spamsetup --mailname off@d.example --disable-mailname\n"},
        {"null@d.example", filter("null@d.example", ""), "spamsetup --mailname null@d.example --disable-mailname\n"},
        {"no@d.example", filter("no@d.example", "(1, 'required_score', '5')"),
         "spamsetup --mailname no@d.example --sensitivity 5\n"},
        {"on@d.example", filter("on@d.example", "(1, 'required_score', ''), (1, 'required_score', '9')"),
         on + "delete --sensitivity\n"},
        {"on@d.example", filter("on@d.example", "(1, 'rewrite_header', 'subject'), (1, 'rewrite_header', 'subject x')"),
         on + "delete --not-modify-header\n"},
        {"on@d.example",
         filter("on@d.example", "(1, 'rewrite_header', 'from x'), (1, 'rewrite_header', 'subject a b ')"),
         on + "delete --modify-header a\\ b\n"},
        {"on@d.example", filter("on@d.example", "(1, 'unwhitelist_from', 'b@x'), (1, 'whitelist_from', 'a@x')"),
         on + "delete --add-to-unwhitelist b@x --add-to-whitelist a@x\n"},
        {"on@d.example",
         filter("on@d.example", "(1, 'required_score', '5')" + repeated(", (1, 'blacklist_from', 's#@x')", 1, 60)),
         on + "delete --sensitivity 5" + repeated(black, 1, 45) + "\nspamsetup --mailname on@d.example" +
             repeated(black, 46, 60) + "\n"},
        {"on@d.example", filter("on@d.example", "(1, 'blacklist_from', ''), (1, 'blacklist_from', 's1@x')"),
         on + "delete\nspamsetup --mailname on@d.example --add-to-blacklist --add-to-blacklist s1@x\n"},
        {"on@d.example", filter("on@d.example", "(1, 'blacklist_from', '" + long_entry + "')"),
         on + "delete\nspamsetup --mailname on@d.example --add-to-blacklist\n"},
        {"*@*", filter("*@*", "(1, 'required_score', '7')"), "spamsetup start --max-children 5 --sensitivity 7\n"},
        {"*@*",
         filter("*@*", "") + "; insert into misc values ('spamfilter_enabled', 'true'), "
                             "('spamfilter_max_children', '12')",
         "spamsetup start --enable-server-configs --max-children 12\n"},
        {"*@*",
         filter("*@*", "") + "; insert into misc values ('spamfilter_enabled', 'true'), "
                             "('spamfilter_use_mailuser_prefs', 'true'), ('spamfilter_max_children', 'abc')",
         "spamsetup start --enable-server-configs --enable-user-configs --max-children 5\n"},
        {"*@*", filter("*@*", "") + "; insert into misc values ('spamfilter_use_mailuser_prefs', 'true')",
         "spamsetup start --max-children 5\n"},
    };
    for (const auto &[name, rows, calls] : cases) {
        const test_host host;
        sql(panel + (rows.empty() ? "" : ";" + rows));
        const outcome done = apply(name);
        EXPECT_EQ(done.status, 10) << rows;
        EXPECT_EQ(done.err, "") << rows;
        EXPECT_EQ(read_file("/run/host/calls"), calls) << rows;
    }
}

TEST(spam, reports_what_fails_for_a_name_and_serves_the_next)
{
    const test_host host;
    sql(panel + (";" + filter("off@d.example", repeated("(1, 'blacklist_from', 's#@x')", 1, 1) +
                                                   repeated(", (1, 'blacklist_from', 's#@x')", 2, 60))));
    sql("insert into DomainServices (dom_id, type, status) values (7, 'mail', 0);"
        "insert into mail (dom_id, mail_name) values (7, ''); insert into spamfilter values (2, 'on@d.example', "
        "'true')");
    const std::string failed = "/usr/local/vlq/admin/bin/spamsetup execution failed:\n";
    const std::string broken = "Unable to get spamassassin settings for '*@*': Table 'vlq.spamfilter' doesn't exist\n";
    const struct {
        const char *setup;
        int status;
        std::string reported;
        std::size_t runs;
    } cases[] = {
        {":", 0, "empty mailname or maildomain\n", 3},
        // The rest of a split list is not passed once its first run has failed.
        {"echo 3 >/run/host/exit/spamsetup", 0, "empty mailname or maildomain\n" + failed + failed, 2},
        {"rm /run/host/exit/spamsetup; mariadb vlq -e 'rename table spamfilter_preferences to away'", 0,
         "empty mailname or maildomain\n"
         "Unable to get spamassassin settings for 'off@d.example': Table 'vlq.spamfilter_preferences' doesn't exist\n"
         "Unable to get spamassassin settings for 'on@d.example': Table 'vlq.spamfilter_preferences' doesn't exist\n",
         0},
        {"mariadb vlq -e 'rename table mail to off'", 1, "Unable to query mailnames: Table 'vlq.mail' doesn't exist\n",
         0},
        {"mariadb vlq -e 'rename table domains to gone, spamfilter to lost'", 1,
         broken + "Unable to query domains: Table 'vlq.domains' doesn't exist\n", 0},
        {"cd /usr/local/vlq/admin/sbin; mv spamsetup away; mariadb vlq -e 'rename table gone to domains'", 1,
         "vlq-spamassassin package is installed but '/usr/local/vlq/admin/sbin/spamsetup' does not exist\n"
         "Unable to query mailnames: Table 'vlq.mail' doesn't exist\n",
         0},
        {"mv /usr/local/vlq/admin/sbin/away /usr/local/vlq/admin/sbin/spamsetup; mariadb vlq -e 'rename table "
         "off to mail, lost to spamfilter, away to spamfilter_preferences; update Components set version = "
         "\"not_installed\"'",
         0, "empty mailname or maildomain\n", 0},
        {"rm /etc/vlq/.vlq.shadow", 1,
         "Unable to open admin password file: No such file or directory\nUnable to connect to the mysql database\n", 0},
    };
    for (const auto &[setup, status, reported, runs] : cases) {
        write_file("/run/host/calls", "");
        EXPECT_EQ(run_program({"sh", "-ec", setup}).err, "");
        const outcome done = in_child([] { return spam_rebuild_settings(), 0; });
        EXPECT_EQ(done.status, status) << setup;
        EXPECT_EQ(messages(done.err), reported) << setup;
        EXPECT_EQ(done.out, done.err);
        const std::string calls = read_file("/run/host/calls");
        EXPECT_EQ(static_cast<std::size_t>(std::count(calls.begin(), calls.end(), '\n')), runs) << setup;
    }
    EXPECT_EQ(messages(in_child([] { return spam_apply_settings("", nullptr); }).err),
              "Unable to open admin password "
              "file: No such file or directory\nUnable to connect to the Velqa database\n");
}
