#include "control/signals.h"

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int obeyed[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

volatile sig_atomic_t noted = 0;
volatile pid_t child_to_end = 0;

void note(int number)
{
    noted = number;
}

void end(int)
{
    constexpr char message[] = "\nmboxfixctl: interrupted: nothing has been changed\n";
    if (child_to_end > 0) {
        kill(child_to_end, SIGKILL);
        waitpid(child_to_end, nullptr, 0);
    }
    [[maybe_unused]] const ssize_t unsaid = write(STDERR_FILENO, message, sizeof message - 1);
    _exit(2);
}

void take_signals(void (*handler)(int))
{
    for (const int number : obeyed) {
        struct sigaction former = {};
        sigaction(number, nullptr, &former);
        if (former.sa_handler == SIG_IGN)
            continue;
        struct sigaction wanted = {};
        wanted.sa_handler = handler; // without SA_RESTART: a wait for a lock ends with it
        for (const int other : obeyed)
            sigaddset(&wanted.sa_mask, other);
        sigaction(number, &wanted, nullptr);
    }
}

} // namespace

void end_on_signals()
{
    take_signals(end);
}

void end_child_on_signals(pid_t child)
{
    child_to_end = child;
}

void note_signals()
{
    take_signals(note);
}

int noted_signal()
{
    return noted;
}

void forget_signals()
{
    for (const int number : obeyed) {
        struct sigaction former = {};
        sigaction(number, nullptr, &former);
        if (former.sa_handler != SIG_IGN)
            signal(number, SIG_DFL);
    }
}
