#include "msglog_bound.h"

#include <atomic>
#include <ctime>

#include <veloran/lock.h>

namespace {

constexpr int32_t WRITERS = 32;

struct writer_count {
    msglog_writer writer;
    int64_t second; /* of the last line */
    int32_t lines;  /* in that second */
    uint64_t left_out;
};

vel_mutex lock; /* only ever tried */
writer_count counts[WRITERS] VEL_GUARDED_BY(lock);
writer_count others VEL_GUARDED_BY(lock) = {MSGLOG_WRITER_OTHERS, 0, 0, 0};
std::atomic<int32_t> gaps{0}; /* counts that have left something out */

int64_t clock_second() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

bool is_over(const writer_count& count, int64_t now) {
    return count.second != now;
}

/* The writer's own count, else one that nobody needs any more, else the common one. */
writer_count* count_of(msglog_writer writer, int64_t now) VEL_REQUIRES(lock) {
    writer_count* free = nullptr;
    for (writer_count& count : counts) {
        if (count.writer == writer && count.second != 0) {
            return &count;
        }
        if (free == nullptr && is_over(count, now) && count.left_out == 0) {
            free = &count;
        }
    }
    if (free == nullptr) {
        return &others;
    }
    *free = {writer, 0, 0, 0};
    return free;
}

bool admit(msglog_writer writer, int64_t now) VEL_REQUIRES(lock) {
    writer_count* count = count_of(writer, now);
    if (is_over(*count, now)) {
        count->second = now;
        count->lines = 0;
    }
    if (count->lines < MSGLOG_LINES_MAX) {
        count->lines++;
        return true;
    }
    if (count->left_out++ == 0) {
        gaps++;
    }
    return false;
}

msglog_gap take(writer_count* count, int64_t now) {
    if (count->left_out == 0 || !is_over(*count, now)) {
        return {};
    }
    const msglog_gap gap = {count->writer, count->left_out};
    count->left_out = 0;
    gaps--;
    return gap;
}

msglog_gap take_any(int64_t now) VEL_REQUIRES(lock) {
    for (writer_count& count : counts) {
        const msglog_gap gap = take(&count, now);
        if (gap.lines > 0) {
            return gap;
        }
    }
    return take(&others, now);
}

} // namespace

bool msglog_admit(msglog_writer writer) noexcept {
    const int64_t now = clock_second();
    if (!vel_mutex_try_lock(&lock)) {
        return true;
    }
    const bool admitted = admit(writer, now);
    vel_mutex_unlock(&lock);
    return admitted;
}

bool msglog_has_gap(void) noexcept {
    return gaps.load(std::memory_order_relaxed) != 0;
}

msglog_gap msglog_take_gap(void) noexcept {
    const int64_t now = clock_second();
    if (!vel_mutex_try_lock(&lock)) {
        return {};
    }
    const msglog_gap gap = take_any(now);
    vel_mutex_unlock(&lock);
    return gap;
}
