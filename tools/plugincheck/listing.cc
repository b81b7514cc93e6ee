#include "listing.h"

#include <algorithm>
#include <climits>

#include "call.h"
#include "check.h"

static constexpr size_t FOLDERS_MOST = 40;
static constexpr size_t TRACKS_MOST = 100;
static constexpr int32_t PAGE = 100;

static const char* name_of(const listing& what) {
    return what.search ? "search" : "browse";
}

static int32_t call(const listing& what, int32_t offset, int32_t* count, medianode** nodes) {
    return what.search
               ? call_search(what.session, what.filter, what.text.c_str(), offset, count, nodes)
               : call_browse(what.session, what.text.c_str(), offset, count, nodes);
}

/* What is wrong with a page; the checker may not touch the records when this says so. */
static void check_page(const listing& what, const listing_page& page, int32_t asked, bool stored) {
    const char* name = name_of(what);
    const std::string shown = node_shown(what.text);
    if (page.result != 0 && stored) {
        check_fail("%s of %s fails with %d and stores an array", name, shown.c_str(), page.result);
    }
    if (page.result == 0 && page.count < 0) {
        check_fail("%s of %s stores the count %d", name, shown.c_str(), page.count);
    }
    if (page.result == 0 && page.count > 0 && !stored) {
        check_fail("%s of %s promises %d records and stores none", name, shown.c_str(), page.count);
    }
    if (page.result == 0 && asked >= 0 && page.count > asked) {
        check_fail("%s of %s delivers %d records when asked for %d", name, shown.c_str(),
                   page.count, asked);
    }
}

listing_page listing_get(const listing& what, int32_t offset, int32_t count, bool quiet) {
    listing_page page;
    medianode* nodes = nullptr;
    page.count = count;
    page.result = call(what, offset, &page.count, &nodes);
    page.stored = nodes != nullptr;
    if (!quiet) {
        check_page(what, page, count, page.stored);
    }
    if (page.result == 0 && nodes != nullptr && page.count >= 0) {
        for (int32_t i = 0; i < page.count; ++i) {
            page.nodes.push_back(node_copy_of(nodes[i]));
        }
        free_medianodes(&nodes, page.count);
    }
    return page;
}

bool listing_all(const listing& what, int32_t size, std::vector<node_copy>* nodes) {
    nodes->clear();
    for (;;) {
        const auto offset = static_cast<int32_t>(nodes->size());
        listing_page page = listing_get(what, offset, size);
        if (page.result != 0) {
            check_fail("%s of %s from %d on fails with %d", name_of(what),
                       node_shown(what.text).c_str(), offset, page.result);
            return false;
        }
        if (page.nodes.empty()) {
            return !check_failed();
        }
        nodes->insert(nodes->end(), page.nodes.begin(), page.nodes.end());
        if (nodes->size() >= LISTING_MOST) {
            nodes->resize(LISTING_MOST);
            return !check_failed();
        }
    }
}

bool listing_same(const std::vector<node_copy>& left, const std::vector<node_copy>& right) {
    return std::equal(
        left.begin(), left.end(), right.begin(), right.end(),
        [](const node_copy& one, const node_copy& other) { return one.id == other.id; });
}

void listing_check_ids(const std::vector<node_copy>& nodes) {
    std::set<std::string> ids;
    for (size_t i = 0; i < nodes.size(); ++i) {
        if (!nodes[i].id) {
            check_fail("child %zu has no id", i);
        } else if (!ids.insert(*nodes[i].id).second) {
            check_fail("the id %s stands twice", node_shown(*nodes[i].id).c_str());
        }
    }
}

void listing_check_pages(const listing& what, const std::vector<node_copy>& whole) {
    for (const int32_t size : {1, 2, 7, INT_MAX}) {
        std::vector<node_copy> pages;
        if (whole.size() > 200 && size < 7) {
            continue; /* long enough with larger ones */
        }
        if (!listing_all(what, size, &pages)) {
            return;
        }
        if (!listing_same(pages, whole)) {
            check_fail("%zu records in pages of %d are not the %zu of the whole list", pages.size(),
                       size, whole.size());
        }
    }
}

void listing_check_limits(const listing& what, size_t size) {
    struct limit_case {
        int32_t offset;
        int32_t count;
    };
    const auto end = static_cast<int32_t>(size);
    std::vector<limit_case> cases = {{0, 0}, {INT_MAX, 1}, {INT_MAX, -1}, {INT_MAX, INT_MAX}};
    if (size < LISTING_MOST) {
        cases.insert(cases.end(), {{end, -1}, {end, 10}, {end + 1, 1}, {end + 1000, INT_MAX}});
    }
    for (const limit_case& limits : cases) {
        const listing_page page = listing_get(what, limits.offset, limits.count);
        if (page.result != 0) {
            check_fail("%s at %d of %d records, asked for %d, fails with %d", name_of(what),
                       limits.offset, end, limits.count, page.result);
        } else if (page.count > 0 && limits.count != 0) {
            check_fail("%s at %d of %d records delivers %d", name_of(what), limits.offset, end,
                       page.count);
        }
    }
}

listing_tree listing_walk(host_session* session) {
    listing_tree tree;
    node_copy top;
    top.id = "/";
    tree.folders.push_back(top);
    for (size_t i = 0; i < tree.folders.size() && tree.tracks.size() < TRACKS_MOST; ++i) {
        const listing_page page =
            listing_get({session, false, *tree.folders[i].id, nullptr}, 0, PAGE, true);
        for (const node_copy& node : page.nodes) {
            if (!node.id) {
                continue;
            }
            if (node.type == LYR_NODE_FOLDER && tree.folders.size() < FOLDERS_MOST) {
                tree.folders.push_back(node);
            } else if (node.type == LYR_NODE_AUDIO || node.type == LYR_NODE_VIDEO) {
                tree.tracks.push_back(node);
            }
        }
    }
    return tree;
}
