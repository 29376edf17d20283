#include "driver/run.h"

#include "common/conf.h"
#include "common/error.h"
#include "common/get.h"
#include "driver/rebuild.h"
#include "filters/spam.h"
#include "process/exec.h"
#include "process/service.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>

namespace {

// qmail's user database has to follow users/assign before the server reads it again.
int restart_qmail()
{
    const int newu_status = (run_shell(formatted("%s/bin/qmail-newu", QMAIL_ROOT_D)) >> 8) & 0xff;
    return newu_status | service_control("qmail", "restart");
}

// Keeps two runs from writing the same lines twice. The password file is one that nobody but root can hold; it is never
// closed here, so the lock goes with the process. What cannot be locked is passed over.
void wait_for_other_runs()
{
    const int former_errno = errno;
    const int fd = open("/etc/vlq/.vlq.shadow", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    while (fd >= 0 && flock(fd, LOCK_EX) != 0 && errno == EINTR)
        ;
    errno = former_errno;
}

} // namespace

int run(int with_spam, int spam_only)
{
    wait_for_other_runs();
    if (!spam_only)
        rebuild_mail_config();
    if (with_spam && is_component_installed("vlq-spamassassin"))
        spam_rebuild_settings();
    return spam_only ? 0 : restart_qmail();
}
