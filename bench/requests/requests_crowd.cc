/* Many clients. Those that work at once are threads of this process, each with its own connection,
 * to the service or to a bare server that does no more than answer. */
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <iterator>

#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "measure.h"
#include "requests.h"

namespace {

constexpr int CLIENTS = 32;
constexpr int ROUNDS = 200; /* of each client in each half of a pair */
constexpr int PAIRS = 15;
constexpr int IDLE_EACH = 250; /* connections of one process of the idle crowd */

/* What all threads of one batch do; they begin together. */
struct batch {
    std::function<void(int)> round;
    pthread_barrier_t begin;
};
struct batch_client {
    batch* all;
    int number;
    pthread_t thread;
};

void* client_body(void* argument) {
    const auto* self = static_cast<batch_client*>(argument);
    pthread_barrier_wait(&self->all->begin);
    for (int i = 0; i < ROUNDS; ++i) {
        self->all->round(self->number);
    }
    return nullptr;
}

/* Seconds until every client has made its rounds. */
double batch_seconds(const std::function<void(int)>& round) {
    batch all = {round, {}};
    batch_client clients[CLIENTS];
    pthread_barrier_init(&all.begin, nullptr, CLIENTS + 1);
    for (int i = 0; i < CLIENTS; ++i) {
        clients[i] = {&all, i, {}};
        if (pthread_create(&clients[i].thread, nullptr, client_body, &clients[i]) != 0) {
            bench_give_up("no thread");
        }
    }
    pthread_barrier_wait(&all.begin);
    const double begin = bench_now();
    for (const batch_client& client : clients) {
        pthread_join(client.thread, nullptr);
    }
    const double seconds = bench_now() - begin;
    pthread_barrier_destroy(&all.begin);
    return seconds;
}

void answer(int end, int* open) {
    char buffer[4096];
    if (recv(end, buffer, sizeof buffer, 0) > 0) {
        (void)send(end, buffer, STATE_REPLY, MSG_NOSIGNAL);
    } else {
        close(end);
        *open -= 1;
    }
}

/* The bare server, until all its clients have gone. */
[[noreturn]] void serve(const int* ends) {
    const int set = epoll_create1(EPOLL_CLOEXEC);
    for (int i = 0; i < CLIENTS; ++i) {
        epoll_event entry = {EPOLLIN, {.fd = ends[i]}};
        epoll_ctl(set, EPOLL_CTL_ADD, ends[i], &entry);
    }
    for (int open = CLIENTS; open > 0;) {
        epoll_event ready[CLIENTS];
        const int count = epoll_wait(set, ready, CLIENTS, -1);
        if (count < 0 && errno != EINTR) {
            _exit(EXIT_FAILURE);
        }
        for (int i = 0; i < count; ++i) {
            answer(ready[i].data.fd, &open);
        }
    }
    _exit(EXIT_SUCCESS);
}

pid_t start_server(bench_echo* clients) {
    int theirs[CLIENTS];
    for (int i = 0; i < CLIENTS; ++i) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
            bench_give_up("no socket");
        }
        clients[i].fd = ends[0];
        theirs[i] = ends[1];
    }
    const pid_t server = fork();
    if (server == 0) {
        for (int i = 0; i < CLIENTS; ++i) {
            close(clients[i].fd);
        }
        serve(theirs);
    }
    for (const int end : theirs) {
        close(end);
    }
    return server;
}

/* A process of the idle crowd: connects, says so, and stays until nobody can write any more. */
[[noreturn]] void idle(const char* service, int ready, int stop) {
    for (int i = 0; i < IDLE_EACH; ++i) {
        if (msgclient_open(service, nullptr, 0) == nullptr) {
            _exit(EXIT_FAILURE);
        }
    }
    char byte = 0;
    (void)!write(ready, &byte, 1);
    (void)!read(stop, &byte, 1);
    _exit(EXIT_SUCCESS);
}

} // namespace

idle_crowd crowd_begin(const char* service) {
    int ready[2];
    int stop[2];
    if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(stop, O_CLOEXEC) != 0) {
        bench_give_up("no pipe");
    }
    idle_crowd crowd = {stop[1], {}};
    for (pid_t& process : crowd.processes) {
        process = fork();
        if (process == 0) {
            close(stop[1]);
            close(ready[0]);
            idle(service, ready[1], stop[0]);
        }
    }
    close(ready[1]);
    close(stop[0]);
    for (size_t i = 0; i < std::size(crowd.processes); ++i) {
        char byte;
        if (read(ready[0], &byte, 1) != 1) {
            bench_give_up("the service refuses the idle clients");
        }
    }
    close(ready[0]);
    return crowd;
}

void crowd_end(idle_crowd& crowd) {
    close(crowd.stop);
    for (const pid_t process : crowd.processes) {
        waitpid(process, nullptr, 0);
    }
}

double throughput_32(const char* service) {
    bench_echo bare[CLIENTS];
    const pid_t server = start_server(bare);
    request_client clients[CLIENTS];
    for (int i = 0; i < CLIENTS; ++i) {
        if (!request_connect(clients[i], service) ||
            request_open(clients[i], "crowd" + std::to_string(i)) != 0) {
            bench_give_up("the service refuses a client");
        }
    }
    /* Seconds a request, turned round: what is compared is requests a second. */
    const double ratio = bench_ratio(
        PAIRS, [&] { return 1 / batch_seconds([&](int i) { state_round(clients[i].library); }); },
        [&] {
            return 1 / batch_seconds([&](int i) { bench_echo_round(bare[i], STATE_REQUEST); });
        });
    for (int i = 0; i < CLIENTS; ++i) {
        (void)request_close(clients[i], "crowd" + std::to_string(i));
        request_disconnect(clients[i]);
    }
    for (const bench_echo& echo : bare) {
        close(echo.fd);
    }
    waitpid(server, nullptr, 0);
    return ratio;
}
