/* Another user of the machine against the published tree: with the mask nothing of it changes, and
 * in a tree that is open to all the service and its honest clients go on. */
#include <filesystem>
#include <fstream>

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "rig.h"

namespace fs = std::filesystem;

namespace {

constexpr uid_t USER = 12345;
constexpr uid_t ATTACKER = 65534;

/* What a shell of the attacker does in the tree; the victim is the player "bob". */
struct trick {
    const char* name;
    const char* before; /* it is opened */
    const char* during; /* its life */
};

#define EACH_OBJECT(what) "for o in state status track trksession mediasource; do " what "; done"

const trick tricks[] = {
    {"a closed folder in its place", "mkdir -m 700 bob", ""},
    {"a full one", "mkdir -p bob/in; touch bob/in/x; chmod 0 bob/in bob", ""},
    {"a file", "echo x >bob", ""},
    {"a pipe", "mkfifo bob", ""},
    {"a link to outside", "ln -s / bob", ""},
    {"a link to another player", "ln -s radio bob", ""},
    {"names of the stage", "cd ../../.stage && seq -f $1.%g 0 5000 | xargs touch", ""},
    {"another stage", "",
     "mv ../../.stage ../../x; rm -rf ../../.stage; mkdir -m 700 ../../.stage"},
    {"forged objects", "", EACH_OBJECT("echo @$o >f; rm -f bob/$o; mv f bob/$o; chmod 0 bob/$o")},
    {"pipes as objects", "", EACH_OBJECT("rm -f bob/$o; mkfifo bob/$o")},
    {"folders as objects", "", EACH_OBJECT("rm -f bob/$o; mkdir -m 700 bob/$o; touch bob/$o/x")},
    {"links as objects", "", EACH_OBJECT("rm -f bob/$o; ln -s /etc/passwd bob/$o")},
    {"objects renamed", "", "mv bob/state bob/status; mv bob/track x"},
    {"objects filled", "", EACH_OBJECT("head -c 17000000 /dev/zero >bob/$o")},
    {"closed folders in it", "", "mkdir -m 700 bob/in; touch bob/in/x; mkdir bob/-rf"},
    {"it is moved", "", "mv bob x"},
    {"and a closed one stands there", "", "mv bob x; mkdir -m 700 bob; touch bob/x"},
    {"or a link", "", "mv bob x; ln -s ../../.. bob"},
    {"or a file", "", "mv bob x; touch bob"},
    {"it is moved into a closed one", "", "mkdir -m 777 x; mv bob x; chmod 0 x"},
    {"it is moved into another player", "", "mv bob radio/state; mv bob radio"},
};

struct tree_test : ::testing::Test {
    ::rig rig;
    std::string tree;

    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root";
        }
        daemon_prepare(rig.daemon);
        fs::permissions(fs::path(rig.daemon.root).parent_path(), fs::perms::others_exec,
                        fs::perm_options::add);
        tree = daemon_path(rig.daemon, "/pps/services/lyrane");
        rig.daemon.plugins = {{"disk", "source disk", {}}};
        rig.daemon.options = {"-U12345:12345"};
    }
    void TearDown() override {
        if (!rig.daemon.root.empty()) {
            rig_hang_up(rig);
            daemon_remove(rig.daemon);
            fs::remove_all(rig.daemon.run);
        }
    }

    void attack(const char* command) const {
        const pid_t child = fork();
        if (child == 0) {
            if (setgroups(0, nullptr) == 0 && setgid(ATTACKER) == 0 && setuid(ATTACKER) == 0 &&
                chdir(tree.c_str()) == 0) {
                umask(0);
                const std::string pid = std::to_string(rig.daemon.pid);
                const std::string quiet = "exec 2>/dev/null; " + std::string(command);
                execl("/bin/sh", "sh", "-c", quiet.c_str(), "sh", pid.c_str(), nullptr);
            }
            _exit(127);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_NE(status, 127 << 8);
    }

    /* A client plays on a player, and the player says so. */
    void expect_plays(request_client& client, const char* player, bool is_published) const {
        for (const auto& [request, status] :
             {std::pair{LYR_MSG_PAUSE, "::paused"}, {LYR_MSG_PLAY, "::playing"}}) {
            EXPECT_EQ(request_simple(client, request), 0) << player;
            const auto state = is_published ? daemon_object(rig.daemon, player, "state")
                                            : std::map<std::string, std::string>();
            EXPECT_TRUE(!is_published || state.at("status") == status) << player;
        }
    }

    /* Nobody but the service's user owns or may write anything. */
    void expect_untouched() const {
        for (const auto& entry : fs::recursive_directory_iterator(tree)) {
            struct stat status = {};
            EXPECT_EQ(lstat(entry.path().c_str(), &status), 0);
            EXPECT_EQ(status.st_uid, USER) << entry.path();
            EXPECT_EQ(status.st_mode & 022, 0u) << entry.path();
        }
    }

    /* Removes what the attacker left. */
    void clean() const {
        for (const auto& entry : fs::directory_iterator(tree)) {
            if (entry.path().filename() != "radio") {
                fs::remove_all(entry.path());
            }
        }
    }
};

} // namespace

