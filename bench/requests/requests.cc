/* What requests to the whole service cost, service and client on one core; medians. One line a
 * figure: name, value, unit.
 *
 * bare_ping_pong  an exchange of the same sizes between two processes over a bare socket
 * state           get_current_state; state_ratio over the bare exchange
 * track_of_list   one track of a list of 100,000: packed, sent, received and unpacked */
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <vector>

#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon.h"
#include "requests.h"

namespace {

constexpr int ROUNDS = 50000;
constexpr int LIST_ROUNDS = 15;
constexpr int32_t TRACKS = 100000;
/* On the socket, header and frame included. */
constexpr size_t REQUEST = 28 + sizeof(lyr_request);
constexpr size_t REPLY = 44 + sizeof(lyr_state_reply);

using steady = std::chrono::steady_clock;

double median_us(int rounds, const std::function<void()>& round) {
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        const steady::time_point begin = steady::now();
        round();
        times.push_back(std::chrono::duration<double, std::micro>(steady::now() - begin).count());
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

double bare_ping_pong() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        std::exit(EXIT_FAILURE);
    }
    const pid_t child = fork();
    char buffer[256] = {};
    if (child == 0) {
        close(ends[0]);
        while (recv(ends[1], buffer, REQUEST, MSG_WAITALL) > 0 &&
               send(ends[1], buffer, REPLY, MSG_NOSIGNAL) > 0) {
        }
        _exit(0);
    }
    close(ends[1]);
    const double median = median_us(ROUNDS, [&] {
        if (send(ends[0], buffer, REQUEST, MSG_NOSIGNAL) < 0 ||
            recv(ends[0], buffer, REPLY, MSG_WAITALL) < 0) {
            std::exit(EXIT_FAILURE);
        }
    });
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return median;
}

double state_us(request_client& client) {
    const lyr_request request = {LYR_MSG_GET_CURRENT_STATE, {}};
    return median_us(ROUNDS, [&] {
        lyr_state_reply state;
        int32_t length = 0;
        if (msgclient_putget(client.library, &request, sizeof request, &state, sizeof state,
                             &length, 0) != 0 ||
            state.result != 0) {
            std::exit(EXIT_FAILURE);
        }
    });
}

/* The whole list at once into room that was there before, and its records made and freed. */
double list_us(request_client& client, uint64_t ts_id) {
    std::string request = request_begin(LYR_MSG_GET_TRKSESSION_TRACKS);
    request_u64(request, ts_id);
    request_i32(request, 0);
    request_i32(request, -1);
    std::vector<char> reply(16U << 20);
    return median_us(LIST_ROUNDS, [&] {
        int32_t length = 0;
        lyr_ms_node* tracks = nullptr;
        if (msgclient_putget(client.library, request.data(), static_cast<int32_t>(request.size()),
                             reply.data(), static_cast<int32_t>(reply.size()), &length, 0) != 0 ||
            unpack_media_node(reply.data() + 8, length - 8, TRACKS, &tracks) != 0) {
            std::exit(EXIT_FAILURE);
        }
        free_lyr_ms_nodes(&tracks, TRACKS);
    });
}

/* A service with a player that has a session of TRACKS tracks. */
void start(test_daemon& daemon, request_client& client, uint64_t* ts_id) {
    daemon_prepare(daemon);
    daemon.plugins.push_back({"disk", "source disk", {}});
    int32_t length = 0;
    bool ready = daemon_start(daemon);
    if (ready) {
        fake_client disk = daemon_fake(daemon, "disk");
        fake_tree(disk, "", "/a|tracks:" + std::to_string(TRACKS) + "\n");
        fake_close(disk);
    }
    ready = ready && request_connect(client, daemon.service) &&
            request_open(client, "bench") == 0 &&
            request_create(client, 0, "/a", -1, 0, ts_id) == 0;
    while (ready && length < TRACKS) {
        ready = request_session(client, ts_id, &length) == 0;
    }
    if (!ready) {
        std::exit(EXIT_FAILURE);
    }
}

} // namespace

int main() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(std::max(sched_getcpu(), 0)), &one);
    (void)sched_setaffinity(0, sizeof one, &one);
    const double bare = bare_ping_pong();
    test_daemon daemon;
    request_client client;
    uint64_t ts_id = 0;
    start(daemon, client, &ts_id);
    const double state = state_us(client);
    const double list = list_us(client, ts_id);
    std::printf("bare_ping_pong %.2f us\n", bare);
    std::printf("state %.2f us\n", state);
    std::printf("state_ratio %.2f times\n", state / bare);
    std::printf("track_of_list %.3f us\n", list / TRACKS);
    (void)request_close(client, "bench");
    request_disconnect(client);
    (void)daemon_stop(daemon);
    daemon_remove(daemon);
    return 0;
}
