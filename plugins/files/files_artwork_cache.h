/* A folder of pictures that is never larger than it may be. */
#ifndef LYRANE_FILES_ARTWORK_CACHE_H
#define LYRANE_FILES_ARTWORK_CACHE_H

#include <cstdint>
#include <string>

/* All pictures together, in bytes. */
constexpr int64_t FILES_ARTWORK_MOST = INT64_C(64) * 1024 * 1024;

/* What a picture is, by its first bytes: "jpg", "png", "gif" or "webp"; null: none of them. */
const char* files_artwork_kind(const std::string& begin) noexcept;

/* Keeps a picture in a folder and gives its path; one that is there already is not written again.
 * When the folder comes to hold more than `most` bytes, what was asked for the longest time ago
 * goes first, but not this one. Empty, with errno set: it cannot be kept (EFBIG: it alone is too
 * much, EINVAL: it is no picture). May throw std::bad_alloc. [any thread] */
std::string files_artwork_cache_keep(const std::string& folder, const std::string& picture,
                                     int64_t most);

#endif
