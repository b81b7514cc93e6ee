/* Arrays of media nodes that are handed over. */
#ifndef LYRANE_FILES_BROWSE_PAGE_H
#define LYRANE_FILES_BROWSE_PAGE_H

#include <cstdint>
#include <memory>
#include <string>

#include <lyrane/records.h>

#include "files_source.h"

/* Frees an array with its records, as far as they are filled. */
struct files_browse_free_page {
    int32_t count;
    void operator()(medianode* nodes) const noexcept { free_medianodes(&nodes, count); }
};
using files_browse_page = std::unique_ptr<medianode, files_browse_free_page>;

/* So many empty records; null for none. May throw std::bad_alloc. */
files_browse_page files_browse_new_page(int32_t count);

/* Fills a record but for its type and count. A virtual folder has no location. May throw
 * std::bad_alloc. */
void files_browse_fill(const files_source& source, const std::string& id, const std::string& name,
                       medianode* node);

/* A malloc()ed copy. May throw std::bad_alloc. */
char* files_browse_copy(const std::string& text);

#endif
