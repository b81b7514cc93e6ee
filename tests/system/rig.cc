#include "rig.h"

#include <filesystem>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

bool rig_start(rig& rig, const std::string& tree) {
    daemon_prepare(rig.daemon);
    rig.daemon.plugins.push_back({"disk", "source disk", {}});
    return rig_run(rig, tree);
}

bool rig_run(rig& rig, const std::string& tree) {
    const test_daemon& daemon = rig.daemon;
    if (!daemon_start(rig.daemon)) {
        return false;
    }
    if (!daemon.plugins.empty() && daemon.plugins[0].library.empty()) {
        rig.disk = daemon_fake(daemon, daemon.plugins[0].name);
        if (!tree.empty()) {
            fake_tree(rig.disk, "", tree);
        }
    }
    const bool connected =
        daemon.own_root ? request_connect_wire(rig.client, rig_socket(daemon), daemon.service)
                        : request_connect(rig.client, daemon.service);
    EXPECT_TRUE(connected);
    return connected;
}

uint64_t rig_session(rig& rig, const std::string& player, const std::string& folder, int32_t tracks,
                     int32_t start) {
    uint64_t ts_id = UINT64_MAX;
    EXPECT_EQ(request_open(rig.client, player), 0);
    EXPECT_EQ(request_create(rig.client, 0, folder, -1, start, &ts_id), 0);
    EXPECT_TRUE(daemon_await_object(rig.daemon, player, "trksession", "length",
                                    ":n:" + std::to_string(tracks)));
    return ts_id;
}

void rig_hang_up(rig& rig) {
    request_disconnect(rig.client);
    fake_close(rig.disk);
}

int rig_stop(rig& rig, int signal) {
    rig_hang_up(rig);
    if (rig.daemon.pid <= 0) {
        return -1;
    }
    daemon_signal(rig.daemon, signal);
    return daemon_wait(rig.daemon);
}

void rig_end(rig& rig) {
    if (rig.daemon.pid > 0) {
        EXPECT_EQ(rig_stop(rig), 0) << daemon_log(rig.daemon);
        rig_expect_clean(rig.daemon);
    }
    rig_hang_up(rig);
    daemon_remove(rig.daemon);
}

void rig_expect_clean(const test_daemon& daemon) {
    EXPECT_FALSE(fs::exists(rig_socket(daemon)));
    const std::string players = daemon_path(daemon, "/pps/services/lyrane");
    for (const auto& entry : fs::recursive_directory_iterator(players)) {
        ADD_FAILURE() << "left behind: " << entry.path();
    }
}

bool rig_has_player(const test_daemon& daemon, const std::string& player) {
    return fs::exists(daemon_path(daemon, "/pps/services/lyrane/" + player));
}

std::string rig_socket(const test_daemon& daemon) {
    return daemon_path(daemon, "/sys/csm/" + daemon.service + "/default");
}
