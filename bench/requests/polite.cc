/* How long a polite client waits for its requests while others do what clients must not.
 *
 * polite_alone_p99  the 99th percentile of a client's requests while nobody else is there
 * polite_p99        the same beside four attackers without pause: one passes sockets that linger,
 * one floods the log, one asks for long lists and never reads, one comes and goes
 *
 * The attackers are processes of another user where root runs this, and nothing is put on one core:
 * what is measured is what a listener would notice.
 */
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench_service.h"
#include "gifts.h"
#include "wire.h"

namespace {

constexpr uid_t STRANGER = 54321;
constexpr int32_t TRACKS = 10000; /* of a list that nobody reads */
constexpr int REQUESTS = 6000;
constexpr int AT_ONCE = 12; /* connections of an attacker, sockets of a batch */
constexpr int16_t PUTGET = 0x203;

struct target {
    std::string socket;
    std::string service;
};

bool enter(const target& at, wire_client& client) {
    return wire_connect(client, at.socket) && wire_open(client, at.service);
}

void ask(wire_client& client, const std::string& request) {
    (void)wire_send(client,
                    wire_header(client, PUTGET, static_cast<int32_t>(request.size()), INT32_MAX) +
                        request);
}

/* Whoever closes them last waits; they end with this process. */
void pass_lingering(const target& at) {
    const pid_t batch = fork();
    if (batch == 0) {
        for (int i = 0; i < AT_ONCE; ++i) {
            wire_client client;
            std::vector<int> gifts = gift_lingering(1);
            if (enter(at, client) && gift_send(client.fd, "nonsense", gifts) == 0) {
                gift_close(gifts);
            }
            wire_close(client);
        }
        _exit(EXIT_SUCCESS);
    }
    waitpid(batch, nullptr, 0);
}

void flood_log(const target& at) {
    wire_client client;
    for (bool is_in = enter(at, client); is_in;) {
        is_in =
            wire_putget(client, request_name(LYR_MSG_OPEN, "x\nlyrane: forged\x1b[2J", 18)).came;
    }
    wire_close(client);
}

void never_read(const target& at) {
    std::string list = request_begin(LYR_MSG_GET_TRKSESSION_TRACKS);
    request_u64(list, 0);
    request_i32(list, 0);
    request_i32(list, -1);
    std::vector<wire_client> deaf(AT_ONCE);
    for (wire_client& client : deaf) {
        if (enter(at, client)) {
            (void)wire_putget(client, request_name(LYR_MSG_OPEN, "player0", 7));
            ask(client, list);
        }
    }
    for (wire_client& client : deaf) {
        wire_close(client);
    }
}

void come_and_go(const target& at) {
    wire_client client;
    (void)enter(at, client);
    wire_close(client);
}

/* Lets everybody reach the socket, as the runtime root of a device does. */
void let_in(const std::string& socket) {
    const std::filesystem::path shared = std::filesystem::temp_directory_path();
    for (std::filesystem::path at = socket; at.has_relative_path() && at != shared;) {
        at = at.parent_path();
        if (at != shared) {
            std::filesystem::permissions(at, std::filesystem::perms::others_exec,
                                         std::filesystem::perm_options::add);
        }
    }
}

bool become_stranger() {
    return setgroups(0, nullptr) == 0 && setresgid(STRANGER, STRANGER, STRANGER) == 0 &&
           setresuid(STRANGER, STRANGER, STRANGER) == 0;
}

pid_t attack(const target& at, void (*again)(const target&)) {
    const pid_t attacker = fork();
    if (attacker == 0) {
        signal(SIGPIPE, SIG_IGN);
        wire_client first;
        if ((geteuid() == 0 && !become_stranger()) || setpgid(0, 0) != 0 || !enter(at, first)) {
            _exit(EXIT_FAILURE);
        }
        wire_close(first);
        for (;;) {
            again(at);
        }
    }
    setpgid(attacker, attacker);
    return attacker;
}

double percentile_99(request_client& client) {
    std::vector<double> waits;
    for (int i = 0; i < REQUESTS; ++i) {
        const double begin = bench_now();
        const int32_t result = i % 2 == 0   ? request_state(client).result
                               : i % 4 == 1 ? request_simple(client, LYR_MSG_PLAY)
                                            : request_simple(client, LYR_MSG_PAUSE);
        waits.push_back(bench_now() - begin);
        if (result != 0) {
            bench_give_up("the polite client is refused");
        }
        usleep(1000); /* as a program that shows what plays */
    }
    std::sort(waits.begin(), waits.end());
    return waits[waits.size() * 99 / 100] * 1000;
}

void make_session(bench_service& service) {
    fake_client disk = daemon_fake(service.daemon, "disk");
    fake_tree(disk, "", "/a|tracks:" + std::to_string(TRACKS) + "\n");
    fake_close(disk);
    uint64_t ts_id = 0;
    int32_t length = 0;
    for (request_client& client : service.clients) {
        if (request_create(client, 0, "/a", -1, 0, &ts_id) != 0) {
            bench_give_up("no track session");
        }
    }
    while (length < TRACKS) {
        if (request_session(service.clients[0], &ts_id, &length) != 0) {
            bench_give_up("the track session has gone");
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    bench_begin(argc, argv);
    bench_service service;
    bench_service_start(service, bench_scripted(), 2);
    make_session(service);
    request_client& polite = service.clients[1];
    if (bench_wanted("polite_alone_p99")) {
        bench_figure("polite_alone_p99", percentile_99(polite), "ms");
    }
    if (bench_wanted("polite_p99")) {
        const target at = {
            daemon_path(service.daemon, "/sys/csm/" + service.daemon.service + "/default"),
            service.daemon.service};
        let_in(at.socket);
        std::vector<pid_t> attackers;
        for (const auto again : {pass_lingering, flood_log, never_read, come_and_go}) {
            attackers.push_back(attack(at, again));
        }
        const double waited = percentile_99(polite);
        for (const pid_t attacker : attackers) {
            int status = 0;
            kill(-attacker, SIGKILL);
            waitpid(attacker, &status, 0);
            if (!WIFSIGNALED(status)) {
                bench_give_up("an attacker gave up");
            }
        }
        bench_figure("polite_p99", waited, "ms");
    }
    bench_service_stop(service);
    return EXIT_SUCCESS;
}
