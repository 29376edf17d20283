// Anything as the output of ps: the heading is passed over, each line counts once at most. The signal is none.
#include "process/send_sig.cc"

#include <algorithm>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string output(reinterpret_cast<const char *>(data), size);
    const auto lines = std::count(output.begin(), output.end(), '\n');
    if (signal_matches(output.c_str(), "mark", 0) > lines)
        abort();
    return 0;
}
