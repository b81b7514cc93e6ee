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

/* Two draws make 32 bits whatever the width of one. */
static uint32_t draw(void) noexcept {
    const uint32_t high = static_cast<uint32_t>(rand()) << 15; /* NOLINT(concurrency-mt-unsafe) */
    return high + static_cast<uint32_t>(rand());               /* NOLINT(concurrency-mt-unsafe) */
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
        for (int32_t i = first; i < first + range; ++i) {
            const int32_t j = first + static_cast<int32_t>(draw() % static_cast<uint32_t>(range));
            swap_positions(view, i, j);
        }
    }
    msglog(7, "Shuffled %d tracks starting at index %d.", first + range, first);
    return 0;
}
}
