// Any bytes as the configuration file: every key is looked up, none gets what spans lines.
#include "common/conf.cc"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    cache.reset(static_cast<char *>(calloc(size + 2, 1)));
    memcpy(cache.get(), data, size);
    cache_size = size;
    cut_lines(cache.get(), size);
    for (const char *key : {"HTTPD_SERVICE", "K", ""})
        if (const char *value = conf_get(key); value && (*value == '\0' || strchr(value, '\n')))
            abort();
    return 0;
}
