/* What comes back of folders with real files, also when they are not what they were. */
#include <algorithm>
#include <filesystem>
#include <random>

#include <gtest/gtest.h>

#include "lastmode_rows.h"
#include "media_files.h"
#include "rig.h"

namespace fs = std::filesystem;

namespace {

constexpr int32_t TRACKS = 1000;
constexpr const char* ALL_THERE = ":n:1000";

struct seat {
    const char* name; /* of the player and its folder */
    uint16_t command; /* the last one */
    int32_t shuffle;
    int32_t repeat;
    int32_t track;
    int32_t position;
    const char* status; /* as it comes back */
    int32_t saved_position = 0;
    request_client client = {};
};

struct scene {
    temporary_folder music;
    test_daemon daemon;
    std::vector<seat> seats = {
        {"plays", LYR_MSG_PLAY, 1, 1, 500, 30000, "::playing"},
        {"changed", LYR_MSG_PAUSE, 0, 2, 0, 20000, "::idle"},
        {"away", LYR_MSG_STOP, 0, 0, TRACKS - 1, 0, "::idle"},
        {"fewer", LYR_MSG_PAUSE, 1, 0, 10, 45000, "::idle"},
    };
    std::mt19937 random;
};

std::string file_name(int32_t track) {
    const std::string digits = std::to_string(track);
    return std::string(4 - digits.size(), '0') + digits + ".flac";
}

/* Ten minutes of sound, which no machine is too slow for, under 1,000 names in each of the folders.
 */
void make_music(scene& scene) {
    const std::string tone = scene.music.path + "/tone.flac";
    run_tool({"ffmpeg", "-loglevel", "error", "-f", "lavfi", "-i", "sine=r=8000:d=600", tone});
    for (const seat& seat : scene.seats) {
        const fs::path folder = scene.music.path + '/' + seat.name;
        fs::create_directory(folder);
        for (int32_t i = 0; i < TRACKS; ++i) {
            fs::create_hard_link(tone, folder / file_name(i));
        }
    }
}

/* The folders are told to the plug-in in a random order, so the sources come in that order. */
bool start(scene& scene) {
    std::shuffle(scene.seats.begin(), scene.seats.end(), scene.random);
    std::string folders;
    for (const seat& seat : scene.seats) {
        folders += (folders.empty() ? "" : ":") + scene.music.path + '/' + seat.name;
    }
    scene.daemon.plugins = {{"files", "", {{"folders", folders}}, false, FILES_PLUGIN}};
    if (!daemon_start(scene.daemon)) {
        return false;
    }
    bool is_connected = true;
    for (seat& seat : scene.seats) {
        is_connected = is_connected && request_connect(seat.client, scene.daemon.service);
    }
    return is_connected;
}

void stop(scene& scene) {
    for (seat& seat : scene.seats) {
        request_disconnect(seat.client);
    }
    EXPECT_EQ(daemon_stop(scene.daemon), 0) << daemon_log(scene.daemon);
    for (seat& seat : scene.seats) {
        const auto found = lastmode_rows(
            scene.daemon,
            "SELECT trk_pos FROM trksessions JOIN players USING (ts_id) WHERE name='" +
                std::string(seat.name) + "'");
        seat.saved_position = found.size() == 1 ? std::stoi(found[0]) : -1;
    }
}

void await_position(seat& seat, int32_t least) {
    for (int32_t position = 0; position < least;) {
        ASSERT_EQ(request_position(seat.client, &position), 0);
    }
}

void bring(scene& scene, seat& seat) {
    uint64_t ts_id = 0;
    int32_t source = -1;
    for (const request_source& known : request_sources(seat.client)) {
        source = known.name == seat.name ? known.id : source;
    }
    EXPECT_EQ(request_open(seat.client, seat.name), 0);
    EXPECT_EQ(request_create(seat.client, source, "/", -1, 0, &ts_id), 0);
    daemon_await_object(scene.daemon, seat.name, "trksession", "length", ALL_THERE);
    EXPECT_EQ(request_simple(seat.client, LYR_MSG_PLAY), 0);
    EXPECT_EQ(request_number(seat.client, LYR_MSG_JUMP, seat.track), 0);
    EXPECT_EQ(request_number(seat.client, LYR_MSG_SHUFFLE, seat.shuffle), 0);
    EXPECT_EQ(request_number(seat.client, LYR_MSG_REPEAT, seat.repeat), 0);
    if (seat.position != 0) {
        EXPECT_EQ(request_number(seat.client, LYR_MSG_SEEK, seat.position), 0);
        await_position(seat, seat.position);
    }
    EXPECT_EQ(request_simple(seat.client, seat.command), 0);
}

void expect_back(scene& scene, seat& seat) {
    SCOPED_TRACE(seat.name);
    EXPECT_EQ(request_open(seat.client, seat.name), 0);
    daemon_await_object(scene.daemon, seat.name, "trksession", "length", ALL_THERE);
    const request_track track = request_current_settled(seat.client);
    EXPECT_EQ(track.index, seat.track);
    EXPECT_EQ(track.node.name, file_name(seat.track));
    const lyr_state_reply state = request_state(seat.client);
    EXPECT_EQ(state.shuffle_mode, seat.shuffle);
    EXPECT_EQ(state.repeat_mode, seat.repeat);
    EXPECT_EQ(daemon_object(scene.daemon, seat.name, "state").at("status"), seat.status);
    std::vector<request_node> nodes;
    EXPECT_EQ(request_tracks(seat.client, track.ts_id, TRACKS - 10, 10, nodes), 0);
    ASSERT_EQ(nodes.size(), 10U);
    EXPECT_EQ(nodes[5].id, "/" + file_name(TRACKS - 5));
    if (state.status == LYR_STATUS_PLAYING) {
        await_position(seat, seat.saved_position + 200); /* it sounds, from there on */
    } else {
        int32_t position = -1;
        EXPECT_EQ(request_position(seat.client, &position), 0);
        EXPECT_EQ(position, seat.saved_position);
    }
}

seat& seat_of(scene& scene, const std::string& name) {
    return *std::find_if(scene.seats.begin(), scene.seats.end(),
                         [&name](const seat& seat) { return seat.name == name; });
}

/* While nobody looks: one folder loses what its player was playing and more, one loses many
 * tracks, one goes. */
void change_folders(scene& scene) {
    const std::string& root = scene.music.path;
    fs::rename(root + "/changed/" + file_name(0), root + "/changed/renamed.flac");
    fs::remove(root + "/changed/" + file_name(1));
    for (int32_t i = 300; i < TRACKS; ++i) {
        fs::remove(root + "/fewer/" + file_name(i));
    }
    fs::rename(root + "/away", root + "/hidden");
    seat_of(scene, "changed").track = 2;
    seat_of(scene, "changed").saved_position = 0;
}

void run(bool keeps) {
    scene scene;
    const auto seed = static_cast<std::mt19937::result_type>(std::random_device()());
    SCOPED_TRACE("seed " + std::to_string(seed));
    scene.random.seed(seed);
    make_music(scene);
    daemon_prepare(scene.daemon);
    scene.daemon.player["audio_output"] = "fakesink sync=true";
    scene.daemon.player["update_interval"] = "100";
    scene.daemon.options.push_back("-l");
    scene.daemon.lastmode = R"({"timeout": "300", "device_type": ["HDD"], "keep_missing": ")" +
                            std::string(keeps ? "1" : "0") + "\"}";
    ASSERT_TRUE(start(scene));
    for (seat& seat : scene.seats) {
        bring(scene, seat);
    }
    stop(scene);
    EXPECT_EQ(seat_of(scene, "away").saved_position, 0);
    EXPECT_GE(seat_of(scene, "changed").saved_position, 20000);
    for (int round = keeps ? 1 : 0; round < 2; ++round) {
        ASSERT_TRUE(start(scene));
        for (seat& seat : scene.seats) {
            expect_back(scene, seat);
        }
        stop(scene);
    }

    change_folders(scene);
    ASSERT_TRUE(start(scene));
    for (seat& seat : scene.seats) {
        if (seat.name != std::string("away")) {
            expect_back(scene, seat);
        }
    }
    seat& away = seat_of(scene, "away");
    uint64_t ts_id = 0;
    int32_t length = 0;
    EXPECT_EQ(request_open(away.client, away.name), 0);
    EXPECT_NE(request_session(away.client, &ts_id, &length), 0);
    stop(scene);

    fs::rename(scene.music.path + "/hidden", scene.music.path + "/away");
    ASSERT_TRUE(start(scene));
    for (seat& seat : scene.seats) {
        if (keeps || seat.name != std::string("away")) {
            expect_back(scene, seat);
        }
    }
    EXPECT_EQ(rig_has_player(scene.daemon, "away"), keeps);
    stop(scene);
    daemon_remove(scene.daemon);
}

} // namespace

TEST(LastmodeFiles, ComeBackAsTheyAreNow) {
    run(false);
}

TEST(LastmodeFiles, ComeBackWhenTheirFolderDoes) {
    run(true);
}
