#include "rig.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <veloran/lock.h>
#include <veloran/server_object.h>

namespace {

struct root {
    root() {
        std::string pattern = std::filesystem::temp_directory_path() / "nowplayingd-XXXXXX";
        path = mkdtemp(pattern.data());
        setenv("VELORAN_RUN", path.c_str(), 1);
        setenv("NOTIFY_SOCKET", (path + "/notify").c_str(), 1);
        manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, (path + "/notify").c_str(), sizeof address.sun_path - 1);
        if (bind(manager, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            abort();
        }
    }
    ~root() {
        close(manager);
        std::filesystem::remove_all(path);
    }
    std::string path;
    int manager; /* where notices for the service manager come */
};
const root run_root;

bool await(int fd) {
    pollfd entry = {fd, POLLIN, 0};
    const bool came = poll(&entry, 1, RIG_LIMIT) > 0;
    EXPECT_TRUE(came) << "nothing comes";
    return came;
}

std::vector<std::string> words(const std::vector<std::string>& arguments) {
    std::vector<std::string> all = {NOWPLAYINGD_EXECUTABLE};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

} // namespace

const std::string& rig_root() {
    return run_root.path;
}

program_result rig_run(const std::vector<std::string>& arguments) {
    program_result result = program_run(words(arguments));
    result.out += result.err;
    return result;
}

std::string rig_ctl(const std::vector<std::string>& arguments) {
    std::vector<std::string> all = {"ctl"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const program_result result = rig_run(all);
    EXPECT_EQ(result.status, 0) << result.out;
    return result.out;
}

program rig_start(const std::vector<std::string>& arguments) {
    const program arbiter = program_start(words(arguments));
    EXPECT_EQ(rig_notice(), "READY=1");
    return arbiter;
}

int rig_end(program& arbiter, int signal) {
    return program_end(arbiter, signal).status;
}

std::string rig_notice() {
    char bytes[256];
    const ssize_t got = await(run_root.manager) ? read(run_root.manager, bytes, sizeof bytes) : 0;
    return std::string(bytes, static_cast<size_t>(std::max<ssize_t>(got, 0)));
}

int rig_client(const std::string& name, const std::string& kind) {
    const char* path = "/pps/services/multimedia/mediaplayer/control?wait,delta";
    int client = server_object_open(path);
    while (client < 0 && errno == EAGAIN) { /* so many have come that it does not accept anybody */
        sched_yield();
        client = server_object_open(path);
    }
    EXPECT_GE(client, 0);
    if (!name.empty()) {
        rig_say(client, "msg::register\nid::1\ndat:json:{\"name\":\"" + name +
                            "\",\"prio\":\"low\",\"audio\":\"" + kind +
                            "\",\"overlay\":\"plain\"}");
    }
    return client;
}

void rig_say(int client, const std::string& text) {
    EXPECT_EQ(server_object_write(client, text.data(), text.size()), 0) << errno;
}

std::string rig_hear(int client) {
    char* text = nullptr;
    const int64_t length = await(client) ? server_object_read(client, &text) : -1;
    const vel_text owner(text);
    return length < 0 ? "[end]" : std::string(text, static_cast<size_t>(length));
}

int rig_say_until_refused(int client, const std::string& text, int limit, bool wait) {
    while (limit-- > 0) {
        if (server_object_write(client, text.data(), text.size()) == 0) {
            continue;
        }
        if (errno != EAGAIN || !wait) {
            return errno;
        }
        pollfd entry = {client, POLLOUT, 0};
        EXPECT_GT(poll(&entry, 1, RIG_LIMIT), 0);
    }
    return 0;
}

bool rig_silent(int client) {
    pollfd entry = {client, POLLIN, 0};
    return poll(&entry, 1, 0) == 0;
}
