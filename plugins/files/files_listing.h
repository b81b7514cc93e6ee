/* The content of one folder, read and sorted. */
#ifndef LYRANE_FILES_LISTING_H
#define LYRANE_FILES_LISTING_H

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "files_source.h"

/* A folder with more entries is not listed. */
constexpr size_t FILES_ENTRIES_MOST = 1000000;

/* One call that may be told to come back early: it goes on while `count` stands at `begun` and the
 * source is there. */
struct files_cancel {
    const std::atomic<uint32_t>* count;
    uint32_t begun;
    const std::atomic<bool>* gone;
};

inline bool files_cancelled(const files_cancel& cancel) noexcept {
    return cancel.count->load(std::memory_order_relaxed) != cancel.begun ||
           cancel.gone->load(std::memory_order_relaxed);
}

/* A plain file or folder of the listing. */
struct files_entry {
    uint32_t name; /* where its name begins in the listing's names */
    int32_t type;  /* LYR_NODE_* */
};

/* Folders first, then files, each in their order. Immutable once it is read. */
struct files_listing {
    std::string names; /* all names, each with a NUL behind it */
    std::vector<files_entry> entries;
    int32_t folders = 0;   /* how many of the entries are folders */
    timespec changed = {}; /* when the folder had last changed */
    timespec read = {};    /* when it was read; both of CLOCK_REALTIME */
};

using files_listing_ref = std::shared_ptr<const files_listing>;

/* Reads a folder. Null when there is none at the id (errno set), or when the call was cancelled
 * (ECANCELED). May throw std::bad_alloc. */
files_listing_ref files_listing_read(const files_source& source, const char* id,
                                     const files_cancel& cancel);

/* True when the folder has not changed since it was read, as far as its times can tell. */
bool files_listing_fresh(const files_source& source, const char* id, const files_listing& listing);

/* Number of entries of a folder that would be listed, or 0 when it is not to be had or has more
 * than `most`. */
int32_t files_listing_count(const files_source& source, const char* id, int32_t most) noexcept;

#endif
