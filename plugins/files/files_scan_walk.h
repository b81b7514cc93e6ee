/* Looking through a source, or a folder of it. */
#ifndef LYRANE_FILES_SCAN_WALK_H
#define LYRANE_FILES_SCAN_WALK_H

#include <set>
#include <string>

#include "files_index.h"
#include "files_listing.h"
#include "files_scan_watch.h"
#include "files_source.h"

struct files_scan_task {
    files_source_ref source;
    files_index_ref index;
    bool whole = false;            /* all folders */
    std::set<std::string> folders; /* else these, by their ids, with those below that are new */
};

/* Brings the index up to date; what was found comes to be visible from time to time. Ends early
 * when it is cancelled, when the source goes, or when the index cannot be written, which is
 * logged. May throw std::bad_alloc. */
void files_scan_walk(const files_scan_task& task, const files_cancel& cancel,
                     files_scan_watch* watch);

/* The number under which a folder stands in the times of an index. */
uint64_t files_scan_key(const std::string& id) noexcept;

#endif
