/* What a request costs over a bare exchange of the same bytes between two processes: both on one
 * core, in one run, medians. One line a figure: name, value, unit. */
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <lyrane/client.h>

#include "msgserver.h"

namespace {

constexpr int ROUNDS = 100000;
constexpr int LARGE_ROUNDS = 50;
constexpr size_t REQUEST = 16;     /* a request without fields */
constexpr size_t REPLY = 20;       /* the player's state */
constexpr size_t LARGE = 6000000;  /* a list of 100,000 tracks */
constexpr size_t PREFIX = 28 + 16; /* what travels besides: header and frame */

using clock_type = std::chrono::steady_clock;

double median_us(int rounds, const std::function<void()>& round) {
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        const auto begin = clock_type::now();
        round();
        times.push_back(
            std::chrono::duration<double, std::micro>(clock_type::now() - begin).count());
    }
    std::nth_element(times.begin(), times.begin() + rounds / 2, times.end());
    return times[static_cast<size_t>(rounds) / 2];
}

double bare_exchange() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        std::exit(1);
    }
    const pid_t child = fork();
    char buffer[256] = {};
    if (child == 0) {
        close(ends[0]);
        while (recv(ends[1], buffer, sizeof buffer, 0) > 0 &&
               send(ends[1], buffer, PREFIX + REPLY, MSG_NOSIGNAL) > 0) {
        }
        _exit(0);
    }
    close(ends[1]);
    const double result = median_us(ROUNDS, [&] {
        if (send(ends[0], buffer, 28 + REQUEST, MSG_NOSIGNAL) < 0 ||
            recv(ends[0], buffer, sizeof buffer, 0) < 0) {
            std::exit(1);
        }
    });
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return result;
}

void worker(osb* connection, recv_context* context, service*) {
    static char large[LARGE];
    const bool wants_large = context->payload[0] != 0;
    connection->server->reply(connection, context, 0, large,
                              static_cast<int32_t>(wants_large ? LARGE : REPLY));
}

pid_t start_server() {
    int ready[2];
    if (pipe(ready) != 0) {
        std::exit(1);
    }
    const pid_t child = fork();
    if (child == 0) {
        msgserver* server = msgserver_create(65536, 5, MSGSERVER_BY_PATH);
        if (server == nullptr ||
            msgserver_add(server, "bench", nullptr, nullptr, 0, worker, nullptr, nullptr) < 0 ||
            write(ready[1], "", 1) != 1) {
            _exit(1);
        }
        msgserver_thread_loop(server);
        _exit(0);
    }
    char byte;
    if (read(ready[0], &byte, 1) != 1) {
        std::exit(1);
    }
    return child;
}

double request(msgclient_t* client, int rounds, char kind, std::vector<char>* reply) {
    char bytes[REQUEST] = {kind};
    int32_t length;
    return median_us(rounds, [&] {
        if (msgclient_putget(client, bytes, sizeof bytes, reply->data(),
                             static_cast<int32_t>(reply->size()), &length, 0) != 0) {
            std::exit(1);
        }
    });
}

} // namespace

int main() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(std::max(sched_getcpu(), 0)), &one);
    (void)sched_setaffinity(0, sizeof one, &one);
    char root[] = "/tmp/bench-transport-XXXXXX";
    if (mkdtemp(root) == nullptr) {
        return 1;
    }
    setenv("VELORAN_RUN", root, 1);

    const double bare = bare_exchange();
    const pid_t server = start_server();
    msgclient_t* client = msgclient_open("bench", nullptr, 0);
    if (client == nullptr) {
        return 1;
    }
    std::vector<char> reply(LARGE);
    const double small = request(client, ROUNDS, 0, &reply);
    const double large = request(client, LARGE_ROUNDS, 1, &reply);
    msgclient_close(client);
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
    std::filesystem::remove_all(root);

    std::printf("bare_exchange %.2f us\n", bare);
    std::printf("state_request %.2f us\n", small);
    std::printf("state_request_ratio %.3f times\n", small / bare);
    std::printf("list_of_100000 %.0f us\n", large);
    return 0;
}
