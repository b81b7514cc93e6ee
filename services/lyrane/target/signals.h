/* The signals of the service: SIGUSR1 steps the log level, the termination signals end the
 * service in order. */
#ifndef LYRANE_SIGNALS_H
#define LYRANE_SIGNALS_H

#include <cstdint>

extern "C" {

/* The SIGUSR1 handler: raises the log level by one, from the highest to 0. Lock-free and
 * async-signal-safe; any number of threads may run it at once. */
void verbosity_handler(int signal) noexcept;

/* Body of the signal thread; its argument is ignored. It takes the termination signals of all
 * threads, also of one that does not block them. The first one stops the message server of the
 * control block, later ones are only logged. An end that then takes longer than SIGNALS_END_LIMIT,
 * or whose main thread hangs, is cut short with exit status 1. The main thread hangs when it does
 * not come out of its loop, or of one call into a plug-in, for SIGNALS_HANG_LIMIT. Null when it
 * cannot go on. */
void* signal_thread(void* ignored) noexcept;
}

constexpr int32_t SIGNALS_END_LIMIT = 60; /* s from the first termination signal */
constexpr int32_t SIGNALS_HANG_LIMIT = 4; /* s, of those after the first termination signal */

/* What is done before an end is cut short, while the main thread hangs; it has what is left of
 * SIGNALS_END_LIMIT. Set before the signal thread starts, called by it. [main] */
void signals_set_last_words(void (*say)(void) noexcept) noexcept;

/* First thing in the process: SIGPIPE and SIGXFSZ become harmless, SIGUSR1 waits for its handler.
 */
void signals_prepare(void) noexcept;

/* The loop of the message server has ended. [main] */
void signals_loop_ended(void) noexcept;

/* Installs the handler and lets SIGUSR1 in; without it SIGUSR1 is ignored. [main] */
void signals_install_verbosity(void) noexcept;

/* Blocks the termination signals in the calling thread. 0 or the error number. [main] */
int32_t signals_block_termination(void) noexcept;

#endif
