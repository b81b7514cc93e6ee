/* Nodes that were saved by an earlier run. */
#ifndef LYRANE_FILES_NODE_UPDATE_H
#define LYRANE_FILES_NODE_UPDATE_H

#include <cstdint>
#include <string>

#include <lyrane/records.h>

#include "files_listing.h"
#include "files_source.h"

/* Players wait for this, and whoever wants something of them. */
constexpr int32_t FILES_UPDATE_MOST = 1500;

/* Brings saved nodes up to date, in place: the source's present id and uid, and where each file is
 * now. The id of a node is its path within the source, so it holds wherever the source is mounted.
 * A node whose file is gone, and is not found elsewhere, stays as it is, so that the others keep
 * their indexes; it will be refused when it is to be played. For a file that the index knows the
 * first look through the source is waited for, FILES_UPDATE_MOST ms at most, and not
 * when the call is cancelled. False when the source itself goes meanwhile. May throw
 * std::bad_alloc; every node is whole then. */
bool files_node_update(const files_source& source, const files_cancel& cancel, int32_t count,
                       medianode* nodes);

#endif
