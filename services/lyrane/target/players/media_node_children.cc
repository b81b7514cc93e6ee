/* The children of a folder, gathered page by page from a plug-in that may not keep its word. */
#include "trksession_build.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "msglog.h"
#include "plugin_call.h"

/* What has been gathered. `offset` counts what the plug-in delivered, `count` what was kept. */
struct listing {
    medianode* nodes;
    int32_t count;
    int32_t capacity;
    int32_t offset;
    char* first_id; /* of the last page; owned */
};

static void listing_free(listing* list) noexcept {
    free_medianodes(&list->nodes, list->count);
    free(list->first_id);
    list->first_id = nullptr;
}

static void listing_reserve(listing* list, int32_t more) noexcept {
    const int64_t needed = static_cast<int64_t>(list->count) + more;
    if (needed <= list->capacity) {
        return;
    }
    /* By half at least, so that a plug-in with pages of one does not make it quadratic. */
    const int64_t grown = list->capacity + static_cast<int64_t>(list->capacity) / 2;
    const int64_t wanted = needed > grown ? needed : grown;
    void* moved = realloc(list->nodes, static_cast<size_t>(wanted) * sizeof(medianode));
    if (moved == nullptr) {
        msglog(1, "Cannot allocate memory: %s", "get_media_node_children_v2");
        return;
    }
    list->nodes = static_cast<medianode*>(moved);
    list->capacity = static_cast<int32_t>(wanted > INT32_MAX ? INT32_MAX : wanted);
}

/* Takes over a page: records without an id cannot be named and are dropped. */
static void listing_append(listing* list, medianode* page, int32_t count,
                           const char* mn_id) noexcept {
    listing_reserve(list, count);
    for (int32_t i = 0; i < count; ++i) {
        if (page[i].id != nullptr) {
            list->nodes[list->count] = page[i];
            ++list->count;
        } else {
            msglog(3, "Plug-in delivered a child of %s without an id", mn_id);
            free_medianode_contents(&page[i]);
        }
    }
    list->offset += count;
    free(page);
}

/* True when a page begins as the one before it did: the plug-in does not look at the offset, and
 * would go on like that for ever. */
static bool listing_repeats(listing* list, const medianode* page, const char* mn_id) noexcept {
    const char* first = page[0].id != nullptr ? page[0].id : "";
    if (list->first_id != nullptr && strcmp(list->first_id, first) == 0) {
        msglog(3, "Plug-in delivers the same children of %s again and again", mn_id);
        return true;
    }
    free(list->first_id);
    list->first_id = strdup(first);
    return false;
}

int32_t media_node_children(const mediasource_session* session, const char* mn_id, int32_t* limit,
                            medianode** nodes, const std::atomic<int32_t>* cancelled) noexcept {
    listing list = {};
    *nodes = nullptr;
    for (;;) {
        int32_t count = *limit == -1 ? -1 : *limit - list.offset;
        medianode* page = nullptr;
        const bool stopped = cancelled != nullptr && *cancelled != 0;
        if (stopped || plugin_call_browse(session, mn_id, list.offset, &count, &page) != 0 ||
            count > INT32_MAX - list.offset) {
            if (!stopped) {
                msglog(3, "Browsing %s failed.", mn_id);
            }
            free_medianodes(&page, page != nullptr ? count : 0);
            listing_free(&list);
            return -1;
        }
        if (count == 0) {
            break;
        }
        if (listing_repeats(&list, page, mn_id)) {
            free_medianodes(&page, count);
            break;
        }
        listing_append(&list, page, count, mn_id);
    }
    free(list.first_id);
    *nodes = list.nodes;
    *limit = list.count;
    return 0;
}

extern "C" {

int32_t get_media_node_children_v2(const mediasource_session* session, const char* mn_id,
                                   int32_t* limit, medianode** nodes) noexcept {
    return media_node_children(session, mn_id, limit, nodes, nullptr);
}
}
