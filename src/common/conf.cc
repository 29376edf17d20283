#include "common/conf.h"

#include "common/error.h"
#include "common/owned.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <utility>

#define CONF_VARIABLE(key) const char *key = nullptr;
CONF_KEYS(CONF_VARIABLE)
#undef CONF_VARIABLE

namespace {

constexpr const char *conf_path = "/etc/vlq/vlq.conf";

struct conf_key {
    const char *name;
    const char **variable;
};

#define CONF_ENTRY(key) {#key, &key},
constexpr conf_key conf_keys[] = {CONF_KEYS(CONF_ENTRY)};
#undef CONF_ENTRY

// The whole file, with every line end and the whitespace before it turned into NUL bytes.
owned_text cache;
std::size_t cache_size = 0;

bool is_space(char byte)
{
    return isspace(static_cast<unsigned char>(byte)) != 0;
}

void cut_lines(char *text, std::size_t size)
{
    for (std::size_t at = 0; at < size; ++at) {
        if (text[at] != '\n')
            continue;
        for (std::size_t back = at + 1; back > 0 && is_space(text[back - 1]); --back)
            text[back - 1] = '\0';
    }
}

void fill_cache()
{
    const owned_stream file(fopen(conf_path, "re"));
    struct stat status;
    if (!file || fstat(fileno(file.get()), &status) != 0)
        return;
    const auto size = static_cast<std::size_t>(status.st_size);
    owned_text text(static_cast<char *>(malloc(size + 2)));
    if (!text || fread(text.get(), size, 1, file.get()) != 1)
        return;
    text.get()[size] = text.get()[size + 1] = '\0';
    cut_lines(text.get(), size);
    cache = std::move(text);
    cache_size = size;
}

} // namespace

const char *conf_get(const char *key)
{
    if (!cache)
        fill_cache();
    if (!cache)
        return nullptr;

    const std::size_t length = strlen(key);
    const char *end = cache.get() + cache_size;
    for (const char *at = cache.get(); at < end; at += strlen(at) + 1) {
        while (is_space(*at))
            ++at;
        if (strncmp(at, key, length) != 0 || !is_space(at[length]))
            continue;
        const char *value = at + length;
        while (is_space(*value))
            ++value;
        // Only a last line without a newline still ends in whitespace: there a bare key looks like one with a value.
        if (*value != '\0')
            return value;
    }
    return nullptr;
}

void load_conf()
{
    for (const conf_key &key : conf_keys) {
        *key.variable = conf_get(key.name);
        if (!*key.variable)
            report_fatal(1, "Error: %s not defined\n", key.name);
    }
}
