/* The audio focus, client half: every player asks the arbiter before it plays and reports what it
 * does. Without an arbiter (np_fd -1) players play freely. */
#ifndef LYRANE_NOWPLAYING_H
#define LYRANE_NOWPLAYING_H

#include <cstdint>

#include "player.h"

/* Events of player.np_state. */
constexpr int32_t NOWPLAYING_PLAY = 0;
constexpr int32_t NOWPLAYING_PAUSE = 1;
constexpr int32_t NOWPLAYING_ACQUIRED = 2;
constexpr int32_t NOWPLAYING_REVOKED = 3;

extern "C" {

/* Writes one message to the arbiter, if there is one. Never blocks, raises no signal. */
void nowplaying_msg(player* player, const char* text) noexcept;

/* 1 when the player may play, else 0. The caller holds the player lock. */
int32_t nowplaying_acquire(player* player) noexcept VEL_REQUIRES(player->lock);

/* Gives the focus back. */
void nowplaying_release(player* player) noexcept;

/* Reports "playing", "paused" or "stopped". */
void nowplaying_state(player* player, const char* state) noexcept;
}

#endif
