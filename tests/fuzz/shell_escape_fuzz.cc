// Any text as a bounce message: taking the quoting off again gives the text, and nothing special is left bare.
#include "qmail/nonexist.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    const std::string escaped = shell_escape(text);
    std::string back;
    for (std::size_t at = 0; at < escaped.size(); ++at) {
        if (escaped.compare(at, 3, "'\n'") == 0)
            back += escaped[++at], ++at;
        else if (escaped[at] == '\\')
            back += escaped.at(++at);
        else if (std::string_view("|&;<>()$`\"'*?[#~ \t\n").find(escaped[at]) != std::string_view::npos)
            abort();
        else
            back += escaped[at];
    }
    if (back != text)
        abort();
    return 0;
}
