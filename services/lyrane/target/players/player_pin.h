/* Keeping a player's memory alive.
 *
 * The registry, every connection slot, every walk over the players, every plug-in callback in
 * flight and every thread of a player hold a pin. Closing a player tears it down at once, under
 * its lock; only the memory waits for the last pin. Whoever gets the lock of a pinned player tests
 * `closed` first and leaves when it is set.
 *
 * Pins are counted under the players lock. No player lock is held when one is taken or dropped. */
#ifndef LYRANE_PLAYER_PIN_H
#define LYRANE_PLAYER_PIN_H

#include <cstdint>

#include "control.h"
#include "player.h"

/* Adds a pin to a player that the caller knows to be alive. */
void player_pin(player* player) noexcept;

/* Drops a pin; the last one frees the memory. Accepts null. */
void player_unpin(player* player) noexcept;

/* Pins the player if `candidate` is the address of one in the registry; else null. *changes
 * receives the player's number of changes at that moment; null: not wanted. */
player* player_pin_registered(control_block* control, const void* candidate,
                              uint32_t* changes) noexcept;

/* Pins every player of the registry, in its order. The array is the caller's: give it back with
 * players_unpin. Without memory the process ends. */
player** players_pin_all(control_block* control, int32_t* count) noexcept;
void players_unpin(player** players, int32_t count) noexcept;

/* The end of a player's memory, also of one that never got into the registry; only player_unpin
 * and a failed open call it. */
void player_free(player* player) noexcept;

#endif
