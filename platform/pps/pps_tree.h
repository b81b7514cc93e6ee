/* Removal of files and directories below a held directory, never through a link. */
#ifndef VELORAN_PPS_TREE_H
#define VELORAN_PPS_TREE_H

#include <cstdint>

/* Removes a file, a link, or a directory with all it holds. 0, or -1 with errno set and what could
 * not be removed left in place; ENOENT when there is nothing. */
int32_t pps_tree_remove_entry(int32_t place, const char* name) noexcept;

#endif
