/* The registry of players: opening by name, sharing, closing. */
#ifndef LYRANE_PLAYER_REGISTRY_H
#define LYRANE_PLAYER_REGISTRY_H

#include <cstdint>

#include "control.h"
#include "player.h"

constexpr int32_t PLAYERS_MAX = 256;     /* open at a time */
constexpr int32_t PLAYER_NAME_MAX = 127; /* bytes */

extern "C" {

/* The player of a name, made if there is none, with its client count raised by one. Null when the
 * name cannot be used (errno EINVAL: empty, longer than PLAYER_NAME_MAX, a leading '.', '/', '?'
 * or a control character), when PLAYERS_MAX are open (ENFILE), when its objects cannot be made
 * (errno of that), or when PLAYER_CLIENTS_MAX clients hold it. The pointer is valid while the
 * registry or a pin keeps the player; see player_open_pinned. No lock is held by the caller. */
player* player_open(control_block* control, const char* name) noexcept;

/* Lowers the client count; the player is torn down when it comes to 0. Always 0. No lock is held
 * by the caller. */
int32_t player_close(control_block* control, const char* name) noexcept;

/* The caller's client goes without a close, or to another player. Its count stays, or is given back
 * where the configuration forgives, down to 1: the last one keeps the player, so what a client that
 * died was playing plays on. The caller has a pin on the player; no lock is held. */
void player_lose_client(player* player) noexcept;

/* Position of the player of a name, by exact comparison, or -1. The players lock is held. */
int32_t players_find(const pointer_array* players, const char* name) noexcept;

/* Closes every player, whatever its client count: the service ends. Waits for
 * calls into plug-ins that hold a player's lock or build its session for a bounded time only; a
 * player that does not become free is left as it is, and named in the log. Returns 0. */
int32_t players_force_close(control_block* control) noexcept;
}

/* player_open with a pin for the caller, on behalf of a user: also null when the user may not have
 * another player (EDQUOT). */
player* player_open_pinned(control_block* control, const char* name, uid_t user) noexcept;

#endif
