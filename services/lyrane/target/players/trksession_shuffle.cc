#include "trksession_shuffle.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <numeric>
#include <random>

#include <sys/random.h>

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

/* From the kernel; early in the boot of a machine it may have none yet. */
static uint64_t new_seed(void) noexcept {
    uint64_t seed = 0;
    if (getrandom(&seed, sizeof seed, GRND_NONBLOCK) != sizeof seed) {
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        seed = static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
    }
    return seed;
}

/* A number below `count`, each as likely as any other. */
static uint64_t draw_below(std::mt19937_64& random, uint64_t count) noexcept {
    const uint64_t end = UINT64_MAX - UINT64_MAX % count; /* a multiple of count */
    uint64_t number = random();
    while (number >= end) {
        number = random();
    }
    return number % count;
}

/* Saved draws are made again by later builds: what comes of one must never change, and the standard
 * says of this generator what it draws, but not of std::shuffle. */
static void make_order(trksession* session, trksession_draw drawn) noexcept
    VEL_REQUIRES(session->lock) {
    const order_view view = {session->order, session->inverse_order};
    std::iota(view.order, view.order + session->length, 0);
    std::iota(view.inverse, view.inverse + session->length, 0);
    swap_positions(view, drawn.first, 0);
    std::mt19937_64 random(drawn.seed);
    for (int32_t last = drawn.length - 1; last > 1; --last) {
        const uint64_t other = 1 + draw_below(random, static_cast<uint64_t>(last));
        swap_positions(view, last, static_cast<int32_t>(other));
    }
    session->drawn = drawn;
}

bool trksession_shuffle_again(trksession* session, trksession_draw drawn) noexcept {
    vel_lock_guard guard(session->lock);
    if (drawn.length > session->length || drawn.first < 0 || drawn.first >= drawn.length) {
        return false;
    }
    make_order(session, drawn);
    return true;
}

int32_t trksession_shuffle_fair(trksession* session) noexcept {
    int32_t length = 0;
    {
        vel_lock_guard guard(session->lock);
        length = session->length;
        if (length == 0) {
            return 0;
        }
        if (session->trk_id < 0 || session->trk_id >= length) {
            errno = ERANGE;
            return -1;
        }
        make_order(session, {new_seed(), length, session->trk_id});
    }
    msglog(7, "Shuffled %d tracks starting at index %d.", length, 1);
    return 0;
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
        session->drawn = {};
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
