/* Writing a snapshot into the database. */
#ifndef LYRANE_SAVE_H
#define LYRANE_SAVE_H

#include <atomic>
#include <cstdint>

#include <veloran/sqldb.h>

#include "snapshot.h"

/* Replaces everything in the database but the rows that the snapshot keeps. Those get new ids, out
 * of the way of the ids of this run, and the snapshot gets them, too. A row that the database refuses
 * for what is in it (EINVAL, EFBIG, EEXIST) is left out. `ending` is for saves while the service
 * runs: it is null at the end, when each refused row is a warning. 0, or -1 with errno set when
 * anything else cannot be written, or ECANCELED once *ending is set; then the caller rolls back. */
int32_t save_all(sqldb_connection* connection, snapshot* now,
                 const std::atomic<bool>* ending) noexcept;

/* Brings the database from what `before` holds to `now`: a player whose position has moved costs
 * two rows, whatever the length of its session. Results as of save_all. */
int32_t save_changes(sqldb_connection* connection, const snapshot* before, const snapshot* now,
                     const std::atomic<bool>* ending) noexcept;

/* After the commit of save_all: the rows that stay are known by their new ids. */
void save_adopt_ids(const snapshot* saved) noexcept;

#endif
