/* A client as it should be. Its visits are timed, alone and beside all others in turn. A single
 * request is told besides: it may meet one of others that takes longer than itself, as all are
 * served one after another. */
#include <algorithm>
#include <ctime>
#include <fstream>

#include <unistd.h>

#include "soak.h"

namespace {

constexpr int64_t LONGEST = 1000000; /* us that are told apart */
constexpr int64_t STEP = 10;
constexpr size_t ROUND_LEAST = 100; /* visits; fewer have no 99th percentile */
constexpr int64_t STOLEN_PART = 50; /* of a round */

/* Counts of times; a long run has too many to keep them all. */
struct histogram {
    std::vector<int64_t> counts = std::vector<int64_t>(LONGEST / STEP + 1);
    int64_t total = 0;
};
/* Of the one polite client. */
struct timing {
    histogram visits;
    histogram requests;
    std::vector<int64_t> rounds; /* 99th percentiles of visits, in microseconds */
};
timing timings[SOAK_LOADS];
std::atomic<int> load = SOAK_ALONE;
std::vector<int64_t> of_round; /* us; visits, written while not parked */

/* When a round began: the time, and what was taken from all processors of a virtual machine until
 * then. */
struct round_begin {
    int64_t at;     /* us */
    int64_t stolen; /* us */
};
round_begin began;
int64_t left_out; /* rounds */

/* The eighth number of the line "cpu". */
int64_t stolen_us() {
    std::ifstream file("/proc/stat");
    std::string word;
    int64_t ticks = 0;
    file >> word;
    for (int i = 0; i < 8; ++i) {
        file >> ticks;
    }
    return ticks * 1000000 / sysconf(_SC_CLK_TCK);
}

int64_t now_us() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000 + time.tv_nsec / 1000;
}

int64_t percentile_of(std::vector<int64_t>& times, size_t percent) {
    if (times.empty()) {
        return 0;
    }
    const auto at = times.begin() + static_cast<ptrdiff_t>((times.size() - 1) * percent / 100);
    std::nth_element(times.begin(), at, times.end());
    return *at;
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

int32_t source_of(request_client& client, const std::string& uid) {
    for (const request_source& source : request_sources(client)) {
        if (source.uid == uid) {
            return source.id;
        }
    }
    return -1;
}

bool is_at(request_client& client, int32_t index) {
    return request_current_settled(client).index == index;
}

/* All tracks of the session that is being built; nobody else makes one on this player. */
bool await_built(request_client& client) {
    const int64_t limit = soak_now() + DAEMON_LIMIT;
    uint64_t ts_id = 0;
    int32_t length = 0;
    while (length != SOAK_POLITE_TRACKS && soak_now() < limit) {
        if (request_session(client, &ts_id, &length) != 0) {
            return false;
        }
    }
    return length == SOAK_POLITE_TRACKS;
}

/* What somebody does with a screen: looks into a folder, takes a track of it, looks through the
 * session, moves about in it, and clears it away. False when an answer is wrong. */
bool visit(request_client& client, int32_t source, int32_t track) {
    std::vector<request_node> nodes;
    uint64_t ts_id = 0;
    request_metadata data;
    return request_browse(client, source, "/", 0, 30, nodes) == 0 && nodes.size() == 1 &&
           request_browse(client, source, "/f", 0, 30, nodes) == 0 && nodes.size() == 30 &&
           request_create(client, source, "/f", SOAK_POLITE_TRACKS, track, &ts_id) == 0 &&
           is_at(client, track) && await_built(client) &&
           request_tracks(client, ts_id, 0, 30, nodes) == 0 && nodes.size() == 30 &&
           request_metadata_of(client, source, nodes[0].id, data) == 0 &&
           request_simple(client, LYR_MSG_NEXT) == 0 && is_at(client, track + 1) &&
           request_simple(client, LYR_MSG_PREVIOUS) == 0 && is_at(client, track) &&
           request_number(client, LYR_MSG_JUMP, 7) == 0 && is_at(client, 7) &&
           request_state(client).status == LYR_STATUS_STOPPED &&
           request_destroy(client, ts_id) == 0 && request_state(client).status == LYR_STATUS_IDLE;
}

void count(histogram& into, int64_t took) {
    into.counts[static_cast<size_t>(std::min(took, LONGEST) / STEP)] += 1;
    into.total += 1;
}

} // namespace

void soak_polite_client(soak& soak, unsigned number) {
    (void)number;
    std::mt19937 random(soak.seed * 100 + 90);
    request_client client;
    int32_t source = -1;
    if (!request_connect(client, soak.daemon.service) || request_open(client, "polite") != 0 ||
        (source = source_of(client, SOAK_POLITE_SOURCE)) < 0) {
        soak_differ(soak, "the polite client cannot begin");
    }
    while (soak_turn_polite(soak)) {
        const auto track = static_cast<int32_t>(random() % (SOAK_POLITE_TRACKS - 1));
        const int64_t begin = now_us();
        if (!visit(client, source, track)) {
            soak_differ(soak, "the polite client got a wrong answer, beginning at %d", track);
        }
        const int64_t between = now_us();
        (void)request_state(client);
        if (!soak.is_dying) {
            of_round.push_back(between - begin);
            count(timings[load].visits, between - begin);
            count(timings[load].requests, now_us() - between);
        }
        usleep(5000);
    }
    request_disconnect(client);
}

void soak_polite_load(soak_load now) {
    const round_begin next = {now_us(), stolen_us()};
    if (next.stolen - began.stolen > (next.at - began.at) / STOLEN_PART) {
        left_out += 1;
    } else if (of_round.size() >= ROUND_LEAST) {
        timings[load].rounds.push_back(percentile_of(of_round, 99));
    }
    of_round.clear();
    load = now;
    began = next;
}

int64_t soak_polite_left_out() {
    return left_out;
}

soak_polite_times soak_polite_result(soak_load under) {
    timing& timing = timings[under];
    return {static_cast<int64_t>(timing.rounds.size()), percentile_of(timing.rounds, 50),
            percentile_99(timing.visits), percentile_99(timing.requests)};
}
