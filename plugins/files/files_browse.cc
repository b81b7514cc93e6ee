/* The browse half of the plug-in: sessions, pages, metadata.
 *
 * A session keeps the sorted listings of the folders that were read last, so that paging through a
 * large folder reads it once. Two threads may be inside one session: the lock guards the short
 * list of listings and is never held while a folder is read. */
#include "files_browse.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include <veloran/lock.h>

#include "files_artwork.h"
#include "files_browse_page.h"
#include "files_index.h"
#include "files_index_search.h"
#include "files_listing.h"
#include "files_node.h"
#include "files_node_update.h"
#include "files_reader.h"
#include "files_scan.h"
#include "files_source.h"
#include "files_tags.h"
#include "files_tags_extended.h"
#include "files_virtual.h"

/* Listings that a session keeps, and how many entries they may have together. */
static constexpr size_t KEPT_LISTINGS = 4;
static constexpr size_t KEPT_ENTRIES = 250000;

struct kept_listing {
    std::string id;
    files_listing_ref listing;
};

struct kept_virtual {
    std::string id;
    files_virtual_listing listing;
};

struct browse_session {
    files_source_ref source;           /* immutable */
    files_index_ref index;             /* immutable; null: there is none */
    std::atomic<uint32_t> cancels = 0; /* calls of cancel_browse */
    vel_mutex lock = {};
    std::vector<kept_listing> kept VEL_GUARDED_BY(lock); /* the one used last stands first */
    kept_virtual kept_last VEL_GUARDED_BY(lock);         /* the one that was begun last */
};

static browse_session* session_of(void* handle) noexcept {
    return static_cast<browse_session*>(handle);
}

static files_cancel cancel_of(const browse_session& session) noexcept {
    return {&session.cancels, session.cancels.load(), &session.source->gone};
}

/* --- listings ------------------------------------------------------------------------------- */

static files_listing_ref find_kept(browse_session* session, const char* id) {
    vel_lock_guard hold(session->lock);
    for (size_t i = 0; i < session->kept.size(); ++i) {
        if (session->kept[i].id == id) {
            const auto at = session->kept.begin() + static_cast<ptrdiff_t>(i);
            std::rotate(session->kept.begin(), at, at + 1);
            return session->kept.front().listing;
        }
    }
    return nullptr;
}

/* Keeps a listing in the place of an earlier one of the folder, and drops what is too much. */
static void keep(browse_session* session, const char* id, files_listing_ref listing) {
    vel_lock_guard hold(session->lock);
    std::erase_if(session->kept, [id](const kept_listing& entry) { return entry.id == id; });
    session->kept.insert(session->kept.begin(), {id, std::move(listing)});
    size_t count = 0;
    size_t entries = 0;
    for (const kept_listing& entry : session->kept) {
        entries += entry.listing->entries.size();
        if (count == KEPT_LISTINGS || (count > 0 && entries > KEPT_ENTRIES)) {
            break;
        }
        ++count;
    }
    session->kept.resize(count);
}

/* The listing of a folder. A walk begins with a new one when the folder has changed, and goes on
 * with the one it began with. */
static files_listing_ref listing_of(browse_session* session, const char* id, int32_t offset,
                                    const files_cancel& cancel) {
    files_listing_ref listing = find_kept(session, id);
    if (listing != nullptr && (offset > 0 || files_listing_fresh(*session->source, id, *listing))) {
        return listing;
    }
    listing = files_listing_read(*session->source, id, cancel);
    if (listing != nullptr) {
        keep(session, id, listing);
        if (session->index != nullptr) {
            files_scan_noticed(session->source, session->index, id, listing->changed);
        }
    }
    return listing;
}

/* --- pages ---------------------------------------------------------------------------------- */

/* Makes the records of a part of a listing; null when the call was cancelled. */
static files_browse_page make_page(const browse_session& session, const files_listing& listing,
                                   const std::string& prefix, int32_t offset, int32_t count,
                                   const files_cancel& cancel) {
    const auto size = static_cast<size_t>(count);
    files_browse_page nodes = files_browse_new_page(count);
    for (size_t i = 0; i < size; ++i) {
        if (files_cancelled(cancel)) {
            return nullptr;
        }
        const files_entry& entry = listing.entries[static_cast<size_t>(offset) + i];
        medianode* node = nodes.get() + i;
        const char* name = &listing.names[entry.name];
        files_browse_fill(*session.source, prefix + name, name, node);
        node->type = entry.type;
        if (entry.type == LYR_NODE_FOLDER && listing.folders <= FILES_COUNTED_FOLDERS) {
            node->count = files_listing_count(*session.source, node->id, FILES_COUNTED_ENTRIES);
        }
    }
    return nodes;
}

