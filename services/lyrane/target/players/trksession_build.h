/* Making, filling and destroying a track session.
 *
 * A session is built in two steps. The request that creates it imports a small first part, just
 * enough that the track which the client asked for can be attached at once. A build thread then
 * walks the whole folder tree and appends the rest, skipping the tracks that the first step holds.
 *
 * The build thread takes the session lock only, never the player lock, so a player plays, skips
 * and shuffles while its session grows, and destruction can join the thread under the player
 * lock. It ends at the next page once `cancelled` is set. */
#ifndef LYRANE_TRKSESSION_BUILD_H
#define LYRANE_TRKSESSION_BUILD_H

#include <cstdint>
#include <ctime>

#include <lyrane/records.h>

#include "control.h"
#include "player.h"
#include "trksession.h"

extern "C" {

/* Replaces the player's session by one built from the folder `mn_id` of a source, and attaches the
 * child at `start_index` (or the first track inside it). *expected: tracks that the client
 * announces, -1 unknown; set to 0 when building fails. 0, also when there was nothing to import;
 * -1 with errno ENODEV (source unknown or gone), EINVAL (expected below -1, start_index below 0)
 * or ENOTSUP (no play session). */
int32_t player_create_trksession(control_block* control, player* player, int32_t ms_id,
                                 const char* mn_id, int32_t* expected, int32_t start_index) noexcept
    VEL_REQUIRES(player->lock);

/* Replaces the player's session by one of `count` ready records, whose strings it takes over once
 * it has been made, and attaches track `index`. The result of the attach, or -1. */
int32_t player_create_trksession_v2(control_block* control, player* player, int32_t ms_id,
                                    medianode* nodes, int32_t count, int32_t index) noexcept
    VEL_REQUIRES(player->lock);

/* Destroys the player's session, if any: stops playing, ends the build thread, withdraws the
 * "track" object, resets the player to idle. Always 0. */
int32_t player_destroy_trksession(player* player) noexcept VEL_REQUIRES(player->lock);

/* Appends `count` records to the player's session, which takes over their strings, and publishes
 * it. 0, or -1 with errno set. Called under the player lock or by the build thread. */
int32_t player_trksession_import(player* player, medianode* nodes, int32_t count) noexcept;

/* All children of a node, page by page. *limit in: most wanted, -1 all; out: delivered. *nodes
 * receives an array that the caller frees with free_medianodes. 0, or -1 with nothing handed
 * over. */
int32_t get_media_node_children_v2(const mediasource_session* session, const char* mn_id,
                                   int32_t* limit, medianode** nodes) noexcept;

/* Imports the playable tracks below `mn_id` until *count reaches stop_count: the child at `index`
 * first when it is a folder, then the other folders, then the tracks of `mn_id`; otherwise its
 * tracks first. The first *ignore_count tracks of the session are not imported again. 0, or the
 * error of a step. */
int32_t player_browse_recursive(player* player, const char* mn_id, int32_t index, int32_t* count,
                                int32_t stop_count, int32_t* ignore_count,
                                int32_t recursive_depth) noexcept;

/* Body of the build thread; the argument is the player. Returns null. */
void* player_trksession_thread(void* player) noexcept;

/* Writes a listing of the first step for debugging. */
void dump_minitrk(const char* mn_id, int32_t count, const medianode* nodes, int32_t index) noexcept;
}

/* An id that no other track session of this run has. [any thread] */
uint64_t trksession_new_id(void) noexcept;

/* player_destroy_trksession that waits for the build thread no longer than to the deadline, a
 * vel_deadline (null: without end). False when the plug-in does not let the thread go by
 * then: the player is stopped, and its session stays. */
bool player_destroy_trksession_until(player* player, const timespec* deadline) noexcept
    VEL_REQUIRES(player->lock);

/* get_media_node_children_v2 that gives up (-1) once *cancelled is set. */
int32_t media_node_children(const mediasource_session* session, const char* mn_id, int32_t* limit,
                            medianode** nodes, const std::atomic<int32_t>* cancelled) noexcept;

#endif
