#include "trksession_shuffle.h"

#include <cerrno>
#include <cstdlib>

#include "msglog.h"

/* The two arrays of a session, at hand: the compiler need not read them again after every store. */
struct order_view {
    int32_t* order;
    int32_t* inverse;
};

static void swap_positions(order_view view, int32_t a, int32_t b) noexcept {
    const int32_t track_a = view.order[a];
    const int32_t track_b = view.order[b];
    view.order[a] = track_b;
    view.order[b] = track_a;
    view.inverse[track_b] = a;
    view.inverse[track_a] = b;
}

/* Two draws make 32 bits whatever the width of one. Not inline: the first of them would take the
 * register of one of the loop's values, which would then be read from memory right behind rand()'s
 * lock each time, and that is a fifth of the time of a shuffle. */
__attribute__((noinline)) static uint32_t draw(void) noexcept {
    const uint32_t high = static_cast<uint32_t>(rand()) << 15; /* NOLINT(concurrency-mt-unsafe) */
    return high + static_cast<uint32_t>(rand());               /* NOLINT(concurrency-mt-unsafe) */
}

/* Swaps each position of a range with one that is drawn. */
static void shuffle_range(order_view view, int32_t first, int32_t range) noexcept {
    int32_t* part = view.order + first;
    const auto count = static_cast<uint32_t>(range);
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t j = draw() % count;
        const int32_t track_i = part[i];
        const int32_t track_j = part[j];
        part[i] = track_j;
        part[j] = track_i;
        view.inverse[track_j] = first + static_cast<int32_t>(i);
        view.inverse[track_i] = first + static_cast<int32_t>(j);
    }
}

extern "C" {

int32_t trksession_shuffle(trksession* session, int32_t start, int32_t count, int32_t current,
                           int32_t flags) noexcept {
    if (count < 1) {
        return 0;
    }
    int32_t first = start;
    int32_t range = count;
    {
        vel_lock_guard guard(session->lock);
        const bool fits = start >= 0 && static_cast<int64_t>(start) + count <= session->length;
        const bool known = flags == 0 || (current >= 0 && current < session->length);
        if (!fits || !known) {
            errno = ERANGE;
            return -1;
        }
        const order_view view = {session->order, session->inverse_order};
        if ((flags & TRKSESSION_KEEP_FIRST) != 0) {
            swap_positions(view, view.inverse[current], 0);
            if (start == 0) {
                first = 1;
                range = count - 1;
            }
        }
        shuffle_range(view, first, range);
    }
    msglog(7, "Shuffled %d tracks starting at index %d.", first + range, first);
    return 0;
}
}
