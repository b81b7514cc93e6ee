/* What follows a play error: skipping to a track that plays, or giving the session up. */
#ifndef LYRANE_PLAY_ERROR_H
#define LYRANE_PLAY_ERROR_H

#include <cstdint>

#include "player.h"

/* LYR_PLAY_ERROR_SKIP plays the next track that can be attached and played; when none of the
 * session can, or when as many skips in a row as it has tracks brought no sound, the player is
 * shown as stopped (-1). LYR_PLAY_ERROR_FATAL destroys the session. Others: -1, nothing done. The
 * player has a session. */
int32_t play_error_handle(player* player, int32_t error) noexcept VEL_REQUIRES(player->lock);

#endif
