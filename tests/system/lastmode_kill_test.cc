/* A service that is killed at any instant: what it comes back with is a state that it was in,
 * whole, and none from before the last one known to be saved. */
#include <csignal>
#include <cstdlib>
#include <random>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

#include "rig.h"
#include "saved.h"

namespace {

constexpr int KILLS = 24; /* in a round; LYRANE_ROUNDS asks for more rounds */
constexpr int FOLDERS = 4;

int kills() {
    const char* wanted = std::getenv("LYRANE_ROUNDS");
    return KILLS * (wanted != nullptr ? std::atoi(wanted) : 1);
}

/* The folders have 40 tracks, 41 and so on. */
constexpr const char* TREE = "/f0|tracks:40\n/f1|tracks:41\n/f2|tracks:42\n/f3|tracks:43\n";

/* What a player was seen to be in. */
struct moment {
    int32_t folder = 0;
    int32_t track = 0;
    int32_t position = 0;
    int32_t shuffle = 0;
    int32_t repeat = 0;
    bool plays = false;
    bool is_sure = true; /* else the command was in work when the service died */
};

struct kept_player {
    const char* name;   /* of the plug-in and its source, too */
    int32_t source = 0; /* its id in this run */
    request_client client = {};
    fake_client fake = {};
    std::vector<moment> moments = {}; /* any of these may come back */
};

struct scene {
    test_daemon daemon;
    kept_player players[2] = {{"left"}, {"right"}};
    std::mt19937 random;
    bool is_dead = false; /* a request was not answered any more */
};

int32_t draw(scene& scene, int32_t below) {
    return static_cast<int32_t>(scene.random() % static_cast<unsigned>(below));
}

/* As the database has it. */
std::string told(const moment& moment) {
    std::ostringstream text;
    text << "/f" << moment.folder << ' ' << moment.track << ' ' << moment.position << ' '
         << moment.shuffle << ' ' << moment.repeat << (moment.plays ? " 1" : " 0");
    return text.str();
}

bool is_same(const moment& found, const moment& was) {
    moment expected = was;
    expected.plays = was.is_sure ? was.plays : found.plays;
    return told(found) == told(expected);
}

/* False when the service does not answer, or has no session of 40 tracks and more. */
bool observe(kept_player& player, moment& now) {
    const lyr_state_reply state = request_state(player.client);
    const request_track track = request_current(player.client);
    if (state.result != 0 || track.result != 0 ||
        request_position(player.client, &now.position) != 0) {
        return false;
    }
    now.shuffle = state.shuffle_mode;
    now.repeat = state.repeat_mode;
    now.plays = state.status == LYR_STATUS_PLAYING;
    now.track = track.index;
    now.folder = track.node.id.size() > 2 ? track.node.id[2] - '0' : -1;
    return true;
}

bool start(scene& scene) {
    scene.is_dead = false;
    if (!daemon_start(scene.daemon)) {
        return false;
    }
    for (kept_player& player : scene.players) {
        player.fake = daemon_fake(scene.daemon, player.name);
        fake_tree(player.fake, "", TREE);
        player.source = static_cast<int32_t>(fake_number(player.fake, "id %s", player.name));
        if (!request_connect(player.client, scene.daemon.service) ||
            request_open(player.client, player.name) != 0) {
            return false;
        }
    }
    return true;
}

void hang_up(scene& scene) {
    for (kept_player& player : scene.players) {
        request_disconnect(player.client);
        fake_close(player.fake);
    }
}

/* One command, and what came of it. */
void command(scene& scene, kept_player& player) {
    moment next = player.moments.back();
    const int32_t number = draw(scene, 40);
    int32_t result = 0;
    std::string ignored;
    uint64_t ts_id = 0;
    switch (draw(scene, 7)) {
    case 0:
        next = {.folder = number % FOLDERS, .track = 39, .is_sure = false};
        /* The first step imports all tracks up to the one it begins with: 40 at least. */
        result = request_create(player.client, player.source, "/f" + std::to_string(next.folder),
                                -1, 39, &ts_id);
        break;
    case 1:
        next.track = number;
        next.position = 0;
        next.is_sure = false;
        result = request_number(player.client, LYR_MSG_JUMP, number);
        break;
    case 2:
        next.shuffle = number % 2;
        result = request_number(player.client, LYR_MSG_SHUFFLE, next.shuffle);
        break;
    case 3:
        next.repeat = number % 3;
        result = request_number(player.client, LYR_MSG_REPEAT, next.repeat);
        break;
    case 4:
        next.plays = true;
        result = request_simple(player.client, LYR_MSG_PLAY);
        break;
    case 5:
        next.is_sure = false;
        player.moments.push_back(next);
        next.position = 0; /* may begin the track anew */
        result = request_simple(player.client, number % 2 == 0 ? LYR_MSG_PAUSE : LYR_MSG_STOP);
        break;
    default:
        next.position = 1000 * number;
        result = fake_execute(player.fake, "event position value=" + std::to_string(next.position),
                              ignored);
    }
    player.moments.push_back(next);
    moment now;
    if (result == REQUEST_FAILED || !observe(player, now)) {
        scene.is_dead = true;
    } else {
        player.moments.push_back(now);
    }
}

/* Waits until the database holds what the player is in now, with the service alive. */
void await_saved(const kept_player& player) {
    saved_await(player.name,
                "mn_id||' '||trk_id||' '||trk_pos||' '||shuffle_mode||' '||repeat_mode||' '||"
                "(status=2)",
                told(player.moments.back()));
}

/* Both players are in one of their moments, with all their tracks. */
void verify(scene& scene) {
    ASSERT_EQ(daemon_settle(scene.daemon, saved_restoring, 0), 0);
    for (kept_player& player : scene.players) {
        SCOPED_TRACE(player.name);
        moment found;
        uint64_t ts_id = 0;
        int32_t length = 0;
        ASSERT_TRUE(observe(player, found)) << daemon_log(scene.daemon);
        ASSERT_EQ(request_session(player.client, &ts_id, &length), 0);
        EXPECT_GE(length, 40);
        EXPECT_LE(length, 40 + found.folder);
        bool is_known = false;
        std::string all;
        for (const moment& was : player.moments) {
            is_known = is_known || is_same(found, was);
            all += told(was) + (was.is_sure ? "\n" : " perhaps\n");
        }
        ASSERT_TRUE(is_known) << told(found) << "\nis none of\n" << all;
        player.moments = {found};
    }
}

void die(scene& scene) {
    daemon_signal(scene.daemon, SIGKILL);
    const int status = daemon_wait(scene.daemon);
    EXPECT_TRUE(status == 128 + SIGKILL || status == 0) << status;
    hang_up(scene);
}

/* Some commands, with the end at a random instant among them. */
void live_and_die(scene& scene) {
    const int32_t manner = draw(scene, 4);
    const auto instant = static_cast<useconds_t>(draw(scene, 30000));
    const int32_t commands = draw(scene, 30);
    std::thread killer;
    if (manner == 0) { /* amid the commands */
        killer = std::thread([&scene, instant] {
            usleep(instant);
            daemon_signal(scene.daemon, SIGKILL);
        });
    }
    for (int32_t i = 0; i < commands && !scene.is_dead; ++i) {
        command(scene, scene.players[draw(scene, 2)]);
    }
    if (killer.joinable()) {
        killer.join();
    } else if (manner == 1) { /* amid the save at the end */
        daemon_signal(scene.daemon, SIGTERM);
        usleep(instant);
    } else if (manner == 2) { /* after a save that was seen */
        for (kept_player& player : scene.players) {
            await_saved(player);
            player.moments = {player.moments.back()};
        }
    }
    die(scene);
}

/* A start that does not come to its end. */
void die_at_birth(scene& scene) {
    ASSERT_TRUE(daemon_spawn(scene.daemon));
    usleep(static_cast<useconds_t>(draw(scene, 40000)));
    daemon_signal(scene.daemon, SIGKILL);
    daemon_wait(scene.daemon);
}

} // namespace

