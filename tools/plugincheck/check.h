/* The checking side of a check: it says what it finds to the process that watches it. One check at
 * a time; the functions belong to the main thread of the checking process, but for check_note_call.
 */
#ifndef PLUGINCHECK_CHECK_H
#define PLUGINCHECK_CHECK_H

#include <atomic>
#include <cstdint>

/* Memory that both processes see. The watching one was the same program, so the address of a
 * literal means the same text there. */
struct check_shared {
    std::atomic<const char*> call; /* the entry that was called last; null: none is running */
};

/* What a checking process is given. */
struct check_channel {
    int pipe = -1; /* its lines: a letter, a tab and the text */
    check_shared* shared = nullptr;
};
void check_open(const check_channel& channel);

void check_begin(const char* id);
/* Something is wrong; the check goes on. The first three of a check are told. */
void check_fail(const char* format, ...) __attribute__((format(printf, 1, 2)));
/* Nothing could be checked, and why. */
void check_skip(const char* format, ...) __attribute__((format(printf, 1, 2)));
/* What belongs to the line of a check that is fine: a number of what was looked at. */
void check_tell(const char* format, ...) __attribute__((format(printf, 1, 2)));
void check_end();
/* Whether the check in progress has failed. */
bool check_failed();

/* The plug-in cannot be checked at all: says why and ends the process. */
[[noreturn]] void check_give_up(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* The entry that is running, a literal, or null. [any thread] */
void check_note_call(const char* entry);

#endif
