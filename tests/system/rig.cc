#include "rig.h"

#include <filesystem>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

bool rig_start(rig& rig, const std::string& tree) {
    daemon_prepare(rig.daemon);
    rig.daemon.plugins.push_back({"disk", "source disk", {}});
    if (!daemon_start(rig.daemon)) {
        return false;
    }
    rig.disk = daemon_fake(rig.daemon, "disk");
    fake_tree(rig.disk, "", tree);
    const bool connected = request_connect(rig.client, rig.daemon.service);
    EXPECT_TRUE(connected);
    return connected;
}

void rig_end(rig& rig) {
    request_disconnect(rig.client);
    fake_close(rig.disk);
    if (rig.daemon.pid > 0) {
        EXPECT_EQ(daemon_stop(rig.daemon), 0) << daemon_log(rig.daemon);
        rig_expect_clean(rig.daemon);
    }
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
