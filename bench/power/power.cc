/* What the service takes while nobody wants anything of it, and while it plays.
 *
 * idle_wakeups  how often it wakes up with 4 open players, nothing playing and an arbiter of the
 *               audio focus
 * play_cpu      processor time with 8 players of the scripted plug-in that get 10 positions a
 *               second each; all threads of the process but those that only take the commands of
 *               this measurement
 */
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "bench_service.h"

namespace {

constexpr int64_t SETTLE_MS = 2000; /* what came before dies down */
constexpr int64_t IDLE_MS = 6000;
constexpr int64_t POSITION_MS = 100;
constexpr int64_t POSITIONS = 60;
constexpr int IDLE_PLAYERS = 4;
constexpr int PLAYING = 8;

void pause_ms(int64_t time) {
    const timespec wait = {time / 1000, time % 1000 * 1000000};
    (void)clock_nanosleep(CLOCK_MONOTONIC, 0, &wait, nullptr);
}

std::string first_line(const std::filesystem::path& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

using tasks = std::filesystem::directory_iterator;
std::string tasks_of(const test_daemon& daemon) {
    return "/proc/" + std::to_string(daemon.pid) + "/task";
}

/* Voluntary context switches of all threads so far: each is one wait that will end. */
int64_t waits(const test_daemon& daemon) {
    int64_t sum = 0;
    for (const auto& task : tasks(tasks_of(daemon))) {
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0) {
                sum += std::atoll(line.c_str() + line.find(':') + 1);
            }
        }
    }
    return sum;
}

/* Seconds that the threads of the service have run. */
double run_time(const test_daemon& daemon) {
    double nanoseconds = 0;
    for (const auto& task : tasks(tasks_of(daemon))) {
        const std::string name = first_line(task.path() / "comm");
        if (name != "fake-control" && name != "fake-listener") {
            nanoseconds += std::atof(first_line(task.path() / "schedstat").c_str());
        }
    }
    return nanoseconds / 1e9;
}

/* The arbiter, in the name space of this process. */
pid_t start_arbiter() {
    const pid_t child = fork();
    if (child == 0) {
        (void)dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        execl(NOWPLAYINGD_PROGRAM, "nowplayingd", nullptr);
        _exit(127);
    }
    return child;
}

double idle_wakeups() {
    bench_service service;
    bench_service_start(service, bench_scripted(), IDLE_PLAYERS);
    const pid_t arbiter = start_arbiter();
    pause_ms(SETTLE_MS);
    const int64_t before = waits(service.daemon);
    pause_ms(IDLE_MS);
    const int64_t after = waits(service.daemon);
    int status = 0;
    if (waitpid(arbiter, &status, WNOHANG) != 0) {
        bench_give_up("the arbiter has ended");
    }
    bench_service_stop(service);
    kill(arbiter, SIGTERM);
    waitpid(arbiter, &status, 0);
    return static_cast<double>(after - before) * 1000 / IDLE_MS;
}

/* The serials of the sessions that play. */
std::vector<std::string> playing_sessions(fake_client& disk) {
    std::vector<std::string> serials;
    std::istringstream lines(fake_do(disk, "sessions"));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string serial;
        std::string kind;
        words >> serial >> kind;
        if (kind == "play") {
            serials.push_back(serial);
        }
    }
    return serials;
}

void play_all(fake_client& disk, std::vector<request_client>& clients) {
    fake_tree(disk, "", "/a|tracks:100\n");
    for (request_client& client : clients) {
        uint64_t ts_id = 0;
        if (request_create(client, 0, "/a", -1, 0, &ts_id) != 0 ||
            request_simple(client, LYR_MSG_PLAY) != 0) {
            bench_give_up("a player does not play");
        }
    }
}

double play_cpu() {
    bench_service service;
    bench_service_start(service, bench_scripted(), PLAYING);
    fake_client disk = daemon_fake(service.daemon, "disk");
    play_all(disk, service.clients);
    const std::vector<std::string> sessions = playing_sessions(disk);
    if (sessions.size() != PLAYING) {
        bench_give_up("not all players play");
    }
    pause_ms(SETTLE_MS);
    const double begin = bench_now();
    const double before = run_time(service.daemon);
    for (int64_t i = 1; i <= POSITIONS; ++i) {
        for (const std::string& session : sessions) {
            fake_do(disk, "event position nowait=1 session=%s value=%lld", session.c_str(),
                    static_cast<long long>(i * POSITION_MS));
        }
        const double early = begin + static_cast<double>(i * POSITION_MS) / 1000 - bench_now();
        pause_ms(early > 0 ? static_cast<int64_t>(early * 1000) : 0);
    }
    const double share = (run_time(service.daemon) - before) / (bench_now() - begin);
    fake_close(disk);
    bench_service_stop(service);
    return share * 100;
}

} // namespace

int main(int argc, char** argv) {
    bench_begin(argc, argv);
    if (bench_wanted("idle_wakeups")) {
        bench_figure("idle_wakeups", idle_wakeups(), "1/s");
    }
    if (bench_wanted("play_cpu")) {
        bench_figure("play_cpu", play_cpu(), "percent");
    }
    return EXIT_SUCCESS;
}
