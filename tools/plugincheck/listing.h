/* Listings in pages, of a folder or of a search: what holds for one holds for the other. Faults go
 * to the check in progress. */
#ifndef PLUGINCHECK_LISTING_H
#define PLUGINCHECK_LISTING_H

#include <cstdint>
#include <string>
#include <vector>

#include "host.h"

struct listing {
    host_session* session = nullptr;
    bool search = false;
    std::string text;             /* the folder's id, or what is searched for */
    const char* filter = nullptr; /* of a search; may be null */
};

struct listing_page {
    int32_t result = 0;
    int32_t count = 0;   /* as it was delivered */
    bool stored = false; /* an array was handed over */
    std::vector<node_copy> nodes;
};

constexpr int32_t LISTING_MOST = 2000; /* nodes of one listing that are looked at */

/* One call; the records are copied and freed as the service frees them. A page against the contract
 * is a fault. [any thread, when quiet] */
listing_page listing_get(const listing& what, int32_t offset, int32_t count, bool quiet = false);

/* The first LISTING_MOST nodes, in pages of `size`, -1: all at once. False after a fault. */
bool listing_all(const listing& what, int32_t size, std::vector<node_copy>* nodes);

/* The ids of the nodes are there, and none twice. */
void listing_check_ids(const std::vector<node_copy>& nodes);
/* Pages of several sizes make up the list. */
void listing_check_pages(const listing& what, const std::vector<node_copy>& whole);
/* Nothing behind the end, nothing when nothing is asked for. */
void listing_check_limits(const listing& what, size_t size);
/* Whether two listings have the same ids in the same order. */
bool listing_same(const std::vector<node_copy>& left, const std::vector<node_copy>& right);

/* Folders and tracks of a media source, the first of each kind, from the top down. */
struct listing_tree {
    std::vector<node_copy> folders;
    std::vector<node_copy> tracks;
};
listing_tree listing_walk(host_session* session);

#endif
