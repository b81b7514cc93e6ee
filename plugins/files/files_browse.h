/* The browse half of the plug-in. */
#ifndef LYRANE_FILES_BROWSE_H
#define LYRANE_FILES_BROWSE_H

#include <lyrane/plugin.h>

/* Most records of one page. */
constexpr int32_t FILES_PAGE_MOST = 1000;
/* Folders are counted through only where there are few of them beside each other, and a folder
 * with more entries than this has no count (0). */
constexpr int32_t FILES_COUNTED_FOLDERS = 32;
constexpr int32_t FILES_COUNTED_ENTRIES = 10000;

extern const lyr_browse_api files_browse_table;

#endif
