// Any lines, edited by any string: what is left is what a plain editor leaves.
#include "common/conf.h"
#include "common/error.h"
#include "common/file_str.h"
#include "line_model.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>

static std::string read_all_of(const char *path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    static char folder[] = "/dev/shm/mboxfix-fuzz.XXXXXX";
    if (!mkdtemp(folder) || chdir(folder) != 0)
        abort();
    std::filesystem::create_directories("product/var/lock/files");
    PRODUCT_ROOT_D = "product";
    atexit([] { std::filesystem::remove_all(folder); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 2)
        return 0;
    const auto action = static_cast<edit>(data[0] % 3);
    const int mode = data[0] / 3 % 3;
    const std::string all(reinterpret_cast<const char *>(data) + 2, size - 2);
    const std::size_t cut = std::min<std::size_t>(data[1], all.size());
    const std::string string = all.substr(0, cut).c_str();
    const std::string before = all.substr(cut);
    std::ofstream("f", std::ios::binary) << before;
    if (file_str_line("f", string.c_str(), action, mode) != 0)
        abort();
    if (read_all_of("f") != edited_plainly(before, {string}, action, mode))
        abort();
    return 0;
}
