/* The children of a folder, gathered page by page from a plug-in that may not keep its word. */
#include "trksession_build.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "msglog.h"
#include "plugin_call.h"

/* So many equal pages in a row: the plug-in does not look at the offset, and would go on like that
 * for ever. Fewer are a list in which tracks stand several times. */
static constexpr int32_t EQUAL_PAGES = 16;

/* What has been gathered. `offset` counts what the plug-in delivered, `count` what was kept. */
struct listing {
    medianode* nodes;
    int32_t count;
    int32_t capacity;
    int32_t offset;
    int32_t page_at;     /* where the last page begins in `nodes` */
    int32_t page_count;  /* records that it was delivered with */
    int32_t equal_pages; /* the last one included */
};

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
    list->page_at = list->count;
    list->page_count = count;
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

/* Whether a page has the ids of the one before. */
static bool listing_equal(const listing* list, const medianode* page, int32_t count) noexcept {
    if (count != list->page_count) {
        return false;
    }
    int32_t at = list->page_at;
    for (int32_t i = 0; i < count; ++i) {
        if (page[i].id != nullptr &&
            (at == list->count || strcmp(list->nodes[at++].id, page[i].id) != 0)) {
            return false;
        }
    }
    return at == list->count;
}

/* True when the listing has no end; of the equal pages the first one stays. */
static bool listing_endless(listing* list, const medianode* page, int32_t count,
                            const char* mn_id) noexcept {
    list->equal_pages = listing_equal(list, page, count) ? list->equal_pages + 1 : 1;
    if (list->equal_pages < EQUAL_PAGES) {
        return false;
    }
    msglog(3, "Plug-in delivers the same children of %s again and again", mn_id);
    const int32_t surplus = (EQUAL_PAGES - 2) * (list->count - list->page_at);
    for (int32_t i = 0; i < surplus; ++i) {
        free_medianode_contents(&list->nodes[--list->count]);
    }
    return true;
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
            free_medianodes(&list.nodes, list.count);
            return -1;
        }
        if (count == 0) {
            break;
        }
        if (listing_endless(&list, page, count, mn_id)) {
            free_medianodes(&page, count);
            break;
        }
        listing_append(&list, page, count, mn_id);
    }
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