TEST(LastmodeKill, LeavesAStateThatWas) {
    scene scene;
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    scene.random.seed(seed);
    daemon_prepare(scene.daemon);
    scene.daemon.options.push_back("-l");
    scene.daemon.lastmode = R"({"checkpoint": "1", "timeout": "60", "device_type": ["HDD"]})";
    for (const kept_player& player : scene.players) {
        scene.daemon.plugins.push_back({player.name, "source " + std::string(player.name), {}});
    }
    ASSERT_TRUE(start(scene));
    for (kept_player& player : scene.players) {
        uint64_t ts_id = 0;
        moment now;
        EXPECT_EQ(request_create(player.client, player.source, "/f0", -1, 39, &ts_id), 0);
        ASSERT_TRUE(observe(player, now));
        player.moments = {now};
    }
    hang_up(scene);
    ASSERT_EQ(daemon_stop(scene.daemon), 0);
    const int wanted = kills();
    for (int i = 0; i < wanted && !HasFatalFailure(); ++i) {
        if (draw(scene, 4) == 0) {
            die_at_birth(scene);
            ++i;
        }
        ASSERT_TRUE(start(scene));
        verify(scene);
        live_and_die(scene);
    }
    ASSERT_TRUE(start(scene));
    verify(scene);
    hang_up(scene);
    EXPECT_EQ(daemon_stop(scene.daemon), 0);
    daemon_remove(scene.daemon);
}
