/* What requests to the whole service cost, service and clients on one core.
 *
 * request_rtt       get_current_state over a bare exchange of the same sizes
 * request_rtt_1000  the same with 1,000 other connections idle
 * request_async     put, pulse and get over the bare exchange
 * throughput_32     requests a second of 32 clients at once over those of a bare server
 * publish           a request until a watcher has read what it changed, over the bare exchange
 * list_100k         a track of a list of 100,000: packed, sent, received and decoded
 * list_1m           the same of a list of a million; of the big sizes
 */
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_service.h"
#include "measure.h"

namespace {

constexpr int PAIRS = 41;
constexpr int ROUNDS = 300; /* of each half of a pair */
constexpr int LIST_ROUNDS = 15;
constexpr int32_t TRACKS = 100000;
constexpr int32_t BIG_TRACKS = 1000000;

struct measured {
    bench_service service;
    msgclient_t* client; /* of the one player */
    bench_echo echo;
};

double echo_seconds(const measured& all) {
    return bench_rounds(ROUNDS, [&] { bench_echo_round(all.echo, STATE_REQUEST); });
}

double over_echo(const measured& all, const std::function<double()>& ours) {
    return bench_ratio(PAIRS, ours, [&] { return echo_seconds(all); });
}

double rtt(const measured& all) {
    return over_echo(all, [&] { return bench_rounds(ROUNDS, [&] { state_round(all.client); }); });
}

double rtt_in_crowd(const measured& all) {
    idle_crowd crowd = crowd_begin(all.service.daemon.service.c_str());
    const double ratio = rtt(all);
    crowd_end(crowd);
    return ratio;
}

double async(const measured& all) {
    msgclient_t* client = all.client;
    if (msgclient_notify_pulse(client, 1) != 0) {
        bench_give_up("no channel for pulses");
    }
    const lyr_request request = {LYR_MSG_GET_CURRENT_STATE, {}};
    return over_echo(all, [&] {
        return bench_rounds(ROUNDS, [&] {
            lyr_state_reply state;
            int32_t length = 0;
            if (msgclient_put(client, 1, &request, sizeof request, 0) != 0 ||
                msgclient_wait_pulse(client) != 1 ||
                msgclient_get(client, 1, &state, sizeof state, &length, 0) != 0 ||
                state.result != 0) {
                bench_give_up("a request without waiting failed");
            }
        });
    });
}

double publish(const measured& all) {
    watch_bench* bench = watch_begin("/pps/services/lyrane/player0/state?wait,delta", all.client);
    const double ratio = over_echo(all, [&] { return watch_seconds(bench, ROUNDS); });
    watch_end(bench);
    return ratio;
}

/* A session of a folder of tracks, known whole. */
uint64_t make_session(measured& all, int32_t tracks) {
    fake_client disk = daemon_fake(all.service.daemon, "disk");
    fake_tree(disk, "", "/a|tracks:" + std::to_string(tracks) + "\n");
    fake_close(disk);
    uint64_t ts_id = 0;
    if (request_create(all.service.clients[0], 0, "/a", -1, 0, &ts_id) != 0) {
        bench_give_up("no track session");
    }
    for (int32_t length = 0; length < tracks;) {
        if (request_session(all.service.clients[0], &ts_id, &length) != 0) {
            bench_give_up("the track session has gone");
        }
    }
    return ts_id;
}

/* Microseconds a track; the reply comes into room that was there before. */
double list(measured& all, int32_t tracks) {
    std::string request = request_begin(LYR_MSG_GET_TRKSESSION_TRACKS);
    request_u64(request, make_session(all, tracks));
    request_i32(request, 0);
    request_i32(request, -1);
    std::vector<char> reply(static_cast<size_t>(tracks) * 160);
    const double seconds = bench_rounds(LIST_ROUNDS, [&] {
        int32_t length = 0;
        lyr_ms_node* nodes = nullptr;
        if (msgclient_putget(all.client, request.data(), static_cast<int32_t>(request.size()),
                             reply.data(), static_cast<int32_t>(reply.size()), &length, 0) != 0 ||
            unpack_media_node(reply.data() + 8, length - 8, tracks, &nodes) != 0) {
            bench_give_up("no list of tracks");
        }
        free_lyr_ms_nodes(&nodes, tracks);
    });
    return seconds * 1e6 / tracks;
}

} // namespace

void state_round(msgclient_t* client) {
    const lyr_request request = {LYR_MSG_GET_CURRENT_STATE, {}};
    lyr_state_reply state;
    int32_t length = 0;
    if (msgclient_putget(client, &request, sizeof request, &state, sizeof state, &length, 0) != 0 ||
        state.result != 0) {
        bench_give_up("get_current_state failed");
    }
}

int main(int argc, char** argv) {
    bench_begin(argc, argv);
    bench_pin();
    measured all;
    all.echo = bench_echo_start(STATE_REPLY);
    bench_service_start(all.service, bench_scripted(), 1);
    all.client = all.service.clients[0].library;
    (void)make_session(all, 1);
    if (bench_wanted("request_rtt")) {
        bench_figure("request_rtt", rtt(all), "ratio");
    }
    if (bench_wanted("request_rtt_1000")) {
        bench_figure("request_rtt_1000", rtt_in_crowd(all), "ratio");
    }
    if (bench_wanted("request_async")) {
        bench_figure("request_async", async(all), "ratio");
    }
    if (bench_wanted("throughput_32")) {
        bench_figure("throughput_32", throughput_32(all.service.daemon.service.c_str()), "ratio");
    }
    if (bench_wanted("publish")) {
        bench_figure("publish", publish(all), "ratio");
    }
    if (bench_wanted("list_100k")) {
        bench_figure("list_100k", list(all, TRACKS), "us/track");
    }
    if (bench_wanted("list_1m", true)) {
        bench_figure("list_1m", list(all, BIG_TRACKS), "us/track");
    }
    bench_service_stop(all.service);
    bench_echo_end(all.echo);
    return EXIT_SUCCESS;
}
