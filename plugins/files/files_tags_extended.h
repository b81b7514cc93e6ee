/* What is known of a node beside its metadata, by the names of docs/plugins.md. */
#ifndef LYRANE_FILES_TAGS_EXTENDED_H
#define LYRANE_FILES_TAGS_EXTENDED_H

#include "files_listing.h"
#include "files_source.h"

/* Stores a malloc()ed text for each of the keys, which end with null, that is known and has a value
 * for the node; the values of the others stay as they are. The id is that of a node which exists.
 * False when the call was cancelled. May throw std::bad_alloc; what is stored by then is the
 * caller's, too. */
bool files_tags_extended_read(const files_source& source, const char* id, const char* const* keys,
                              const files_cancel& cancel, char** values);

#endif