TEST_F(tree_test, strangers_end_nothing) {
    for (const char* umask : {"", "0"}) {
        const bool is_open = *umask != '\0';
        rig.daemon.umask = umask;
        ASSERT_TRUE(rig_run(rig, "/a|tracks:5\n"));
        rig_session(rig, "radio", "/a", 5);
        EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
        request_client victim;
        ASSERT_TRUE(request_connect(victim, rig.daemon.service));
        for (const trick& trick : tricks) {
            SCOPED_TRACE(std::string(trick.name) + (is_open ? ", open" : ""));
            uint64_t ts_id = 0;
            attack(trick.before);
            ASSERT_EQ(request_open(victim, "bob"), 0) << daemon_log(rig.daemon);
            EXPECT_EQ(request_create(victim, 0, "/a", -1, 0, &ts_id), 0);
            EXPECT_EQ(request_simple(victim, LYR_MSG_PLAY), 0);
            attack(trick.during);
            if (!is_open) {
                expect_untouched();
            }
            expect_plays(victim, "bob", !is_open);
            expect_plays(rig.client, "radio", true);
            ASSERT_EQ(request_close(victim, "bob"), 0) << daemon_log(rig.daemon);
            EXPECT_TRUE(is_open || !rig_has_player(rig.daemon, "bob"));
            clean();
        }
        request_disconnect(victim);
        EXPECT_EQ(rig_stop(rig), 0) << daemon_log(rig.daemon);
        fs::remove_all(rig.daemon.run);
    }
}

/* What would fail half way through the making of a player is refused at its beginning. */
TEST_F(tree_test, a_player_that_cannot_be_made_is_refused) {
    fs::create_directories(rig.daemon.run);
    if (mount("tree", rig.daemon.run.c_str(), "tmpfs", 0, "size=1m,nr_inodes=100,mode=755") != 0) {
        GTEST_SKIP() << "no file system of its own";
    }
    ASSERT_TRUE(rig_run(rig, "/a|tracks:5\n"));
    rig_session(rig, "radio", "/a", 5);
    const std::string filling = rig.daemon.run + "/filling";
    fs::create_directory(filling);
    std::ofstream(filling + "/bytes") << std::string(2 << 20, 'x');
    EXPECT_EQ(request_open(rig.client, "bob"), -1); /* not a byte */
    fs::remove(filling + "/bytes");
    for (int i = 0; std::ofstream(filling + '/' + std::to_string(i)).is_open(); ++i) {
    }
    EXPECT_EQ(request_open(rig.client, "bob"), -1); /* not a file */
    fs::remove_all(filling);
    fs::create_directory(tree + "/bob");
    EXPECT_EQ(mount("bob", (tree + "/bob").c_str(), "tmpfs", 0, "mode=700"), 0);
    EXPECT_EQ(request_open(rig.client, "bob"), -1); /* what cannot be moved */
    EXPECT_EQ(umount((tree + "/bob").c_str()), 0);
    EXPECT_TRUE(fs::is_empty(daemon_path(rig.daemon, "/pps/.stage")));
    EXPECT_EQ(request_open(rig.client, "bob"), 0);
    EXPECT_EQ(request_open(rig.client, "radio"), 0);
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
    EXPECT_EQ(rig_stop(rig), 0) << daemon_log(rig.daemon);
    EXPECT_EQ(umount2(rig.daemon.run.c_str(), MNT_DETACH), 0);
}