/* Reads one page; -1 when there is no such folder or the call was cancelled. */
static int32_t read_page(browse_session* session, const char* id, int32_t offset, int32_t* count,
                         medianode** nodes) {
    const files_cancel cancel = cancel_of(*session);
    const files_listing_ref listing = listing_of(session, id, offset, cancel);
    if (listing == nullptr) {
        return -1;
    }
    const auto total = static_cast<int32_t>(listing->entries.size());
    const int32_t wanted = *count < 0 ? FILES_PAGE_MOST : std::min(*count, FILES_PAGE_MOST);
    const int32_t delivered = std::clamp(total - offset, 0, wanted);
    if (delivered > 0) {
        const std::string prefix = id[1] == '\0' ? id : std::string(id) + '/';
        files_browse_page page = make_page(*session, *listing, prefix, offset, delivered, cancel);
        if (page == nullptr) {
            return -1;
        }
        *nodes = page.release();
    }
    *count = delivered;
    return 0;
}

/* --- virtual folders ------------------------------------------------------------------------ */

/* A walk goes on with what it began with, unless another one was begun in between. */
static files_virtual_listing virtual_listing(browse_session* session, const char* id,
                                             int32_t offset, const files_cancel& cancel) {
    if (offset > 0) {
        vel_lock_guard hold(session->lock);
        if (session->kept_last.id == id) {
            return session->kept_last.listing;
        }
    }
    files_virtual_listing listing =
        files_virtual_read(*session->source, session->index.get(), id, cancel);
    vel_lock_guard hold(session->lock);
    session->kept_last = {id, listing};
    return listing;
}

static int32_t read_virtual_page(browse_session* session, const char* id, int32_t offset,
                                 int32_t* count, medianode** nodes) {
    const files_cancel cancel = cancel_of(*session);
    const files_virtual_listing listing = virtual_listing(session, id, offset, cancel);
    if (listing == nullptr) {
        return -1;
    }
    const auto total = static_cast<int32_t>(listing->size());
    const int32_t wanted = *count < 0 ? FILES_PAGE_MOST : std::min(*count, FILES_PAGE_MOST);
    *count = std::clamp(total - offset, 0, wanted);
    files_browse_page page = files_browse_new_page(*count);
    for (int32_t i = 0; i < *count; ++i) {
        const files_virtual_node& node = (*listing)[static_cast<size_t>(offset + i)];
        medianode* filled = page.get() + i;
        files_browse_fill(*session->source, node.id, node.name, filled);
        filled->type = node.type;
        filled->count = node.count;
    }
    *nodes = page.release();
    return 0;
}

static int32_t files_browse(void* handle, const char* node_id, int32_t offset, int32_t* count,
                            medianode** nodes) noexcept {
    const bool is_virtual = files_virtual_is(node_id);
    if (!(is_virtual || files_node_id_valid(node_id)) || offset < 0 || *count < -1) {
        return -1;
    }
    if (*count == 0) {
        return 0;
    }
    try {
        return (is_virtual ? read_virtual_page : read_page)(session_of(handle), node_id, offset,
                                                            count, nodes);
    } catch (...) {
        return -1;
    }
}

/* --- search --------------------------------------------------------------------------------- */

static files_browse_page make_found(const browse_session& session,
                                    const std::vector<files_index_hit>& hits) {
    files_browse_page nodes = files_browse_new_page(static_cast<int32_t>(hits.size()));
    for (size_t i = 0; i < hits.size(); ++i) {
        files_browse_fill(*session.source, hits[i].id, files_source_last_part(hits[i].id),
                          nodes.get() + i);
        nodes.get()[i].type = hits[i].type;
    }
    return nodes;
}

static int32_t search_page(browse_session* session, const char* filter, const char* key,
                           int32_t offset, int32_t* count, medianode** nodes) {
    const files_cancel cancel = cancel_of(*session);
    const int32_t most = *count < 0 ? FILES_PAGE_MOST : std::min(*count, FILES_PAGE_MOST);
    std::vector<files_index_hit> hits;
    if (session->index != nullptr) {
        const bool found =
            files_index_search(session->index.get(), filter, key, offset, most, cancel, &hits);
        if (session->index->damaged) {
            files_scan_add(session->source);
        }
        if (!found) {
            return -1;
        }
    }
    *nodes = make_found(*session, hits).release();
    *count = static_cast<int32_t>(hits.size());
    return 0;
}

