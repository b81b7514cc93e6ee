/* The road of the requests through the whole service: replies, what the plug-in is asked, and what
 * is published must tell the same story. */
#include <cerrno>

#include <gtest/gtest.h>

#include "rig.h"

namespace {

constexpr const char* ALBUM = "/album/a|A|First\n/album/b|A|Second\n/album/c|A|Third\n";

/* A player with a session on a folder, its build thread done. */
uint64_t session_on(rig& rig, const char* player, const char* folder, int32_t tracks) {
    uint64_t ts_id = UINT64_MAX;
    EXPECT_EQ(request_open(rig.client, player), 0);
    EXPECT_EQ(request_create(rig.client, 0, folder, -1, 0, &ts_id), 0);
    daemon_await_object(rig.daemon, player, "trksession", "length", ":n:" + std::to_string(tracks));
    return ts_id;
}

void expect_calls(rig& rig, const char* entry, const std::vector<std::string>& ids) {
    EXPECT_EQ(fake_ids(rig.disk, entry), ids) << entry;
}

} // namespace

TEST(Playback, OpensAndBrowses) {
    rig rig;
    ASSERT_TRUE(rig_start(rig, std::string(ALBUM) + "/odd\\x7c\\xff|F\n/many|tracks:500\n"));
    EXPECT_EQ(request_open(rig.client, "radio"), 0);
    const auto state = daemon_object(rig.daemon, "radio", "state");
    EXPECT_EQ(state.at("status"), "::idle");
    EXPECT_EQ(state.at("rate"), ":n:1.0");
    EXPECT_EQ(state.at("shuffle"), "::off");
    EXPECT_EQ(state.at("repeat"), "::off");

    const std::vector<request_source> sources = request_sources(rig.client);
    ASSERT_EQ(sources.size(), 1u);
    EXPECT_EQ(sources[0].id, 0);
    EXPECT_EQ(sources[0].uid, "disk");
    EXPECT_EQ(sources[0].type, LYR_MS_TYPE_HDD);
    EXPECT_EQ(sources[0].view_name, "");

    std::vector<request_node> nodes;
    EXPECT_EQ(request_browse(rig.client, 0, "/", 0, -1, nodes), 0);
    EXPECT_EQ(request_ids(nodes), "/album /odd|\xff /many ");
    EXPECT_EQ(nodes[0].count, 3);
    EXPECT_EQ(nodes[2].ms_type, LYR_MS_TYPE_HDD);
    EXPECT_EQ(request_browse(rig.client, 0, "/many", 498, 7, nodes), 0);
    EXPECT_EQ(request_ids(nodes), "/many/t498 /many/t499 ");
    EXPECT_EQ(request_browse(rig.client, 0, "/many", 0, -1, nodes), 0);
    EXPECT_EQ(nodes.size(), 500u);
    EXPECT_EQ(request_browse(rig.client, 0, "/many", -1, 7, nodes), -1);
    EXPECT_EQ(request_browse(rig.client, 1, "/many", 0, 7, nodes), -1);
    EXPECT_EQ(request_browse(rig.client, 0, "/nowhere", 0, 7, nodes), -1);
    EXPECT_EQ(request_search(rig.client, 0, "", "Track 50", 0, -1, nodes), 0);
    EXPECT_EQ(request_ids(nodes), "/many/t49 /many/t499 ");

    request_metadata data;
    EXPECT_EQ(request_metadata_of(rig.client, 0, "/album/a", data), 0);
    EXPECT_EQ(data.title, "First");
    EXPECT_EQ(request_metadata_of(rig.client, 0, "/album", data), 0);
    EXPECT_FALSE(data.present);
    fake_do(rig.disk, "ext /album/a mood calm");
    std::vector<std::string> values;
    EXPECT_EQ(request_extended(rig.client, 0, "/album/a", {"tempo", "mood", ""}, values), 0);
    EXPECT_EQ(values, (std::vector<std::string>{"", "calm", ""}));
    EXPECT_EQ(request_extended(rig.client, 0, "/album/a", {}, values), 0);

    EXPECT_EQ(request_send(rig.client, request_begin(25)).status, ENOMSG);
    EXPECT_EQ(request_send(rig.client, request_begin(65535)).status, ENOMSG);
    EXPECT_EQ(request_send(rig.client, request_begin(13)).status, ENOTSUP);
    EXPECT_EQ(request_close(rig.client, "other"), -1);
    EXPECT_EQ(request_close(rig.client, "radio"), 0);
    EXPECT_FALSE(rig_has_player(rig.daemon, "radio"));
    rig_end(rig);
}

