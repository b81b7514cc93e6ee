/* A service that starts as root and goes on as another user works below its roots as that user from
 * the start on. */
#include <csignal>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "rig.h"

namespace fs = std::filesystem;

namespace {

constexpr uid_t USER = 12345;
constexpr gid_t GROUP = 12346;
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

/* Gives all below the roots away, as an administrator would. */
void give_roots(const rig& rig, uid_t uid, gid_t gid) {
    for (const std::string& top : {rig.daemon.root + "/state", rig.daemon.run}) {
        fs::create_directories(top);
        ASSERT_EQ(lchown(top.c_str(), uid, gid), 0);
        for (const auto& entry : fs::recursive_directory_iterator(top)) {
            ASSERT_EQ(lchown(entry.path().c_str(), uid, gid), 0);
        }
    }
}

TEST_F(lastmode_user, takes_over_what_root_has_left_when_it_was_given) {
    const std::string state = world.daemon.root + "/state";
    start(world, false);
    rig_session(world, "root's", "/a", 5);
    end(world);
    world.daemon.options = {"-l", OPTION};
    ASSERT_TRUE(daemon_spawn(world.daemon));
    EXPECT_EQ(daemon_wait(world.daemon), 1);
    EXPECT_NE(daemon_log(world.daemon).find("is root's and not empty"), std::string::npos);
    fs::resize_file(world.daemon.root + "/log", 0);
    give_roots(world, USER, GROUP);
    start(world, true);
    EXPECT_TRUE(has_session(world, "root's"));
    rig_session(world, "mine", "/a", 5);
    end(world);
    EXPECT_EQ(strangers(state), "");
    give_roots(world, 0, 0);
}

/* Links and SQL of the user's in the places where root starts to work. */
TEST_F(lastmode_user, what_the_user_has_planted_leads_root_nowhere) {
    const std::string vault = world.daemon.root + "/vault";
    const struct {
        const char* what;
        std::string place;
        std::string text; /* empty: a link to the vault */
        int status = 0;
    } cases[] = {
        {"database", world.daemon.root + "/state/db", ""},
        {"names of databases", world.daemon.run + "/dev/sqldb", ""},
        {"objects", world.daemon.run + "/pps", "", 1},
        {"socket", world.daemon.run + "/sys", "", 128 + SIGABRT},
        {"schema", world.daemon.root + "/state/db/lyrane.sql",
         "ATTACH '" + vault + "/made' AS v; CREATE TABLE v.t(a);"},
    };
    world.daemon.options = {"-l", OPTION};
    fs::create_directory(vault);
    fs::permissions(vault, fs::perms::owner_all);
    std::ofstream(vault + "/kept") << "x";
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        fs::remove_all(world.daemon.root + "/state");
        fs::remove_all(item.place);
        fs::create_directories(fs::path(item.place).parent_path());
        if (item.text.empty()) {
            fs::create_symlink(vault, item.place);
        } else {
            std::ofstream(item.place) << item.text;
        }
        give_roots(world, USER, GROUP);
        const size_t from = daemon_log_mark(world.daemon);
        ASSERT_TRUE(daemon_spawn(world.daemon));
        if (item.status == 0) {
            EXPECT_TRUE(daemon_await_log(world.daemon, "lyrane starting", from));
            daemon_signal(world.daemon, SIGTERM);
        }
        EXPECT_EQ(daemon_wait(world.daemon), item.status);
        std::string found;
        for (const auto& entry : fs::directory_iterator(vault)) {
            found += entry.path().filename().string() + ' ';
        }
        EXPECT_EQ(found, "kept ");
        struct stat status = {};
        EXPECT_EQ(stat(vault.c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, 0u);
        fs::remove_all(item.place);
    }
    fs::resize_file(world.daemon.root + "/log", 0);
    give_roots(world, 0, 0);
}
