#include "rig.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int RIG_LIMIT = 120000; /* ms that anything may take, sanitizers included */

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

} // namespace

program_result rig_run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), NOWPLAYINGD_EXECUTABLE);
    program_result result = program_run(arguments);
    result.out += result.err;
    return result;
}

std::string rig_ctl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "ctl");
    const program_result result = rig_run(arguments);
    EXPECT_EQ(result.status, 0) << result.out;
    return result.out;
}

program rig_start() {
    const program arbiter = program_start({NOWPLAYINGD_EXECUTABLE});
    EXPECT_EQ(rig_notice(), "READY=1");
    return arbiter;
}

std::string rig_notice() {
    char bytes[256];
    rig_await(run_root.manager, POLLIN);
    const ssize_t got = recv(run_root.manager, bytes, sizeof bytes, MSG_DONTWAIT);
    return std::string(bytes, static_cast<size_t>(std::max<ssize_t>(got, 0)));
}

bool rig_await(int fd, short event) {
    pollfd entry = {fd, event, 0};
    const bool came = poll(&entry, 1, RIG_LIMIT) > 0;
    EXPECT_TRUE(came) << "nothing comes";
    return came;
}