TEST(Playback, PlaysASessionToItsEnd) {
    rig rig;
    ASSERT_TRUE(rig_start(rig, ALBUM));
    const uint64_t ts_id = session_on(rig, "radio", "/album", 3);
    EXPECT_EQ(ts_id, 0u);
    EXPECT_EQ(daemon_object(rig.daemon, "radio", "state").at("status"), "::stopped");
    expect_calls(rig, "attach", {"/album/a"});
    request_track track = request_current(rig.client);
    EXPECT_EQ(track.result, 0);
    EXPECT_EQ(track.index, 0);
    EXPECT_EQ(track.node.id, "/album/a");
    EXPECT_EQ(track.data.title, "First");

    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
    EXPECT_EQ(daemon_object(rig.daemon, "radio", "state").at("status"), "::playing");
    EXPECT_EQ(fake_number(rig.disk, "event position value=1500"), 0);
    EXPECT_EQ(daemon_object(rig.daemon, "radio", "status").at("position"), ":n:1500");
    int32_t position = 0;
    EXPECT_EQ(request_position(rig.client, &position), 0);
    EXPECT_EQ(position, 1500);

    EXPECT_EQ(fake_number(rig.disk, "event finished"), 0);
    EXPECT_EQ(daemon_object(rig.daemon, "radio", "track").at("index"), ":n:1");
    EXPECT_NE(daemon_object(rig.daemon, "radio", "track").at("metadata").find("\"Second\""),
              std::string::npos);
    EXPECT_EQ(request_position(rig.client, &position), 0);
    EXPECT_EQ(position, 0);
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_NEXT), 0);
    expect_calls(rig, "attach", {"/album/a", "/album/b", "/album/c"});
    EXPECT_EQ(fake_number(rig.disk, "count play"), 3);
    EXPECT_EQ(fake_number(rig.disk, "event finished"), 0);
    EXPECT_EQ(daemon_object(rig.daemon, "radio", "state").at("status"), "::stopped");
    uint64_t current = 0;
    int32_t length = 0;
    EXPECT_EQ(request_session(rig.client, &current, &length), 0);
    EXPECT_EQ(current, ts_id);
    EXPECT_EQ(length, 3);
    EXPECT_EQ(fake_do(rig.disk, "violations"), "");
    rig_end(rig);
}

TEST(Playback, FollowsADevice) {
    rig rig;
    daemon_prepare(rig.daemon);
    rig.daemon.plugins.push_back({"disk", "source disk\ndevice on", {{"mode", "DEVICE"}}});
    ASSERT_TRUE(daemon_start(rig.daemon));
    rig.disk = daemon_fake(rig.daemon, "disk");
    fake_tree(rig.disk, "", ALBUM);
    ASSERT_TRUE(request_connect(rig.client, rig.daemon.service));
    session_on(rig, "radio", "/album", 3);
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_NEXT), 0);
    fake_do(rig.disk, "await event.changed 1");
    EXPECT_NE(daemon_object(rig.daemon, "radio", "track").at("media_node").find("/album/b"),
              std::string::npos);
    EXPECT_EQ(request_number(rig.client, LYR_MSG_REPEAT, 2), 0);
    EXPECT_EQ(fake_number(rig.disk, "count repeat"), 1);
    daemon_await_object(rig.daemon, "radio", "state", "repeat", "::one");
    EXPECT_EQ(request_number(rig.client, LYR_MSG_JUMP, 0), -1);
    EXPECT_EQ(fake_number(rig.disk, "event finished"), 0);
    EXPECT_EQ(daemon_object(rig.daemon, "radio", "state").at("status"), "::stopped");
    rig_end(rig);
}

