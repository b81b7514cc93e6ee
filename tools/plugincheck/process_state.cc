#include "process_state.h"

#include <climits>
#include <clocale>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

static constexpr int32_t LOOKS = 200; /* at the threads, 10 ms apart */

process_settings process_settings_take() {
    process_settings settings;
    settings.mask = umask(0);
    umask(settings.mask);
    char path[PATH_MAX] = "";
    settings.directory = getcwd(path, sizeof path) != nullptr ? path : "";
    settings.locale = setlocale(LC_ALL, nullptr);
    for (int number = 1; number < NSIG; ++number) {
        (void)sigaction(number, nullptr, &settings.actions[number]);
    }
    return settings;
}

std::string process_settings_changed(const process_settings& before,
                                     const process_settings& after) {
    std::string changed;
    const auto add = [&](const std::string& what) {
        changed += (changed.empty() ? "" : ", ") + what;
    };
    if (before.mask != after.mask) {
        add("the umask");
    }
    if (before.directory != after.directory) {
        add("the working directory");
    }
    if (before.locale != after.locale) {
        add("the locale");
    }
    for (int number = 1; number < NSIG; ++number) {
        if (before.actions[number].sa_handler != after.actions[number].sa_handler) {
            const char* name = sigabbrev_np(number);
            add(std::string("what SIG") + (name != nullptr ? name : "?") + " does");
        }
    }
    return changed;
}

static void* nothing(void*) {
    return nullptr;
}

void process_warm_up() {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, nothing, nullptr) == 0) {
        (void)pthread_join(thread, nullptr);
    }
}

process_threads process_threads_take() {
    process_threads threads;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/proc/self/task", error)) {
        std::ifstream file(entry.path() / "comm");
        std::string name;
        if (std::getline(file, name)) {
            threads[std::stoi(entry.path().filename())] = name;
        }
    }
    return threads;
}

std::string process_threads_left(const process_threads& before) {
    std::string left;
    for (int32_t look = 0; look < LOOKS; ++look) {
        left.clear();
        for (const auto& [id, name] : process_threads_take()) {
            if (before.count(id) == 0) {
                left += (left.empty() ? "" : ", ") + name;
            }
        }
        if (left.empty()) {
            return left;
        }
        (void)poll(nullptr, 0, 10);
    }
    return left;
}

process_files process_files_take() {
    process_files files;
    for (int32_t number = 0; number < 1024; ++number) {
        char target[PATH_MAX] = "";
        if (readlink(("/proc/self/fd/" + std::to_string(number)).c_str(), target,
                     sizeof target - 1) > 0) {
            files[number] = target;
        }
    }
    return files;
}

static std::string select(const process_files& before, const process_files& after, bool inherited) {
    std::string found;
    for (const auto& [number, target] : after) {
        const auto known = before.find(number);
        const int flags = fcntl(number, F_GETFD);
        if ((known == before.end() || known->second != target) &&
            (!inherited || (flags >= 0 && (flags & FD_CLOEXEC) == 0))) {
            found += (found.empty() ? "" : ", ") + target;
        }
    }
    return found;
}

std::string process_files_new(const process_files& before, const process_files& after) {
    return select(before, after, false);
}

std::string process_files_inherited(const process_files& before, const process_files& after) {
    return select(before, after, true);
}
