// Any texts appended, cut back and appended again: the vector holds just those that it took, and stays in its block.
#include "filters/spam.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static arg_vector args;
    arg_clear(args);
    std::vector<std::string> taken;
    std::vector<arg_mark> marks = {arg_state(args)};
    for (std::size_t at = 0; at + 1 < size; at += 2) {
        if (data[at] == 0) {
            taken.resize(data[at + 1] % (taken.size() + 1));
            marks.resize(taken.size() + 1);
            arg_cut(args, marks.back());
        } else {
            const std::string text(static_cast<std::size_t>(data[at] - 1) * data[at + 1] / 2,
                                   static_cast<char>('a' + at % 26));
            if (arg_append(args, text.c_str()))
                taken.push_back(text), marks.push_back(arg_state(args));
        }
        if (args.count != static_cast<int>(taken.size()) || args.count > 99 || args.used > arg_vector::text_bytes ||
            args.slots[args.count])
            abort();
    }
    for (std::size_t at = 0; at < taken.size(); ++at)
        if (taken[at] != args.slots[at])
            abort();
    return 0;
}
