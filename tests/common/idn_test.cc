#include "common/idn.h"

#include "support.h"

TEST(idn, converts_a_domain_or_tells_why_not)
{
    const struct {
        owned_text (*convert)(const char *);
        std::string from, told;
    } cases[] = {
        {idn_toascii, "Mail.Example_x", "Mail.Example_x, Success"},
        {idn_toascii, "Bücher.ü.example", "xn--bcher-kva.xn--tda.example, Success"},
        {idn_toascii, std::string(64, 'a'), "none, Invalid length"},
        {idn_email_toascii, "ü@bücher.example", "ü@xn--bcher-kva.example, Success"},
        {idn_email_toascii, "a@ü@example", "a@xn--@example-55a, Success"},
        {idn_email_toascii, "ü.example", "none, Success"},
        {idn_email_toascii, "a@xn--ü", "none, ACE prefix found"},
        {idn_toascii_safe, "\xff", "mboxfix: idn_toascii_safe(\xff) failed: Iconv error\n"},
        {idn_toascii_safe, "ü", "xn--tda, Success"},
        {idn_email_toascii_safe, "ü", "mboxfix: idn_email_toascii_safe(ü) failed: Success\n"},
    };
    for (const auto &each : cases) {
        const outcome done = in_child([&] {
            const owned_text text = each.convert(each.from.c_str());
            printf("%s, %s", text ? text.get() : "none", idn_error_text(idn_last_error));
            return 0;
        });
        EXPECT_TRUE(done.out == each.told && done.status == each.told.ends_with('\n')) << each.from << done.out;
    }
    EXPECT_STREQ(idn_error_text(42), "Unknown error");
}
