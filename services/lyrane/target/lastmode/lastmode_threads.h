/* The restore threads: how many there are, and how they are told to end. */
#ifndef LYRANE_LASTMODE_THREADS_H
#define LYRANE_LASTMODE_THREADS_H

#include <cstdint>

struct player_state;

/* Starts a restore thread, which takes the state over. Failure ends the process. */
void lastmode_threads_start(player_state* state) noexcept;

/* Whether all that was saved has been read in this run. [main] */
bool lastmode_was_read(void) noexcept;

#endif
