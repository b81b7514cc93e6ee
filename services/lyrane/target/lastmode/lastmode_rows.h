/* The saved rows of players whose track session has not come back: they stay in the database as
 * they are.
 *
 * Rows wait from the start on until their restore thread is over with them. They name the player
 * by a pin, so that no later player is taken for it. Records are never freed: there are as many as
 * players were restored. */
#ifndef LYRANE_LASTMODE_ROWS_H
#define LYRANE_LASTMODE_ROWS_H

#include <cstdint>

#include "player.h"

struct lastmode_rows {
    ::player* player;    /* pinned; null once they are over, and of those without a player */
    char* name;          /* of those without a player, owned; else null. Constant */
    int64_t ts_id;       /* the id that the rows have now */
    lastmode_rows* next; /* made before this one; constant */
};

/* The rows of a player that is being restored. Without memory the process ends. [main] */
lastmode_rows* lastmode_rows_add(player* player, int64_t ts_id) noexcept;

/* The rows of a player that could not be opened; they stay to the end. Without memory the process
 * ends. [main] */
void lastmode_rows_add_lost(const char* name, int64_t ts_id) noexcept;

/* Those rows one by one: the first (`after` null) or the next, or null. [any thread] */
lastmode_rows* lastmode_rows_lost(const lastmode_rows* after) noexcept;

/* The rows need not stay any longer. Accepts null. No player lock is held. */
void lastmode_rows_over(lastmode_rows* rows) noexcept;

/* The rows that stay for a player, or null. [any thread] */
lastmode_rows* lastmode_rows_of(const player* player) noexcept;

/* The id that the rows have in the database; the only thread that saves changes it. */
int64_t lastmode_rows_id(const lastmode_rows* rows) noexcept;
void lastmode_rows_set_id(lastmode_rows* rows, int64_t ts_id) noexcept;

#endif
