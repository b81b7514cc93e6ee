/* A player's published objects: each operation writes one complete update of one object.
 *
 * The caller holds the player lock (player_publish_trksession: the track-session lock), except
 * player open, which publishes the first state before anybody else can see the player. */
#ifndef LYRANE_PLAYER_PUBLISH_H
#define LYRANE_PLAYER_PUBLISH_H

#include <cstdint>

#include <lyrane/records.h>

#include "player.h"

/* `type` of player_publish_trksession. */
constexpr int32_t TRKSESSION_CREATED = 0;
constexpr int32_t TRKSESSION_DESTROYED = 1;
constexpr int32_t TRKSESSION_UPDATED = 2;

/* `type` of player_publish_mediasource. */
constexpr int32_t MEDIASOURCE_CONNECTED = 0;
constexpr int32_t MEDIASOURCE_DISCONNECTED = 1;
constexpr int32_t MEDIASOURCE_CHANGED = 2;

extern "C" {

/* Object "state": rate, shuffle, repeat, status. */
void player_publish_state(player* player) noexcept VEL_REQUIRES(player->lock);

/* Object "status": the position, in the plug-in's unit. */
void player_publish_status(player* player, int32_t position) noexcept VEL_REQUIRES(player->lock);

/* Object "track": a null node or null metadata withdraws that attribute. The player must have a
 * track writer. */
void player_publish_track(player* player, uint64_t tsid, int32_t index, const medianode* node,
                          const metadata* data) noexcept VEL_REQUIRES(player->lock);

/* Object "trksession". */
void player_publish_trksession(player* player, int32_t type, int32_t length,
                               uint64_t tsid) noexcept;

/* Object "mediasource"; with null only the type changes. The name texts of `source` must not
 * change during the call: the caller holds the media-source lock. */
void player_publish_mediasource(player* player, int32_t type, const mediasource* source) noexcept
    VEL_REQUIRES(player->lock);

/* One attribute of the "state" object each, published at once: what the playback commands change.
 * The text forms are those of player_publish_state. */
void player_publish_state_status(player* player) noexcept VEL_REQUIRES(player->lock);
void player_publish_state_shuffle(player* player) noexcept VEL_REQUIRES(player->lock);
void player_publish_state_repeat(player* player) noexcept VEL_REQUIRES(player->lock);
void player_publish_state_rate(player* player) noexcept VEL_REQUIRES(player->lock);

/* The attribute "index" of the "track" object, published at once. */
void player_publish_track_index(player* player, int32_t index) noexcept VEL_REQUIRES(player->lock);
}

#endif
