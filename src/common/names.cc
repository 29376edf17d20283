#include "common/names.h"

#include "common/idn.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

namespace {

std::optional<std::string> ascii_form(const char *name)
{
    const int former_errno = errno;
    const int former_error = idn_last_error;
    const auto ascii = idn_toascii(name);
    errno = former_errno;
    idn_last_error = former_error;
    return ascii ? std::optional<std::string>(ascii.get()) : std::nullopt;
}

bool is_control(char byte)
{
    const auto value = static_cast<unsigned char>(byte);
    return value < 32 || value == 127;
}

bool is_unfit(std::string_view name, std::string_view refused)
{
    return name == "." || name == ".." || name.find_first_of(refused) != name.npos ||
           std::any_of(name.begin(), name.end(), is_control);
}

// Whether the conversion has made one of look-alikes: quotes, which a query would read, a blank, which the database's
// comparison passes over at the end, and a dot in front, which qmail reads as any name below.
bool gains_any(std::string_view ascii, std::string_view stored, std::string_view bytes)
{
    return std::any_of(bytes.begin(), bytes.end(),
                       [&](char byte) { return ascii.find(byte) != ascii.npos && stored.find(byte) == stored.npos; });
}

} // namespace

bool is_unfit_name(const char *name)
{
    return name && is_unfit(name, "/:");
}

bool is_unfit_domain(const char *name)
{
    if (!name)
        return false;
    const std::string judged = ascii_form(name).value_or(name);
    const bool gains_dot = judged.starts_with('.') && *name != '.';
    return is_unfit(judged, "/:@") || gains_any(judged, name, "'\"\\ ") || gains_dot;
}

bool is_more_than_line(const char *text)
{
    const std::string_view bytes = text ? text : "";
    return std::any_of(bytes.begin(), bytes.end(), is_control);
}

bool is_unfit_hash(const char *hash)
{
    return is_more_than_line(hash) || (hash && std::string_view(hash).find(':') != std::string_view::npos);
}

std::optional<std::string> domain_key(const char *name)
{
    std::optional<std::string> key = name ? ascii_form(name) : std::nullopt;
    if (key)
        std::transform(key->begin(), key->end(), key->begin(), [](char byte) {
            return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
        });
    return key;
}
