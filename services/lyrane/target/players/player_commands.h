/* The playback commands. The caller holds the player lock.
 *
 * Each returns 0, or -1 with errno EINVAL (no track session, bad argument) or ENOTSUP (no usable
 * play session, capability missing, device mode), or the plug-in's own result, unchanged. Fields
 * and published objects change only after the plug-in has succeeded.
 *
 * In player mode the service walks the track session; in device mode the device does, and next,
 * previous, shuffle and repeat are forwarded to it. */
#ifndef LYRANE_PLAYER_COMMANDS_H
#define LYRANE_PLAYER_COMMANDS_H

#include <cstdint>

#include "player.h"

/* Position from which on "previous" starts the current track again, in the plug-in's unit. */
constexpr int32_t PLAYER_PREVIOUS_RESTARTS_FROM = 5001;

extern "C" {

/* Asks for the audio focus first, and may wait for the arbiter's answer (bounded). */
int32_t player_play(player* player) noexcept VEL_REQUIRES(player->lock);
int32_t player_pause(player* player) noexcept VEL_REQUIRES(player->lock);
int32_t player_stop(player* player) noexcept VEL_REQUIRES(player->lock);
int32_t player_next(player* player) noexcept VEL_REQUIRES(player->lock);
int32_t player_previous(player* player) noexcept VEL_REQUIRES(player->lock);

/* `index` as clients see it. */
int32_t player_jump(player* player, int32_t index) noexcept VEL_REQUIRES(player->lock);

/* 1.0 is the normal speed. Rates that are no numbers are refused (EINVAL). */
int32_t player_set_playback_rate(player* player, float rate) noexcept VEL_REQUIRES(player->lock);

/* `position` in the plug-in's unit. */
int32_t player_seek(player* player, int32_t position) noexcept VEL_REQUIRES(player->lock);

/* LYR_SHUFFLE_*; other values are stored and shown as on, and walk straight. */
int32_t player_shuffle(player* player, int32_t mode) noexcept VEL_REQUIRES(player->lock);

/* LYR_REPEAT_*; other values are stored and shown as all, and have no next track. */
int32_t player_repeat(player* player, int32_t mode) noexcept VEL_REQUIRES(player->lock);
}

/* Sets the status to stopped and publishes it, without the plug-in. */
void player_show_stopped(player* player) noexcept VEL_REQUIRES(player->lock);

#endif
