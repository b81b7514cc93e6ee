/* Times of the monotonic clock. */
#ifndef LYRANE_LASTMODE_TIME_H
#define LYRANE_LASTMODE_TIME_H

#include <cstdint>
#include <ctime>

inline timespec lastmode_now(void) noexcept {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

/* `ms` milliseconds, at least 0, later. */
inline timespec lastmode_after(timespec time, int64_t ms) noexcept {
    time.tv_sec += static_cast<time_t>(ms / 1000);
    time.tv_nsec += static_cast<long>(ms % 1000) * 1000000;
    if (time.tv_nsec >= 1000000000L) {
        time.tv_nsec -= 1000000000L;
        ++time.tv_sec;
    }
    return time;
}

inline int64_t lastmode_ms_between(const timespec& from, const timespec& to) noexcept {
    return int64_t{to.tv_sec - from.tv_sec} * 1000 + (to.tv_nsec - from.tv_nsec) / 1000000;
}

#endif
