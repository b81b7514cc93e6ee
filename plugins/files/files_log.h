/* Lines of the plug-in in the service's log. */
#ifndef LYRANE_FILES_LOG_H
#define LYRANE_FILES_LOG_H

#include <cstdint>

/* Writes "files: " and the text through the service's log, or to the standard error when the
 * program that loaded the plug-in has none. `level` is 3 (warning) or more. [any thread] */
void files_log(int32_t level, const char* text) noexcept;

#endif
