/* How fast the service comes up, and how large it is then.
 *
 * Starts it again and again in a name space of its own, once without a plug-in and once with the
 * `files` plug-in, and prints one line a figure: name, value, unit.
 *   start       from the fork to the first request answered, `files` loaded; median
 *   rss_idle    resident size without a plug-in
 *   rss_files   resident size with `files` loaded and nothing played
 */
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <lyrane/client.h>

namespace {

constexpr int ROUNDS = 21;

/* A place of our own, gone at the end; one for all, since the roots are looked up once. */
std::string make_place() {
    std::string root = std::filesystem::temp_directory_path() / "lyrane-bench-XXXXXX";
    if (mkdtemp(root.data()) == nullptr) {
        std::perror("mkdtemp");
        std::exit(1);
    }
    setenv("VELORAN_RUN", (root + "/run").c_str(), 1);
    setenv("VELORAN_STATE", (root + "/state").c_str(), 1);
    setenv("VELORAN_SLOG", ("file:" + root + "/log").c_str(), 1);
    std::filesystem::create_directory(root + "/music");
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
            std::fprintf(stderr, "the service ended at once\n");
            std::exit(1);
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
    const auto begin = std::chrono::steady_clock::now();
    const pid_t child = start(root);
    await_answer(child);
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
    times.push_back(took.count());
    sizes.push_back(resident_megabytes(child));
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
}

double median(std::vector<double>& values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void measure_with(const std::string& root, const char* plugins, double& time, double& size) {
    configure(root, plugins);
    std::vector<double> times;
    std::vector<double> sizes;
    for (int i = 0; i < ROUNDS; ++i) {
        measure(root, times, sizes);
    }
    time = median(times);
    size = median(sizes);
}

} // namespace

int main() {
    double time = 0;
    double size = 0;
    const std::string root = make_place();
    measure_with(root, "\"" FILES_PLUGIN "\": {\"folders\": \"/usr/share\"}", time, size);
    std::printf("start %.1f ms\nrss_files %.1f MB\n", time, size);
    measure_with(root, "", time, size);
    std::printf("rss_idle %.1f MB\n", size);
    std::filesystem::remove_all(root);
    return 0;
}
