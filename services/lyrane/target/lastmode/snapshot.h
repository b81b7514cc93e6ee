/* What a save writes, copied first, so that nothing is locked while it is written. */
#ifndef LYRANE_SNAPSHOT_H
#define LYRANE_SNAPSHOT_H

#include <cstdint>

#include "control.h"
#include "lastmode_rows.h"
#include "player.h"
#include "trksession.h"

/* One player; either `rows` or a session. */
struct saved_player {
    char* name;            /* owned */
    lastmode_rows* rows;   /* its session has not come back: what is in the database stays */
    ::trksession* session; /* held for its tracks and texts, until snapshot_let_go */
    const char* mn_id;     /* the session's */
    uint64_t ts_id;        /* of the rows or the session */
    int32_t status;
    int32_t shuffle_mode;
    int32_t repeat_mode;
    float playback_rate;
    int32_t length; /* tracks when the copy was made; a build may have appended more since */
    int32_t trk_id;
    int32_t trk_pos;
    trksession_draw drawn;
};

struct snapshot {
    saved_player* players; /* owned; in the order of the registry */
    int32_t count;
};

/* Copies every player that has a session or rows that stay. Each is copied under its lock, so that
 * a command is either done or not begun. A player that stays locked for a fifth of a second, by a
 * plug-in that does not return, is copied as it was in `before` (null: nothing was), or else as it
 * is, and *is_whole becomes false. Without memory the process ends. [any thread], no lock
 * held */
snapshot snapshot_take(control_block* control, const snapshot* before, bool* is_whole) noexcept;

/* Whether both play in the order of the same draw. */
bool snapshot_same_order(const saved_player* one, const saved_player* other) noexcept;

/* Whether one player would be saved as the same rows. */
bool snapshot_same_player(const saved_player* one, const saved_player* other) noexcept;

/* Whether both would be saved as the same rows. */
bool snapshot_same(const snapshot* one, const snapshot* other) noexcept;

/* The entry of a session or of rows with that id; null: none. */
const saved_player* snapshot_find(const snapshot* snapshot, uint64_t ts_id) noexcept;

/* Gives the holds of the sessions back; the numbers stay. */
void snapshot_let_go(snapshot* snapshot) noexcept;

/* Drops all entries from `count` on. */
void snapshot_shorten(snapshot* snapshot, int32_t count) noexcept;

/* Releases everything and empties the record. */
void snapshot_free(snapshot* snapshot) noexcept;

#endif
