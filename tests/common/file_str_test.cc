#include "common/file_str.h"

#include "common/conf.h"
#include "line_model.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <random>

namespace {

std::string read_file(const char *path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A folder that goes with the test, which runs in it.
struct folder {
    std::string path = "/dev/shm/mboxfix-test.XXXXXX";
    folder()
    {
        EXPECT_NE(mkdtemp(path.data()), nullptr);
        std::filesystem::current_path(path);
        std::filesystem::create_directories("product/var/lock/files");
        PRODUCT_ROOT_D = "product";
    }
    ~folder()
    {
        std::filesystem::current_path("/");
        std::filesystem::remove_all(path);
    }
};

} // namespace

TEST(file_str, edits_any_file_like_a_plain_editor_line_by_line)
{
    const folder own;
    std::minstd_rand random(2026);
    const auto below = [&](unsigned limit) { return static_cast<unsigned>(random()) % limit; };
    const auto random_text = [&](unsigned size, unsigned newlines, const char *bytes) {
        std::string text(size, 'a');
        for (char &byte : text)
            byte = below(newlines) == 0 ? '\n' : bytes[below(3)];
        return text;
    };
    std::string text;
    for (int count = 0; count < 60000; ++count) {
        if (count % 16 == 0) {
            text = random_text(below(4) == 0 ? 4080 + below(30) : below(60), below(2) == 0 ? 9999 : 5, "\0ab");
            std::ofstream("f", std::ios::binary) << text;
        }
        std::vector<std::string> strings(below(3));
        for (std::string &string : strings)
            string = random_text(below(4), 6, "abc");
        if (!strings.empty() && below(9) == 0) // a whole line, or the piece of one that is compared at once
            strings[0] = std::string(text, 0, std::min<std::size_t>(text.find('\n'), 4093 + below(3))).c_str();
        const edit action = static_cast<edit>(below(3));
        const int mode = static_cast<int>(below(action == edit::add ? 2 : 3));
        text = edited_plainly(text, strings, action, mode);
        std::vector<const char *> lines;
        for (const std::string &string : strings)
            lines.push_back(string.c_str());
        lines.push_back(nullptr);
        ASSERT_EQ(file_str("f", lines.data(), action, mode), 0) << count;
        ASSERT_EQ(read_file("f"), text) << count;
    }
}