TEST(Playback, AnotherPluginPlaysWhatItsOwnerCannot) {
    rig rig;
    daemon_prepare(rig.daemon);
    rig.daemon.plugins.push_back({"disk", "source disk type=0x2\nnull play_api", {}});
    rig.daemon.plugins.push_back({"other", "types 0x10", {}});
    rig.daemon.plugins.push_back({"player", "types 0x12", {}});
    ASSERT_TRUE(daemon_start(rig.daemon));
    rig.disk = daemon_fake(rig.daemon, "disk");
    fake_client player = daemon_fake(rig.daemon, "player");
    fake_tree(rig.disk, "", ALBUM);
    ASSERT_TRUE(request_connect(rig.client, rig.daemon.service));
    session_on(rig, "radio", "/album", 3);
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
    EXPECT_EQ(fake_ids(player, "attach"), std::vector<std::string>{"/album/a"});
    EXPECT_EQ(fake_number(player, "count browse.create"), 0);
    EXPECT_EQ(fake_number(player, "event finished"), 0);
    EXPECT_EQ(fake_number(player, "count play"), 2);
    /* The source goes on its owner's thread; both plug-ins' sessions end there. */
    EXPECT_EQ(fake_number(rig.disk, "event disconnected uid=disk"), 0);
    EXPECT_EQ(fake_do(player, "sessions"), "");
    EXPECT_EQ(fake_do(rig.disk, "sessions"), "");
    fake_close(player);
    rig_end(rig);
}

TEST(Playback, MissingEntriesAndRefusalsAreAnswered) {
    rig rig;
    ASSERT_TRUE(rig_start(rig, ALBUM));
    session_on(rig, "radio", "/album", 3);
    for (const char* entry : {"play", "pause", "stop", "seek", "rate", "metadata", "extended",
                              "search", "cancel", "update"}) {
        fake_do(rig.disk, "null %s", entry);
    }
    std::vector<request_node> nodes;
    std::vector<std::string> values;
    request_metadata data;
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), -1);
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PAUSE), -1);
    EXPECT_EQ(request_number(rig.client, LYR_MSG_SEEK, 1), -1);
    EXPECT_EQ(request_speed(rig.client, 2.0F), -1);
    EXPECT_EQ(request_metadata_of(rig.client, 0, "/album/a", data), -1);
    EXPECT_EQ(request_extended(rig.client, 0, "/album/a", {"mood"}, values), -1);
    EXPECT_EQ(request_search(rig.client, 0, "", "First", 0, -1, nodes), -1);
    EXPECT_EQ(request_close(rig.client, "radio"), 0);

    /* Halves that cannot be made are asked for again at the next use. */
    EXPECT_EQ(request_open(rig.client, "second"), 0);
    fake_do(rig.disk, "rule browse.create null=1 times=1");
    fake_do(rig.disk, "rule play.create null=1 times=2");
    EXPECT_EQ(request_browse(rig.client, 0, "/", 0, -1, nodes), -1);
    uint64_t ts_id = 0;
    EXPECT_EQ(request_create(rig.client, 0, "/album", 1, 0, &ts_id), -1);
    EXPECT_EQ(request_create(rig.client, 0, "/album", 1, 0, &ts_id), 0);
    /* A source event from inside a call that holds a player's lock is refused. */
    fake_do(rig.disk, "rule browse inside=\"disconnected uid=disk\" times=1");
    EXPECT_EQ(request_browse(rig.client, 0, "/", 0, -1, nodes), 0);
    EXPECT_EQ(fake_word(fake_log(rig.disk, "event.disconnected").back(), "result"), "-1");
    EXPECT_EQ(request_sources(rig.client).size(), 1u);
    rig_end(rig);
}
