/* The registry of media sources, a player's sessions on them, and the queries that go through a
 * session: browse, search, metadata.
 *
 * Unless said otherwise functions return 0 or the plug-in's result, or -1 with errno ENODEV (source
 * unknown or gone), EINVAL (bad offset or limit) or ENOTSUP (capability or session missing). The
 * caller holds the player lock of `player`; the registry is read under its leaf lock, for the
 * look-up alone. */
#ifndef LYRANE_MEDIASOURCE_H
#define LYRANE_MEDIASOURCE_H

#include <cstdint>

#include <lyrane/records.h>

#include "control.h"
#include "media.h"
#include "player.h"

extern "C" {

/* Positions in a list of media sources or sessions, first match first; -1 when there is none. The
 * list must not grow meanwhile. Texts compare without regard to case. */
int32_t mediasources_find_by_id(int32_t ignored, const pointer_array* list, int32_t id) noexcept;
int32_t mediasources_find_by_pid_uid(int32_t ignored, const pointer_array* list, int32_t plugin_id,
                                     const char* uid) noexcept;
int32_t mediasources_find_by_pname_uid(int32_t ignored, const pointer_array* list,
                                       const char* plugin_name, const char* uid) noexcept;
int32_t mediasource_sessions_find(int32_t ignored, const pointer_array* list,
                                  int32_t ms_id) noexcept;

/* The player's session on a source, made if needed, missing halves tried again. The player owns
 * it. Null with errno ENOTSUP. */
mediasource_session* mediasource_get_session(control_block* control, player* player,
                                             mediasource* source) noexcept
    VEL_REQUIRES(player->lock);

/* A new session, with whatever halves could be opened; the caller owns it. Null when the source's
 * plug-in is not loaded. */
mediasource_session* mediasource_session_create(control_block* control, player* player,
                                                mediasource* source) noexcept;
void mediasource_play_session_create(control_block* control, player* player, mediasource* source,
                                     mediasource_session* session) noexcept;
void mediasource_browse_session_create(control_block* control, player* player, mediasource* source,
                                       mediasource_session* session) noexcept;

/* Closes both halves, frees the record and forgets it. Accepts null. */
void mediasource_session_destroy(mediasource_session** session) noexcept;

/* Children of a node. `count` in: most records wanted, -1 no limit; out: delivered. *nodes
 * receives an array that the caller frees with free_medianodes; null on failure. */
int32_t mediasource_browse(control_block* control, player* player, int32_t ms_id,
                           const char* node_id, int32_t offset, int32_t* count,
                           medianode** nodes) noexcept VEL_REQUIRES(player->lock);

/* Nodes that match a text; `filter` may be null. Otherwise like browse. */
int32_t mediasource_search(control_block* control, player* player, int32_t ms_id,
                           const char* filter, const char* key, int32_t offset, int32_t* count,
                           medianode** nodes) noexcept VEL_REQUIRES(player->lock);

/* One record that the caller frees with free_metadata, or null; also after a failure. */
int32_t mediasource_get_metadata(control_block* control, player* player, int32_t ms_id,
                                 const char* node_id, metadata** data) noexcept
    VEL_REQUIRES(player->lock);

/* `keys` ends with null; values[i] receives a text that the caller frees, or stays null. */
int32_t mediasource_get_extended_metadata(control_block* control, player* player, int32_t ms_id,
                                          const char* node_id, const char* const* keys,
                                          char** values) noexcept VEL_REQUIRES(player->lock);

/* Lets the plug-in bring saved nodes up to date. -1 without a message when it cannot. */
int32_t mediasource_update_medianodes(control_block* control, player* player, int32_t ms_id,
                                      medianode* nodes, int32_t count) noexcept
    VEL_REQUIRES(player->lock);

/* Switches detection on or off in all plug-ins. [main], no lock held */
void mediasource_detection_start(control_block* control) noexcept;
void mediasource_detection_stop(control_block* control) noexcept;
}

/* The media source of an id, or null; takes registry_leaf. */
mediasource* mediasource_by_id(control_block* control, int32_t id) noexcept;

#endif