static int32_t files_search(void* handle, const char* filter, const char* key, int32_t offset,
                            int32_t* count, medianode** nodes) noexcept {
    if (key == nullptr || offset < 0 || *count < -1) {
        return -1;
    }
    try {
        return search_page(session_of(handle), filter, key, offset, count, nodes);
    } catch (...) {
        return -1;
    }
}

static int32_t files_cancel_browse(void* handle) noexcept {
    session_of(handle)->cancels.fetch_add(1);
    return 0;
}

/* --- metadata and saved nodes --------------------------------------------------------------- */

struct free_record {
    void operator()(metadata* record) const noexcept { free_metadata(&record); }
};
using metadata_owner = std::unique_ptr<metadata, free_record>;

/* Null: cancelled. */
static metadata_owner describe(const browse_session& session, const char* node_id) {
    const files_source& source = *session.source;
    files_reader_found found;
    const files_reader_wish wish = {FILES_READ_RECORD | FILES_READ_PICTURE, 0};
    if (files_reader_ask(source, node_id, wish, cancel_of(session), &found) ==
        files_reader_end::cancelled) {
        return nullptr;
    }
    files_scan_remember(session.source, session.index);
    metadata_owner record(files_tags_record(found, node_id));
    const std::string artwork = files_artwork_uri(source, node_id, found.picture);
    if (!artwork.empty()) {
        record->artwork = files_browse_copy(artwork);
    }
    return record;
}

static int32_t files_get_metadata(void* handle, const char* node_id, metadata** data) noexcept {
    try {
        const files_source& source = *session_of(handle)->source;
        if (files_virtual_is(node_id)) {
            return 0;
        }
        const int32_t type = files_node_id_valid(node_id) ? files_node_type(source, node_id) : 0;
        if (type == 0) {
            return -1;
        }
        if (type == LYR_NODE_FOLDER) {
            return 0;
        }
        *data = describe(*session_of(handle), node_id).release();
        return *data != nullptr ? 0 : -1;
    } catch (...) {
        return -1;
    }
}

static int32_t files_get_extended_metadata(void* handle, const char* node_id,
                                           const char* const* keys, char** values) noexcept {
    try {
        const files_source& source = *session_of(handle)->source;
        if (files_virtual_is(node_id)) {
            return 0;
        }
        if (!files_node_id_valid(node_id) || files_node_type(source, node_id) == 0) {
            return -1;
        }
        const browse_session& session = *session_of(handle);
        const bool read =
            files_tags_extended_read(source, node_id, keys, cancel_of(session), values);
        files_scan_remember(session.source, session.index);
        return read ? 0 : -1;
    } catch (...) {
        return -1;
    }
}

static int32_t files_update_medianodes(void* handle, int32_t count, medianode* nodes) noexcept {
    try {
        browse_session* session = session_of(handle);
        const files_cancel cancel = cancel_of(*session);
        return files_node_update(*session->source, cancel, count, nodes) ? 0 : -1;
    } catch (...) {
        return -1;
    }
}

/* --- sessions ------------------------------------------------------------------------------- */

static void* files_browse_create(int32_t ms_id, void*) noexcept {
    files_source_ref source = files_source_find_own(ms_id);
    if (source == nullptr) {
        return nullptr;
    }
    try {
        auto session = std::make_unique<browse_session>();
        session->index = files_index_of(*source);
        session->source = std::move(source);
        vel_mutex_init(&session->lock);
        files_reader_prepare();
        return session.release();
    } catch (...) {
        return nullptr;
    }
}

static int32_t files_browse_destroy(void* handle) noexcept {
    browse_session* session = session_of(handle);
    vel_mutex_destroy(&session->lock);
    delete session;
    return 0;
}

const lyr_browse_api files_browse_table = {
    .create = files_browse_create,
    .destroy = files_browse_destroy,
    .reserved = nullptr,
    .browse = files_browse,
    .search = files_search,
    .get_metadata = files_get_metadata,
    .get_extended_metadata = files_get_extended_metadata,
    .update_medianodes = files_update_medianodes,
    .cancel_browse = files_cancel_browse,
};
