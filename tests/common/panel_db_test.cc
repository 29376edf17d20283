#include "common/panel_db.h"
#include "support.h"

#include <array>
#include <dlfcn.h>
#include <gtest/gtest.h>

static std::string last_query, replaced_query, sent_instead;

// One query reaches the server as another: the answers of old and of broken servers.
extern "C" int STDCALL mysql_query(MYSQL *db, const char *query)
{
    static const auto send = reinterpret_cast<int (*)(MYSQL *, const char *)>(dlsym(RTLD_NEXT, "mysql_query"));
    last_query = query;
    return send(db, last_query == replaced_query ? sent_instead.c_str() : query);
}

// The last query of the preparation, or why there is no connection.
static const char *prepare()
{
    static char message[4097];
    return panel_db_connect(message) ? last_query.c_str() : message;
}

TEST(panel_db, prepares_a_connection_for_its_server_or_says_which_step_failed)
{
    const test_host host;
    const std::string version = "SHOW VARIABLES LIKE 'version'", refused = "select 1 from nothing";
    const std::string setting = "SELECT val FROM misc WHERE param='mysql41_compatible'";
    const std::string cause = "1146: Table 'vlq.nothing' doesn't exist";
    const std::array<std::string, 4> cases[] = {
        {"", "set foreign_key_checks=0", refused, "SET NAMES binary"},
        {"", version, refused, "DB error (query version) " + cause},
        {"", version, "do 1", "DB error (store query result): unknown error"},
        {"", version, "select 1, 2 limit 0", "DB error (fetch version row): unknown error"},
        {"", version, "select 'version', null", "DB error (empty version result): unknown error"},
        {"", setting, refused, "DB error (mysql41 compatible query) " + cause},
        {"", "SET NAMES binary", refused, "DB error (set names query) " + cause},
        {"insert misc values ('mysql41_compatible', 'False')", version, "select 1, '4.1.22'", "SET NAMES utf8"},
        {"update misc set val = 'false'", version, "select 1, '40.0.1'", "SET NAMES binary"},
        {"", version, "select 1, '4.0.27-standard'", version},
    };
    for (const auto &[panel, query, instead, answer] : cases) {
        sql(panel);
        replaced_query = query;
        sent_instead = instead;
        EXPECT_EQ(trial(prepare), answer) << panel << "; " << query << "; " << instead;
    }
    write_file("/etc/vlq/.vlq.shadow", "");
    EXPECT_EQ(trial(prepare), "Unable to read admin password file: Success");
}
