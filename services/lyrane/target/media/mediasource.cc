/* Look-ups in the registry and the queries of media sources. */
#include "mediasource.h"

#include <cerrno>
#include <cstdlib>

#include "ascii.h"
#include "msglog.h"
#include "plugin_call.h"
#include "plugin_load.h"

mediasource* mediasource_by_id(control_block* control, int32_t id) noexcept {
    vel_lock_guard guard(control->registry_leaf);
    const int32_t position = mediasources_find_by_id(0, &control->mediasources, id);
    return position < 0 ? nullptr
                        : static_cast<mediasource*>(control->mediasources.items[position]);
}

/* What a query says of a source that it cannot use; the words differ from query to query. */
struct query_texts {
    const char* unknown;
    const char* inactive;
    uint64_t capability;
    const char* unsupported;
};

static const query_texts browse_texts = {"The media source is not connected",
                                         "The media source is not active", LYR_CAP_BROWSE,
                                         "The media source does not support browsing"};
static const query_texts search_texts = {"The requested media_source is not connected",
                                         "The media_source is not active", LYR_CAP_SEARCH,
                                         "The media_source does not support searching"};
static const query_texts metadata_texts = {"The requested media_source is not connected",
                                           "The media_source is not active", LYR_CAP_METADATA,
                                           "The media_source does not support metadata"};
static const query_texts extended_metadata_texts = {
    "The requested media_source is not connected", "The media_source is not active",
    LYR_CAP_EXTENDED_METADATA, "The media_source does not support extended_metadata"};
static const query_texts update_texts = {"The media source is not connected",
                                         "The media source is not active", 0, ""};

static int32_t refuse(int32_t error, const char* text) noexcept {
    msglog(3, "%s", text);
    errno = error;
    return -1;
}

/* A connected source, or null with the message and errno of the query. */
static mediasource* connected_source(control_block* control, int32_t ms_id,
                                     const query_texts* texts) noexcept {
    mediasource* source = mediasource_by_id(control, ms_id);
    if (source == nullptr) {
        (void)refuse(ENODEV, texts->unknown);
        return nullptr;
    }
    if (mediasource_active(source) == 0) {
        (void)refuse(ENODEV, texts->inactive);
        return nullptr;
    }
    return source;
}

/* The player's session on a source that has the query's capability, or null likewise. */
static mediasource_session* session_for(control_block* control, player* player, mediasource* source,
                                        const query_texts* texts) noexcept
    VEL_REQUIRES(player->lock) {
    if ((mediasource_capabilities(source) & texts->capability) != texts->capability) {
        (void)refuse(ENOTSUP, texts->unsupported);
        return nullptr;
    }
    mediasource_session* session = mediasource_get_session(control, player, source);
    if (!plugin_call_can_browse(session)) {
        (void)refuse(ENOTSUP, "Cannot get a valid media source session");
        return nullptr;
    }
    return session;
}

static int32_t check_range(int32_t offset, int32_t limit) noexcept {
    return offset < 0 || limit < -1 ? refuse(EINVAL, "Invalid offset or limit") : 0;
}

extern "C" {

int32_t mediasources_find_by_id(int32_t ignored, const pointer_array* list, int32_t id) noexcept {
    (void)ignored;
    for (int32_t i = 0; i < list->count; ++i) {
        if (static_cast<const mediasource*>(list->items[i])->id == id) {
            return i;
        }
    }
    return -1;
}

int32_t mediasources_find_by_pid_uid(int32_t ignored, const pointer_array* list, int32_t plugin_id,
                                     const char* uid) noexcept {
    (void)ignored;
    for (int32_t i = 0; i < list->count; ++i) {
        const mediasource* source = static_cast<const mediasource*>(list->items[i]);
        if (source->plugin_id == plugin_id && ascii_equal_nocase(source->uid, uid)) {
            return i;
        }
    }
    return -1;
}

int32_t mediasources_find_by_pname_uid(int32_t ignored, const pointer_array* list,
                                       const char* plugin_name, const char* uid) noexcept {
    (void)ignored;
    for (int32_t i = 0; i < list->count; ++i) {
        const mediasource* source = static_cast<const mediasource*>(list->items[i]);
        if (ascii_equal_nocase(source->plugin_name, plugin_name) &&
            ascii_equal_nocase(source->uid, uid)) {
            return i;
        }
    }
    return -1;
}

int32_t mediasource_browse(control_block* control, player* player, int32_t ms_id,
                           const char* node_id, int32_t offset, int32_t* count,
                           medianode** nodes) noexcept {
    *nodes = nullptr;
    if (node_id == nullptr) {
        msglog(3, "The media node id to be searched is NULL");
        *count = 0;
        return 0;
    }
    mediasource* source = connected_source(control, ms_id, &browse_texts);
    if (source == nullptr || check_range(offset, *count) != 0) {
        return -1;
    }
    mediasource_session* session = session_for(control, player, source, &browse_texts);
    return session == nullptr ? -1 : plugin_call_browse(session, node_id, offset, count, nodes);
}

int32_t mediasource_search(control_block* control, player* player, int32_t ms_id,
                           const char* filter, const char* key, int32_t offset, int32_t* count,
                           medianode** nodes) noexcept {
    *nodes = nullptr;
    if (key == nullptr) {
        msglog(3, "the key to be searched is NULL");
        *count = 0;
        return 0;
    }
    mediasource* source = connected_source(control, ms_id, &search_texts);
    if (source == nullptr || check_range(offset, *count) != 0) {
        return -1;
    }
    mediasource_session* session = session_for(control, player, source, &search_texts);
    return session == nullptr ? -1 : plugin_call_search(session, filter, key, offset, count, nodes);
}

int32_t mediasource_get_metadata(control_block* control, player* player, int32_t ms_id,
                                 const char* node_id, metadata** data) noexcept {
    *data = nullptr;
    if (node_id == nullptr) {
        msglog(3, "The media node id to retrieve extended metadata is NULL");
        return 0;
    }
    mediasource* source = connected_source(control, ms_id, &metadata_texts);
    if (source == nullptr) {
        return -1;
    }
    mediasource_session* session = session_for(control, player, source, &metadata_texts);
    return session == nullptr ? -1 : plugin_call_get_metadata(session, node_id, data);
}

int32_t mediasource_get_extended_metadata(control_block* control, player* player, int32_t ms_id,
                                          const char* node_id, const char* const* keys,
                                          char** values) noexcept {
    msglog(7, "mediasource_get_extended_metadata ..");
    if (node_id == nullptr) {
        msglog(3, "The media node id to retrieve extended metadata is NULL");
        return -1;
    }
    mediasource* source = connected_source(control, ms_id, &extended_metadata_texts);
    if (source == nullptr) {
        return -1;
    }
    mediasource_session* session = session_for(control, player, source, &extended_metadata_texts);
    return session == nullptr ? -1
                              : plugin_call_get_extended_metadata(session, node_id, keys, values);
}

int32_t mediasource_update_medianodes(control_block* control, player* player, int32_t ms_id,
                                      medianode* nodes, int32_t count) noexcept {
    mediasource* source = connected_source(control, ms_id, &update_texts);
    if (source == nullptr) {
        return -1;
    }
    mediasource_session* session = session_for(control, player, source, &update_texts);
    return session == nullptr ? -1 : plugin_call_update_medianodes(session, count, nodes);
}

void mediasource_detection_start(control_block* control) noexcept {
    plugins_set_mediasource_detection(control, 1);
}

void mediasource_detection_stop(control_block* control) noexcept {
    plugins_set_mediasource_detection(control, 0);
}
}
