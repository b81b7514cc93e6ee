/* Lines of the plug-in in the service's log. */
#include "files_log.h"

#include <cstdio>

extern "C" {
/* The service's own log, which it exports with all its functions; absent in other programs. */
int32_t msglog(int32_t level, const char* format, ...) noexcept __attribute__((weak));
}

void files_log(int32_t level, const char* text) noexcept {
    if (msglog != nullptr) {
        msglog(level, "files: %s", text);
    } else {
        std::fprintf(stderr, "files: %s\n", text);
    }
}
