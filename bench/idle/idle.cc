/* How often a service that has nothing to do wakes up. One line a figure: name, value, unit.
 *
 * idle_wakes            without a player
 * idle_wakes_4_players  with four open players and no arbiter of the audio focus, for which each
 *                       player looks once a second */
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "daemon.h"
#include "requests.h"

namespace {

constexpr int SECONDS = 10;

/* Voluntary context switches of all threads so far: each is one wait that will end. */
int64_t waits(const test_daemon& daemon) {
    int64_t sum = 0;
    const std::string tasks = "/proc/" + std::to_string(daemon.pid) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0) {
                sum += std::atoll(line.c_str() + line.find(':') + 1);
            }
        }
    }
    return sum;
}

double wakes_per_second(const test_daemon& daemon) {
    std::this_thread::sleep_for(std::chrono::seconds(2)); /* what came before dies down */
    const int64_t before = waits(daemon);
    std::this_thread::sleep_for(std::chrono::seconds(SECONDS));
    return static_cast<double>(waits(daemon) - before) / SECONDS;
}

} // namespace

int main() {
    test_daemon daemon;
    daemon_prepare(daemon);
    daemon.plugins.push_back({"disk", "source disk", {}});
    if (!daemon_start(daemon)) {
        return EXIT_FAILURE;
    }
    std::printf("idle_wakes %.2f per_second\n", wakes_per_second(daemon));
    request_client clients[4];
    for (int i = 0; i < 4; ++i) {
        if (!request_connect(clients[i], daemon.service) ||
            request_open(clients[i], "player" + std::to_string(i)) != 0) {
            return EXIT_FAILURE;
        }
    }
    std::printf("idle_wakes_4_players %.2f per_second\n", wakes_per_second(daemon));
    for (request_client& client : clients) {
        request_disconnect(client);
    }
    (void)daemon_stop(daemon);
    daemon_remove(daemon);
    return EXIT_SUCCESS;
}
