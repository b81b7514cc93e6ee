/* The log that the host offers to the plug-in. */
#include "host_log.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <vector>

#include <veloran/lock.h>

static constexpr time_t WAIT_SECONDS = 90;

static vel_mutex lines_lock;
static pthread_cond_t lines_changed = PTHREAD_COND_INITIALIZER;
static std::vector<std::string> lines VEL_GUARDED_BY(lines_lock);

/* What the plug-in finds in the place of the service's log. */
extern "C" int32_t msglog(int32_t level, const char* format, ...) noexcept {
    char line[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "%d %s\n", level, line);
    vel_lock_guard hold(lines_lock);
    lines.emplace_back(line);
    pthread_cond_broadcast(&lines_changed);
    return 0;
}

static int32_t count(const std::string& text) VEL_REQUIRES(lines_lock) {
    return static_cast<int32_t>(
        std::count_if(lines.begin(), lines.end(), [&text](const std::string& line) {
            return line.find(text) != std::string::npos;
        }));
}

int32_t host_log_count(const std::string& text) {
    vel_lock_guard hold(lines_lock);
    return count(text);
}

bool host_log_wait(const std::string& text, int32_t least) {
    timespec limit = {};
    clock_gettime(CLOCK_REALTIME, &limit);
    limit.tv_sec += WAIT_SECONDS;
    vel_lock_guard hold(lines_lock);
    while (count(text) < least) {
        if (pthread_cond_timedwait(&lines_changed, &lines_lock.native, &limit) == ETIMEDOUT) {
            return false;
        }
    }
    return true;
}

void host_log_forget() {
    vel_lock_guard hold(lines_lock);
    lines.clear();
}
