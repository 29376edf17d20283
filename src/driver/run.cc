#include "driver/run.h"

#include "common/conf.h"
#include "common/error.h"
#include "common/get.h"
#include "driver/rebuild.h"
#include "filters/spam.h"
#include "process/service.h"

#include <cstdlib>

// qmail's user database has to follow users/assign before the server reads it again.
static int finish()
{
    char command[text_size];
    format_text(command, "%s/bin/qmail-newu", QMAIL_ROOT_D);
    const int newu_status = (system(command) >> 8) & 0xff;
    return newu_status | service_control("qmail", "restart");
}

int run(int with_spam, int spam_only)
{
    if (!spam_only)
        rebuild_mail_config();
    if (with_spam && is_component_installed("vlq-spamassassin"))
        spam_rebuild_settings();
    return spam_only ? 0 : finish();
}
