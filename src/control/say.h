#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// What mboxfixctl tells: messages and progress on standard error, and its log.

// From now on neither progress nor waiting is shown.
void say_quietly();

// "mboxfixctl: TEXT" on standard error.
void complain(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The same, but not with --quiet.
void tell(const char *format, ...) __attribute__((format(printf, 1, 2)));

// How far something has come: on a terminal one line that is written over, elsewhere a line every ten percent.
void show_progress(const char *what, std::size_t done, std::size_t total);

// Takes the line away again.
void end_progress();

// Adds a line with the time to /var/log/mboxfixctl.log, which is made with 0640. A log that cannot be written is
// complained of once.
void log_line(const char *format, ...) __attribute__((format(printf, 1, 2)));

// One line for the system's log.
void log_to_system(const char *text);

// The text, with "?" for every control character, for those that turn the direction of a line, and for each byte that
// is no UTF-8: nothing that is shown steers a terminal.
std::string printable(std::string_view text);
