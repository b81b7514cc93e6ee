/* The system logger.
 *
 * Lines go to the system's logger as datagrams, or to the sink named by the environment variable
 * VELORAN_SLOG when slog_open is called: "file:PATH" (a regular file, appended to, one line a
 * message: "<severity> text", bytes below 0x20 and 0x7F shown as \xNN so that no text can forge a
 * line) or "unix:PATH" (a datagram socket). Without a logger, lines are dropped and counted.
 *
 * Nothing here blocks, allocates or takes a lock, so slogb may be called from a signal handler and
 * with any lock held. errno is left as it was. */
#ifndef VELORAN_SLOG_H
#define VELORAN_SLOG_H

#include <cstddef>
#include <cstdint>

extern "C" {

/* Severities of a line: 1 critical, 2 error, 3 warning, 4 notice, 5 info, 6 and 7 debug. */

/* Opens the sink and remembers `program` (borrowed, must stay valid). Called again after the
 * process has detached. Called on demand by slogb otherwise, never from its signal-handler path:
 * a program that logs from handlers opens first. */
void slog_open(const char* program) noexcept;

/* Writes one line of `length` bytes. `code` is the message code of the writer; the system's logger
 * has no such field, so it only tells the facility (its upper half, not shown). Returns 0, or -1
 * when the line was dropped. */
int32_t slogb(int32_t code, int32_t severity, const char* text, size_t length) noexcept;

/* Lines dropped so far. */
uint64_t slog_dropped(void) noexcept;
}

#endif
