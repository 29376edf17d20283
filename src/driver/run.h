#pragma once

// Waits for another run to end, then runs the phases of a run in their order: the rebuild pass, with with_spam the
// replay of the spam filter's settings (when the component "vlq-spamassassin" is installed), then qmail-newu and the
// restart of qmail; with spam_only nothing but the replay. Returns the exit status: the OR of the exit code of
// qmail-newu (127 when it or the shell cannot be run, 255 when system() itself fails) and the result of the restart (0
// or -1); 0 when spam_only. A fatal report in a phase ends the process with status 1.
int run(int with_spam, int spam_only);
