#pragma once

// What a program of root's does first, whoever has started it: /dev/null is opened on whichever of the three standard
// descriptors is closed; SIGPIPE and SIGXFSZ are ignored, SIGCHLD gets its default back; the environment is emptied but
// for LANG and TERM, and PATH is root's.
void settle_process();
