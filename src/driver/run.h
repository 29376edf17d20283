#pragma once

// Runs the phases of a run in their order: the rebuild pass, then qmail-newu and the restart of qmail. Returns the
// exit status: the OR of the exit code of qmail-newu (127 when it or the shell cannot be run, 255 when system() itself
// fails) and the result of the restart (0 or -1); 0 when spam_only. A fatal report in a phase ends the process with
// status 1.
int run(int with_spam, int spam_only);
