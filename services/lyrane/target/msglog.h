/* The diagnostic log: one function writes every line of the service.
 *
 * Levels: 1 critical (then the process aborts), 2 error (then it ends with status 1), 3 warning,
 * 4 notice, 5 info, 6 and 7 debug. A line is written when its level is at most `log_level`; levels
 * 1 and 2 end the process whether they are written or not. */
#ifndef LYRANE_MSGLOG_H
#define LYRANE_MSGLOG_H

#include <cstdarg>
#include <cstdint>

/* The message code of all our lines in the system log. */
constexpr int32_t MSGLOG_CODE = 111159056;

constexpr int32_t MSGLOG_LINE_SIZE = 1024; /* bytes of a line, its NUL included */
constexpr int32_t MSGLOG_LEVEL_MAX = 7;
constexpr int64_t MSGLOG_NO_CLIENT = -1;

extern "C" {

/* Highest level written; 4 at first. Read and written with atomic operations (a signal handler
 * changes it): use the two functions. */
extern int32_t log_level;
int32_t msglog_level(void) noexcept;
void msglog_set_level(int32_t level) noexcept;

/* 1: no echo to the standard error. Set before the first thread starts. */
extern int32_t background;

/* Writes one line: program name, ": ", text; cut to MSGLOG_LINE_SIZE - 1 bytes, and then escaped
 * (see <veloran/escape.h>). A format with a line feed before its end makes a text of several lines,
 * whose line feeds all stay: no argument of such a format comes from outside.
 *
 * Of one user's requests, and of any other thread, MSGLOG_LINES_MAX lines a second are written; a
 * line tells how many were left out. Levels 1 and 2 are always written.
 *
 * Flushes the standard output first, always, unless that would wait. Waits for nobody; only the
 * echo of levels 1 and 2 gives a reader a second. errno is left as it was. [any thread], any lock
 * may be held. Returns the logger's result. */
int32_t msglog(int32_t level, const char* format, ...) noexcept
    __attribute__((format(printf, 2, 3)));

/* The lines of the calling thread belong to requests of this user from now on, until
 * MSGLOG_NO_CLIENT is set. errno is left as it was. */
void msglog_set_client(int64_t user) noexcept;

/* Writes text straight to the system log: no filter, no echo. Callable from a signal handler. */
void msglog_direct(int32_t severity, const char* text) noexcept;

/* Puts together a line of MSGLOG_LINE_SIZE bytes that begins as an empty text; what does not fit is
 * left out. Callable from a signal handler, as the formatting functions of the library are not. */
void msglog_append(char* line, const char* text) noexcept;
void msglog_append_number(char* line, int32_t number) noexcept;

/* The name under which the program was started, without its folder. */
const char* msglog_program(void) noexcept;

/* The text of an error number, in a buffer of the calling thread that the next call reuses. */
const char* msglog_error_text(int32_t error) noexcept;
}

#endif
