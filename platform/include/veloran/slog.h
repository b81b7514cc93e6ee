/* The system logger.
 *
 * Lines go to the system's logger (/dev/log, facility daemon) as datagrams, or to the sink named by
 * the environment variable VELORAN_SLOG when the logger is opened: "file:PATH" (a regular file,
 * made with mode 0640, appended to, one line a message: the severity's digit, a blank, the text) or
 * "unix:PATH" (a datagram socket, the same datagrams as /dev/log). Without a logger, with one that
 * is behind or on a full disk, lines are dropped and counted.
 *
 * Text is escaped as <veloran/escape.h> says, but for bytes from 0xA0 that are no UTF-8. In a file
 * no text can forge a line. A datagram keeps line feeds: whoever logs text from outside escapes
 * those.
 *
 * Nothing here blocks, allocates or takes a lock, so slogb may be called from a signal handler and
 * with any lock held. errno is left as it was. */
#ifndef VELORAN_SLOG_H
#define VELORAN_SLOG_H

#include <cstddef>
#include <cstdint>

extern "C" {

/* Severities of a line: 1 critical, 2 error, 3 warning, 4 notice, 5 info, 6 and 7 debug. */

constexpr size_t SLOG_TEXT_MAX = 4096; /* bytes of a line's text as shown; the rest is cut off */

/* Opens the sink, after closing an earlier one, and copies the name of the program, which the
 * system's logger shows as the tag (cut to 63 bytes). slogb opens on demand with the tag set
 * before; a program that logs from signal handlers opens first. Not beside slogb on another
 * thread. */
void slog_open(const char* program) noexcept;

/* Closes the sink; the next line opens it again. Before a process detaches: its descriptors are
 * closed then, and their numbers come back as something else. */
void slog_close(void) noexcept;

/* Writes one line of `length` bytes. `code` is the message code of the writer; no logger here has
 * such a field, it is not shown. Returns 0, or -1 when the line was dropped. */
int32_t slogb(int32_t code, int32_t severity, const char* text, size_t length) noexcept;

/* Lines dropped so far. */
uint64_t slog_dropped(void) noexcept;
}

#endif
