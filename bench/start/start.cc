/* How fast the service comes up, and how large it is then: it is started again and again in a name
 * space of its own.
 *
 * start      from the fork to the first request answered, `files` plug-in loaded
 * rss_idle   resident size without a plug-in
 * rss_files  resident size with `files` loaded and nothing played
 */
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <lyrane/client.h>

#include "bench.h"

namespace {

constexpr int ROUNDS = 21;

/* One name space for all, since the roots are looked up once. */
std::string make_place() {
    const std::string root = bench_folder();
    setenv("VELORAN_RUN", (root + "/run").c_str(), 1);
    setenv("VELORAN_STATE", (root + "/state").c_str(), 1);
    setenv("XDG_CACHE_HOME", (root + "/cache").c_str(), 1);
    setenv("VELORAN_SLOG", ("file:" + root + "/log").c_str(), 1);
    return root;
}

void configure(const std::string& root, const char* plugins) {
    std::ofstream(root + "/lyrane.cfg")
        << R"({"player": {"audio_output": "fakesink sync=true", "video_output": "",)"
        << R"( "update_interval": "250", "progression_mode": "ROSP", "recursion_depth": "-1"},)"
        << "\n\"plugins\": {" << plugins << "}}\n";
}

pid_t start(const std::string& root) {
    const std::string config = root + "/lyrane.cfg";
    const pid_t child = fork();
    if (child == 0) {
        dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        execl(LYRANE_PROGRAM, "lyrane", "-b", "-c", config.c_str(), nullptr);
        _exit(127);
    }
    return child;
}

/* Asks until somebody answers; ends the program when the service has ended instead. */
void await_answer(pid_t child) {
    for (;;) {
        msgclient_t* client = msgclient_open(LYR_SERVICE_NAME, nullptr, 0);
        if (client != nullptr) {
            lyr_request request = {};
            request.type = LYR_MSG_GET_MEDIA_SOURCE;
            char reply[4096];
            int32_t length = 0;
            const int32_t status =
                msgclient_putget(client, &request, sizeof request, reply, sizeof reply, &length, 0);
            msgclient_close(client);
            if (status == 0) {
                return;
            }
        }
        if (waitpid(child, nullptr, WNOHANG) == child) {
            bench_give_up("the service ended at once");
        }
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
}

double resident_megabytes(pid_t child) {
    std::ifstream status("/proc/" + std::to_string(child) + "/status");
    std::string word;
    double kilobytes = 0;
    while (status >> word && word != "VmRSS:") {
    }
    status >> kilobytes;
    return kilobytes / 1024;
}

/* One start: milliseconds to the first answer, and the size then. */
void measure(const std::string& root, std::vector<double>& times, std::vector<double>& sizes) {
    const double begin = bench_now();
    const pid_t child = start(root);
    await_answer(child);
    times.push_back((bench_now() - begin) * 1000);
    sizes.push_back(resident_megabytes(child));
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
}

void measure_with(const std::string& root, const char* plugins, double& time, double& size) {
    configure(root, plugins);
    std::vector<double> times;
    std::vector<double> sizes;
    for (int i = 0; i < ROUNDS; ++i) {
        measure(root, times, sizes);
    }
    time = bench_median(times);
    size = bench_median(sizes);
}

} // namespace

int main(int argc, char** argv) {
    bench_begin(argc, argv);
    bench_use_memory();
    double time = 0;
    double size = 0;
    const std::string root = make_place();
    measure_with(root, "\"" FILES_PLUGIN "\": {\"folders\": \"/usr/share\"}", time, size);
    if (bench_wanted("start")) {
        bench_figure("start", time, "ms");
    }
    if (bench_wanted("rss_files")) {
        bench_figure("rss_files", size, "MB");
    }
    if (bench_wanted("rss_idle")) {
        measure_with(root, "", time, size);
        bench_figure("rss_idle", size, "MB");
    }
    return 0;
}
