#include "common/conf.h"
#include "support.h"

#include <gtest/gtest.h>
#include <sstream>

constexpr const char *conf_path = "/etc/vlq/vlq.conf";

TEST(conf, takes_exactly_what_a_line_gives_to_a_key)
{
    const test_host host;
    const std::pair<const char *, const char *> cases[] = {
        {"A b\n  KEY   /var/qmail  \nC d\n", "/var/qmail"},
        {"\v\fKEY\t\v inner  blanks\tstay\f \t\n", "inner  blanks\tstay"},
        {"A b\r\n\r\n \n\nKEY value\r\n", "value"},
        {"KEY one\nKEY two\n", "one"},
        {"KEY\nKEY \t\nKEY three\n", "three"},
        {"#KEY 1\n# KEY 2\nKEYS 3\nkey 4\nA KEY\n", "(none)"},
        {"KEY\nvalue\n", "(none)"},
        {"A b\nKEY  ", "(none)"}, // a bare key, on a last line too
        {"A b\nKEY", "(none)"},
        {"A b\nKEY value \t", "value \t"}, // the blanks of a last line without a newline belong to the value
    };
    for (const auto &[text, value] : cases)
        EXPECT_EQ(trial([given = text] { return write_file(conf_path, given), conf_get("KEY"); }), value);
}

TEST(conf, demands_every_key_in_its_order)
{
    const test_host host;
    std::istringstream whole(read_file(conf_path));
    std::string given;
    int keys = 0;
    for (std::string line; std::getline(whole, line); given += line + "\n", ++keys) {
        write_file(conf_path, given);
        const std::string key = line.substr(0, line.find(' '));
        EXPECT_EQ(trial([] { return load_conf(), ""; }), "Error: " + key + " not defined\n[1]");
    }
    EXPECT_EQ(keys, 36);
}
