/* A service that starts as root and goes on as another user saves and restores as that user,
 * whatever an earlier run as root has left. */
#include <filesystem>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "rig.h"

namespace fs = std::filesystem;

namespace {

constexpr uid_t USER = 12345;
constexpr const char* OPTION = "-U12345:12346";

void start(rig& rig, bool as_user) {
    rig.daemon.options = {"-l"};
    if (as_user) {
        rig.daemon.options.push_back(OPTION);
    }
    ASSERT_TRUE(rig_run(rig, "/a|tracks:5\n"));
}

/* SIGTERM saves, SIGKILL leaves everything where it is. */
void end(rig& rig, int signal = SIGTERM) {
    EXPECT_EQ(rig_stop(rig, signal), signal == SIGTERM ? 0 : 128 + signal);
}

bool has_session(const rig& rig, const char* player) {
    return daemon_await_object(rig.daemon, player, "trksession", "length", ":n:5");
}

/* What is below a folder and belongs to another user. */
std::string strangers(const std::string& folder) {
    std::string found;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        struct stat status = {};
        if (lstat(entry.path().c_str(), &status) == 0 && status.st_uid != USER) {
            found += entry.path().string() + '\n';
        }
    }
    return found;
}

struct lastmode_user : ::testing::Test {
    ::rig world;
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root";
        }
        daemon_prepare(world.daemon);
        const fs::path program = fs::path(world.daemon.root).parent_path();
        fs::permissions(program, fs::perms::others_exec, fs::perm_options::add);
        world.daemon.plugins = {{"disk", "source disk", {}}};
    }
    void TearDown() override {
        if (world.daemon.root.empty()) {
            return;
        }
        const std::string log = daemon_log(world.daemon);
        for (const char* failure : {"ailed", "cannot", "could not", "damaged"}) {
            EXPECT_EQ(log.find(failure), std::string::npos) << log;
        }
        daemon_remove(world.daemon);
    }
};

} // namespace

TEST_F(lastmode_user, saves_and_restores_in_an_empty_place) {
    start(world, true);
    rig_session(world, "first", "/a", 5);
    end(world);
    start(world, true);
    EXPECT_TRUE(has_session(world, "first"));
    EXPECT_EQ(strangers(world.daemon.root + "/state"), "");
    EXPECT_EQ(strangers(daemon_path(world.daemon, "/dev/sqldb")), "");
    end(world);
}

TEST_F(lastmode_user, takes_over_what_root_has_left) {
    const std::string state = world.daemon.root + "/state";
    start(world, false);
    rig_session(world, "root's", "/a", 5);
    end(world);
    for (const int signal : {SIGTERM, SIGKILL}) {
        start(world, false);
        EXPECT_TRUE(has_session(world, "root's"));
        end(world, signal);
        start(world, true);
        EXPECT_TRUE(has_session(world, "root's"));
        const char* mine = signal == SIGTERM ? "mine" : "mine, too";
        rig_session(world, mine, "/a", 5);
        end(world);
        EXPECT_EQ(strangers(state), "");
        start(world, true);
        EXPECT_TRUE(has_session(world, "root's"));
        EXPECT_TRUE(has_session(world, mine));
        end(world);
        /* Given back to root, for the next round. */
        for (const std::string& top : {state, world.daemon.run}) {
            ASSERT_EQ(chown(top.c_str(), 0, 0), 0);
            for (const auto& entry : fs::recursive_directory_iterator(top)) {
                ASSERT_EQ(lchown(entry.path().c_str(), 0, 0), 0);
            }
        }
    }
}
