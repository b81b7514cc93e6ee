/* What is known of all tracks of a source, in a database in the cache.
 *
 * There is one database for each source, named after its uid, so that a drive that comes back is
 * known whatever its mount point. Threads that look something up share one connection; the scan
 * writes through another, and neither waits for the other. Whatever happens to the file, the index
 * can be made again: one that is damaged, or of another version, is thrown away. */
#ifndef LYRANE_FILES_INDEX_H
#define LYRANE_FILES_INDEX_H

#include <atomic>
#include <memory>
#include <string>
#include <unordered_map>

#include <sqlite3.h>

#include <veloran/lock.h>

#include "files_source.h"

/* Databases of sources that were there once; beyond that the one not used for longest goes. */
constexpr size_t FILES_INDEX_DATABASES = 64;

/* Closes a connection, with the last of its statements. */
struct files_index_close {
    void operator()(sqlite3* database) const noexcept { sqlite3_close_v2(database); }
};
using files_index_database = std::unique_ptr<sqlite3, files_index_close>;

struct files_index_finalize {
    void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
};
using files_index_statement = std::unique_ptr<sqlite3_stmt, files_index_finalize>;

struct files_index {
    std::string uid;                                /* immutable; of the source */
    std::shared_ptr<const files_settings> settings; /* immutable */
    std::atomic<bool> damaged = false;      /* found by a look-up; the next scan makes it anew */
    std::atomic<bool> unread_known = false; /* its files that are not read were looked up */

    vel_mutex read_lock = {}; /* held while something is looked up */
    files_index_database reader VEL_GUARDED_BY(read_lock);

    vel_mutex times_lock = {}; /* held for moments only */
    /* When the folders had last changed that the scan has seen, by a hash of their ids. */
    std::unordered_map<uint64_t, int64_t> times VEL_GUARDED_BY(times_lock);
    bool complete VEL_GUARDED_BY(times_lock) = false; /* all folders have been seen */
    pthread_cond_t completed = PTHREAD_COND_INITIALIZER;
};

using files_index_ref = std::shared_ptr<files_index>;

/* The index of a source, the same for every record of it; null: the settings want none. May throw
 * std::bad_alloc. [any thread] */
files_index_ref files_index_of(const files_source& source);

/* A time in nanoseconds, good for telling whether two are the same. */
inline int64_t files_index_time(int64_t seconds, int64_t nanoseconds) noexcept {
    return static_cast<int64_t>(static_cast<uint64_t>(seconds) * UINT64_C(1000000000) +
                                static_cast<uint64_t>(nanoseconds));
}

/* Opens the database for writing and makes it if it is not there; throws away what is no index of
 * ours, with a line in the log. Null, with a line, when it cannot be made. Only one thread writes.
 * May throw std::bad_alloc. */
files_index_database files_index_open(files_index* index);
/* Throws the database away. No connection for writing is open. */
void files_index_discard(files_index* index);

/* Prepares a connection for a look-up if there is none, with `read_lock` held; null: there is no
 * database yet. */
sqlite3* files_index_reader(files_index* index) VEL_REQUIRES(index->read_lock);

/* True for results of SQLite that only a new database helps against. */
bool files_index_is_damage(int code) noexcept;
/* One line in the log, until a scan has come to its end again. */
void files_index_log_failure(const files_index& index, sqlite3* database);
void files_index_log_success() noexcept;

/* Prepares a statement; null on failure. */
files_index_statement files_index_prepare(sqlite3* database, const char* text) noexcept;
/* A text of a row, empty for null. */
std::string files_index_text(sqlite3_stmt* statement, int column);
/* Binds a text, which stays the caller's and is not copied: it lives until the next reset. */
void files_index_bind(sqlite3_stmt* statement, int place, const std::string& text) noexcept;

/* The id of a file by its folder's id and its name. */
std::string files_index_id(const std::string& folder, const std::string& file);

#endif
