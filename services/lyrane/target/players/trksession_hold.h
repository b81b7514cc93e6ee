/* Reading a player's track session without the player lock.
 *
 * A hold keeps the record's memory and that of its tracks; one leaf lock covers the player's
 * pointer and the count, and nothing is called inside it. Who holds a session takes its lock and
 * finds it either whole or marked `destroyed`. */
#ifndef LYRANE_TRKSESSION_HOLD_H
#define LYRANE_TRKSESSION_HOLD_H

#include <cstdint>

#include "player.h"
#include "trksession.h"

/* The player's session with a hold for the caller, or null. [any thread] */
trksession* trksession_hold(player* player) noexcept;

/* Gives a hold back; the last one frees the record with its tracks. Accepts null. */
void trksession_release(trksession* session) noexcept;

/* The session that the caller builds: the one step under the player lock, the build thread without
 * it, because the pointer stays until that thread has been joined. Null when there is none. */
trksession* trksession_of_builder(const player* player) noexcept;

/* Makes `session` the player's, which is its first hold, or null; the caller has dealt with an
 * earlier one. */
void trksession_set(player* player, trksession* session) noexcept VEL_REQUIRES(player->lock);

#endif
