/* The folder of what the plug-in can make again. */
#ifndef LYRANE_FILES_CACHE_H
#define LYRANE_FILES_CACHE_H

#include <string>

#include <sys/types.h>

#include "files_settings.h"

/* A folder of the cache, made with all that it stands in if it is not there. Empty, with errno set,
 * when there is no cache or it cannot be made. May throw std::bad_alloc. [any thread] */
std::string files_cache_folder(const files_settings& settings, const char* name, mode_t mode);

#endif
