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

#include "files_listing.h"
#include "files_node.h"
#include "files_source.h"
#include "files_tags.h"

/* Listings that a session keeps, and how many entries they may have together. */
static constexpr size_t KEPT_LISTINGS = 4;
static constexpr size_t KEPT_ENTRIES = 250000;

struct kept_listing {
    std::string id;
    files_listing_ref listing;
};

struct browse_session {
    files_source_ref source;           /* immutable */
    std::atomic<uint32_t> cancels = 0; /* calls of cancel_browse */
    vel_mutex lock = {};
    std::vector<kept_listing> kept VEL_GUARDED_BY(lock); /* the one used last stands first */
};

static browse_session* session_of(void* handle) noexcept {
    return static_cast<browse_session*>(handle);
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
    }
    return listing;
}

/* --- pages ---------------------------------------------------------------------------------- */

static char* copied(const std::string& text) {
    char* copy = strdup(text.c_str());
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    return copy;
}

/* Fills the strings that a node owes to its place; free_medianode_contents is the caller's. */
static void fill_node(const files_source& source, const std::string& id, medianode* node) {
    node->id = copied(id);
    node->name = copied(id.substr(id.rfind('/') + 1));
    node->url = copied(files_node_uri(source, id.c_str()));
    node->ms_id = source.ms_id;
    node->ms_type = LYR_MS_TYPE_HDD;
    node->ms_uid = copied(source.uid);
}

/* An array that is freed with its records, as far as they are filled. */
struct free_page {
    int32_t count;
    void operator()(medianode* nodes) const noexcept { free_medianodes(&nodes, count); }
};
using page_nodes = std::unique_ptr<medianode, free_page>;

/* Makes the records of a part of a listing; null when the call was cancelled. */
static page_nodes make_page(const browse_session& session, const files_listing& listing,
                            const std::string& prefix, int32_t offset, int32_t count,
                            const files_cancel& cancel) {
    const auto size = static_cast<size_t>(count);
    page_nodes nodes(static_cast<medianode*>(std::calloc(size, sizeof(medianode))), {count});
    if (nodes == nullptr) {
        throw std::bad_alloc();
    }
    for (size_t i = 0; i < size; ++i) {
        if (files_cancelled(cancel)) {
            return nullptr;
        }
        const files_entry& entry = listing.entries[static_cast<size_t>(offset) + i];
        medianode* node = nodes.get() + i;
        fill_node(*session.source, prefix + &listing.names[entry.name], node);
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
    const files_cancel cancel = {&session->cancels, session->cancels.load()};
    const files_listing_ref listing = listing_of(session, id, offset, cancel);
    if (listing == nullptr) {
        return -1;
    }
    const auto total = static_cast<int32_t>(listing->entries.size());
    const int32_t wanted = *count < 0 ? FILES_PAGE_MOST : std::min(*count, FILES_PAGE_MOST);
    const int32_t delivered = std::clamp(total - offset, 0, wanted);
    if (delivered > 0) {
        const std::string prefix = id[1] == '\0' ? id : std::string(id) + '/';
        page_nodes page = make_page(*session, *listing, prefix, offset, delivered, cancel);
        if (page == nullptr) {
            return -1;
        }
        *nodes = page.release();
    }
    *count = delivered;
    return 0;
}

static int32_t files_browse(void* handle, const char* node_id, int32_t offset, int32_t* count,
                            medianode** nodes) noexcept {
    if (!files_node_id_valid(node_id) || offset < 0 || *count < -1) {
        return -1;
    }
    if (*count == 0) {
        return 0;
    }
    try {
        return read_page(session_of(handle), node_id, offset, count, nodes);
    } catch (...) {
        return -1;
    }
}

static int32_t files_cancel_browse(void* handle) noexcept {
    session_of(handle)->cancels.fetch_add(1);
    return 0;
}

/* --- metadata and saved nodes --------------------------------------------------------------- */

static int32_t files_get_metadata(void* handle, const char* node_id, metadata** data) noexcept {
    try {
        const files_source& source = *session_of(handle)->source;
        const int32_t type = files_node_id_valid(node_id) ? files_node_type(source, node_id) : 0;
        if (type == 0) {
            return -1;
        }
        if (type != LYR_NODE_FOLDER) {
            *data = files_tags_read(files_node_path(source, node_id));
        }
        return 0;
    } catch (...) {
        return -1;
    }
}

/* Replaces a text of a record that belongs to the service. */
static void replace(char** text, char* with) noexcept {
    std::free(*text);
    *text = with;
}

/* Brings one saved node up to date. One whose file is gone has no place any more; it stays in the
 * list, so that the others keep their indexes, and will be refused when it is to be played. */
static void update_node(const files_source& source, medianode* node) {
    node->ms_id = source.ms_id;
    node->ms_type = LYR_MS_TYPE_HDD;
    const int32_t type = files_node_id_valid(node->id) ? files_node_type(source, node->id) : 0;
    replace(&node->ms_uid, copied(source.uid));
    replace(&node->url, type != 0 ? copied(files_node_uri(source, node->id)) : nullptr);
    node->type = type != 0 ? type : node->type;
}

static int32_t files_update_medianodes(void* handle, int32_t count, medianode* nodes) noexcept {
    try {
        for (int32_t i = 0; i < count; ++i) {
            update_node(*session_of(handle)->source, &nodes[i]);
        }
        return 0;
    } catch (...) {
        return -1;
    }
}

/* --- sessions ------------------------------------------------------------------------------- */

static void* files_browse_create(int32_t ms_id, void*) noexcept {
    files_source_ref source = files_source_find(ms_id);
    if (source == nullptr) {
        return nullptr;
    }
    auto* session = new (std::nothrow) browse_session;
    if (session != nullptr) {
        vel_mutex_init(&session->lock);
        session->source = std::move(source);
    }
    return session;
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
    .search = nullptr,
    .get_metadata = files_get_metadata,
    .get_extended_metadata = nullptr,
    .update_medianodes = files_update_medianodes,
    .cancel_browse = files_cancel_browse,
};
