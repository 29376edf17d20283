#include "common/idn.h"

#include "common/error.h"

#include <cstring>
#include <idna.h>

int idn_last_error = 0;

namespace {

struct error_text {
    int code;
    const char *text;
};

constexpr error_text error_texts[] = {
    {IDNA_SUCCESS, "Success"},
    {IDNA_STRINGPREP_ERROR, "Stringprep error"},
    {IDNA_PUNYCODE_ERROR, "Punycode error"},
    {IDNA_CONTAINS_NON_LDH, "Contains non-LDH characters"},
    {IDNA_CONTAINS_MINUS, "Contains minus"},
    {IDNA_INVALID_LENGTH, "Invalid length"},
    {IDNA_NO_ACE_PREFIX, "ACE prefix not found"},
    {IDNA_ROUNDTRIP_VERIFY_ERROR, "Verify error"},
    {IDNA_CONTAINS_ACE_PREFIX, "ACE prefix found"},
    {IDNA_ICONV_ERROR, "Iconv error"},
    {IDNA_MALLOC_ERROR, "Cannot allocate buffer"},
};

} // namespace

const char *idn_error_text(int code)
{
    for (const error_text &entry : error_texts)
        if (entry.code == code)
            return entry.text;
    return "Unknown error";
}

owned_text idn_toascii(const char *name)
{
    char *ascii = nullptr;
    const int code = idna_to_ascii_8z(name, &ascii, 0);
    if (code == IDNA_MALLOC_ERROR)
        report_fatal(1, "Allocation failed");
    if (code == IDNA_SUCCESS)
        return owned_text(ascii);
    idn_last_error = code;
    return nullptr;
}

owned_text idn_toascii_safe(const char *name)
{
    owned_text ascii = idn_toascii(name);
    if (!ascii)
        report_fatal(1, "%s(%s) failed: %s", __func__, name, idn_error_text(idn_last_error));
    return ascii;
}

owned_text idn_email_toascii(const char *address)
{
    const char *at = strchr(address, '@');
    if (!at)
        return nullptr;
    const owned_text domain = idn_toascii(at + 1);
    if (!domain)
        return nullptr;
    return alloc_printf("%.*s@%s", static_cast<int>(at - address), address, domain.get());
}

owned_text idn_email_toascii_safe(const char *address)
{
    owned_text converted = idn_email_toascii(address);
    if (!converted)
        report_fatal(1, "%s(%s) failed: %s", __func__, address, idn_error_text(idn_last_error));
    return converted;
}
