#pragma once

// Takes a lock, for which it waits until other runs have ended; one that cannot be had is passed over. Then runs these
// phases: the rebuild pass; when with_spam and "vlq-spamassassin" is installed, the spam filter's settings; qmail-newu;
// the restart of qmail. spam_only leaves out all but the spam filter's phase. Returns the exit status: 0 when
// spam_only, else the OR of qmail-newu's exit code (127: it cannot be run, 255: system() failed, 0: a signal ended the
// shell) and the restart's result (0 or -1). A fatal report in a phase ends the process with status 1, or with the
// status that the phase's contract names.
int run(int with_spam, int spam_only);
