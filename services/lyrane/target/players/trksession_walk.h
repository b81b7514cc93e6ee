/* Walking a track session: which track comes next, and making it the current one.
 *
 * Track indexes are positions in the list of tracks, and clients see the same numbers. Playback
 * positions are positions in the order of playing; they are used only while the player's
 * shuffle_mode is exactly 1. All functions take the session lock themselves; those that take a
 * player use its session, which must exist, under the player lock. */
#ifndef LYRANE_TRKSESSION_WALK_H
#define LYRANE_TRKSESSION_WALK_H

#include <cstdint>

#include <lyrane/records.h>

#include "player.h"
#include "trksession.h"

/* Where a session stands. */
struct trksession_place {
    int32_t trk_id;
    int32_t cli_index;
    int32_t trk_pos;
};

/* Milliseconds that one command or event may take over tracks that are refused: it holds the player
 * lock, and a command holds up every client. Constant; tests set it between commands. */
extern int32_t player_skip_ms;

extern "C" {

/* The track after / before the current one under the player's modes. 0, or -1 when there is none
 * (the out-value is untouched then). */
int32_t trksession_internal_next_index(player* player, int32_t* next) noexcept
    VEL_REQUIRES(player->lock);
int32_t trksession_internal_prev_index(player* player, int32_t* prev) noexcept
    VEL_REQUIRES(player->lock);

/* The address of a track, or null with errno EINVAL. It is valid until the next import. */
medianode* trksession_internal_get_track(player* player, int32_t index) noexcept
    VEL_REQUIRES(player->lock);

/* Client index to track index and back. 0, or -1 when there is no such track. */
int32_t convert_cli_index_2_internal_index(player* player, int32_t cli, int32_t* internal) noexcept
    VEL_REQUIRES(player->lock);
int32_t convert_internal_index_2_cli_index(player* player, int32_t internal, int32_t* cli) noexcept
    VEL_REQUIRES(player->lock);

/* A page of the track list: *tracks points at the first, *limit (in: most wanted, -1 all; out:
 * delivered) counts them; valid while the caller holds the session lock. `ts_id` is not examined.
 * 0, or -1 with errno EINVAL. A limit of 0 delivers nothing and leaves *tracks. */
int32_t trksession_get_tracks(trksession* session, uint64_t ts_id, int32_t offset, int32_t* limit,
                              medianode** tracks) noexcept VEL_REQUIRES(session->lock);

/* Makes track `index`, or the first after it that the plug-in accepts within `tries` attempts, the
 * current one, and publishes it. 0, or -1: the player is shown as stopped then. A thousand attempts
 * are made however long they take, more within player_skip_ms. */
int32_t player_internal_attach_medianode(player* player, int32_t index, int32_t tries) noexcept
    VEL_REQUIRES(player->lock);
}

/* The same with a repeat mode of the caller's in the place of the player's. */
int32_t player_attach_walking(player* player, int32_t index, int32_t tries,
                              int32_t repeat_mode) noexcept VEL_REQUIRES(player->lock);
int32_t trksession_next_by_mode(player* player, int32_t repeat_mode, int32_t* next) noexcept
    VEL_REQUIRES(player->lock);
int32_t trksession_previous_by_mode(player* player, int32_t repeat_mode, int32_t* prev) noexcept
    VEL_REQUIRES(player->lock);

int32_t trksession_length(trksession* session) noexcept VEL_EXCLUDES(session->lock);
trksession_place trksession_current(trksession* session) noexcept VEL_EXCLUDES(session->lock);
void trksession_set_current(trksession* session, trksession_place place) noexcept
    VEL_EXCLUDES(session->lock);
void trksession_set_track(trksession* session, int32_t index) noexcept VEL_EXCLUDES(session->lock);
void trksession_set_cli_index(trksession* session, int32_t index) noexcept
    VEL_EXCLUDES(session->lock);
void trksession_set_position(trksession* session, int32_t position) noexcept
    VEL_EXCLUDES(session->lock);

/* A copy of a track's record; its strings stay the session's, valid while the player lock is held.
 * 0, or -1 with errno EINVAL. */
int32_t trksession_copy_track(trksession* session, int32_t index, medianode* copy) noexcept
    VEL_EXCLUDES(session->lock);

/* Metadata of a node through the session's browse half, or null. The caller frees it. */
metadata* trksession_fetch_metadata(const trksession* session, const char* node_id) noexcept;

/* Makes the "track" object if the player has none yet; failure ends the process. */
void player_need_track_writer(player* player) noexcept VEL_REQUIRES(player->lock);

#endif
