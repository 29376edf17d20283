#include "common/get.h"
#include "common/panel_db.h"
#include "support.h"

#include <gtest/gtest.h>

using lookup = const char *(*)(MYSQL *);

constexpr const char *panel = R"(
insert misc values ('kept', 'x'), ('null', null), ('admin_email', 'admin@a.test');
insert clients (id, login, email) values (1, 'a', 'owner@a.test'), (2, 'b', ''), (3, 'c', null);
insert Limits values (1, 'mbox_quota', '12'), (2, 'mbox_quota', '34');
insert Parameters values (1, 'key', 'of mail'), (2, 'key', 'of web'), (1, 'long', repeat('z', 5000));
insert domains (id, name, cl_id, limits_id) values (1, 'a.test', 1, 1), (2, 'b.test', 2, 2), (3, 'c.test', 3, null);
insert DomainServices (dom_id, type, parameters_id) values (1, 'mail', 1), (1, 'web', 2), (2, 'mail', null);
insert Components (name, version) values ('old', 'not_installed'), ('quo''te', ''))";

static const char *held; // as it is after another lookup
const std::string cut(4095, 'z'), no_table = " doesn't exist\n(none)";
const std::tuple<const char *, lookup, std::string> cases[] = {
    {"", [](MYSQL *db) { return get_misc_param("kept", db); }, "x"},
    {"", [](MYSQL *db) { return get_misc_param("absent", db); }, ""},
    {"", [](MYSQL *db) { return get_misc_param("null", db); }, ""},
    {"", [](MYSQL *db) { return get_misc_param("it's", db); }, "stopped"},
    {"", [](MYSQL *db) { return get_dom_Limit("2", "mbox_quota", db); }, "34"},
    {"", [](MYSQL *db) { return get_dom_Limit("3", "mbox_quota", db); }, ""},
    {"", [](MYSQL *db) { return get_DomainService_Parameter("1", "web", "key", db); }, "of web"},
    {"", [](MYSQL *db) { return get_DomainService_Parameter("1", "mail", "long", db); }, cut},
    {"", [](MYSQL *db) { return get_DomainService_Parameter("1", "mail", "\"", db); }, "stopped"},
    {"", [](MYSQL *db) { return held = get_client_email("2", db), get_misc_param("kept", db), held; }, "admin@a.test"},
    {"", [](MYSQL *db) { return get_client_email("1", db); }, "owner@a.test"},
    {"rename table Limits to a", [](MYSQL *db) { return get_dom_Limit("1", "mbox_quota", db); },
     "Unable to query domain limit mbox_quota: Table 'vlq.Limits'" + no_table},
    {"rename table Parameters to b", [](MYSQL *db) { return get_DomainService_Parameter("1", "mail", "key", db); },
     "Unable to query domain parameter key: Table 'vlq.Parameters'" + no_table},
    {"rename table clients to c", [](MYSQL *db) { return get_client_email("1", db); },
     "Unable to define clients email: Table 'vlq.clients'" + no_table},
    {"rename table a to Limits, b to Parameters, c to clients; delete from misc",
     [](MYSQL *db) { return get_client_email("2", db); }, "Unable to define admin email\n(none)"},
    {"", [](MYSQL *) { return is_component_installed("old") ? "yes" : "no"; }, "no"},
    {"", [](MYSQL *) { return is_component_installed("quo'te") ? "yes" : "no"; }, "yes"},
    {"", [](MYSQL *) { return is_component_installed("ab'sent") ? "yes" : "no"; },
     "Package 'ab'sent' is not found in Components table\n[1]"},
};

TEST(get, tells_no_value_from_no_answer_on_either_kind_of_connection)
{
    const test_host host;
    sql(panel);
    for (const auto &[change, ask, answer] : cases) {
        sql(change);
        EXPECT_EQ(trial([ask_own = ask] { return ask_own(nullptr); }), answer);
        EXPECT_EQ(trial([ask_lent = ask] {
                      const owned_db db = panel_db_open();
                      return ask_lent(db.get());
                  }),
                  answer);
    }
}
