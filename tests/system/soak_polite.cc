/* A client as it should be, whose requests are timed: first alone, then beside all others. */
#include <algorithm>
#include <ctime>

#include <unistd.h>

#include "soak.h"

namespace {

constexpr int64_t LONGEST = 1000000; /* us that are told apart */
constexpr int64_t STEP = 10;

/* Counts of times; a long run has too many to keep them all. */
struct histogram {
    std::vector<int64_t> counts = std::vector<int64_t>(LONGEST / STEP + 1);
    int64_t total = 0;
};
histogram times[2]; /* alone, under load; of the one polite client */
std::atomic<int> is_loaded = 0;

int64_t now_us() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000 + time.tv_nsec / 1000;
}

int64_t percentile_99(const histogram& times_of) {
    int64_t left = times_of.total / 100;
    for (size_t i = times_of.counts.size(); i-- > 0;) {
        left -= times_of.counts[i];
        if (left < 0) {
            return static_cast<int64_t>(i + 1) * STEP;
        }
    }
    return 0;
}

} // namespace

void soak_polite_client(soak& soak, unsigned number) {
    (void)number;
    request_client client;
    if (!request_connect(client, soak.daemon.service) || request_open(client, "polite") != 0) {
        soak_differ(soak, "the polite client cannot begin");
    }
    while (soak_turn(soak)) {
        const int64_t begin = now_us();
        if (request_state(client).result != 0) {
            soak_differ(soak, "the polite client is not answered");
        }
        const int64_t took = std::min(now_us() - begin, LONGEST);
        if (!soak.is_dying) {
            histogram& into = times[is_loaded];
            into.counts[static_cast<size_t>(took / STEP)] += 1;
            into.total += 1;
        }
        usleep(2000);
    }
    request_disconnect(client);
}

void soak_polite_loaded() {
    is_loaded = 1;
}

int64_t soak_polite_alone() {
    return percentile_99(times[0]);
}

int64_t soak_polite_under_load() {
    return percentile_99(times[1]);
}
