#include "bench.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr size_t ECHO_MAX = 4096; /* bytes of a packet */

std::FILE* figures;
std::vector<std::string> names;
bool long_run;
std::vector<std::string> folders; /* of our own */

} // namespace

void bench_begin(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--long") == 0) {
            long_run = true;
        } else {
            names.emplace_back(argv[i]);
        }
    }
    figures = fdopen(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3), "w");
    if (figures == nullptr || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        bench_give_up("no standard output");
    }
}

bool bench_wanted(const char* name, bool big) {
    return (long_run || !big) &&
           (names.empty() || std::find(names.begin(), names.end(), name) != names.end());
}

void bench_figure(const char* name, double value, const char* unit) {
    const int digits = value >= 1000 ? 0 : value >= 10 ? 1 : 3;
    std::fprintf(figures, "%s %.*f %s\n", name, digits, value, unit);
    std::fflush(figures);
}

void bench_give_up(const std::string& why) {
    std::fprintf(stderr, "bench: %s\n", why.c_str());
    std::exit(EXIT_FAILURE);
}

double bench_now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double bench_median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double bench_rounds(int rounds, const std::function<void()>& round) {
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        const double begin = bench_now();
        round();
        times.push_back(bench_now() - begin);
    }
    return bench_median(std::move(times));
}

double bench_ratio(int pairs, const std::function<double()>& ours,
                   const std::function<double()>& reference) {
    std::vector<double> ratios;
    for (int i = 0; i < pairs; ++i) {
        const double below = reference();
        ratios.push_back(ours() / below);
    }
    return bench_median(std::move(ratios));
}

void bench_pin() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(std::max(sched_getcpu(), 0)), &one);
    if (sched_setaffinity(0, sizeof one, &one) != 0) {
        bench_give_up("cannot stay on one core");
    }
}

bench_echo bench_echo_start(size_t reply) {
    int ends[2];
    bench_echo echo;
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0) {
        echo = {ends[0], fork()};
    }
    if (echo.pid < 0) {
        bench_give_up("no process for the bare exchange");
    }
    if (echo.pid == 0) {
        char buffer[ECHO_MAX] = {};
        close(ends[0]);
        while (recv(ends[1], buffer, sizeof buffer, 0) > 0 &&
               send(ends[1], buffer, reply, MSG_NOSIGNAL) > 0) {
        }
        _exit(EXIT_SUCCESS);
    }
    close(ends[1]);
    return echo;
}

void bench_echo_round(const bench_echo& echo, size_t request) {
    static thread_local char buffer[ECHO_MAX];
    if (send(echo.fd, buffer, request, MSG_NOSIGNAL) < 0 ||
        recv(echo.fd, buffer, sizeof buffer, 0) <= 0) {
        bench_give_up("the bare exchange has ended");
    }
}

void bench_echo_end(bench_echo& echo) {
    close(echo.fd);
    waitpid(echo.pid, nullptr, 0);
    echo = {};
}

void bench_use_memory() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    setenv("TMPDIR", runtime != nullptr ? runtime : "/dev/shm", 1);
}

std::string bench_folder() {
    if (folders.empty()) {
        std::atexit([] {
            std::error_code ignored;
            for (const std::string& folder : folders) {
                std::filesystem::remove_all(folder, ignored);
            }
        });
    }
    std::string folder = std::filesystem::temp_directory_path() / "lyrane-bench-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
        bench_give_up("no folder for temporary files");
    }
    folders.push_back(folder);
    return folder;
}
