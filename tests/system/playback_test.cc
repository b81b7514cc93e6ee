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

TEST(Playback, ObeysEveryCommand) {
    rig rig;
    ASSERT_TRUE(rig_start(rig, ALBUM));
    const uint64_t ts_id = session_on(rig, "radio", "/album", 3);
    const struct {
        uint16_t type;
        int32_t value;
        int32_t result;
        const char* attribute; /* of "state" */
        const char* published;
        const char* entry; /* the plug-in's, with the number of calls so far */
        int32_t calls;
    } steps[] = {
        {LYR_MSG_PLAY, 0, 0, "status", "::playing", "play", 1},
        {LYR_MSG_PLAY, 0, 0, "status", "::playing", "play", 1},
        {LYR_MSG_PAUSE, 0, 0, "status", "::paused", "pause", 1},
        {LYR_MSG_PAUSE, 0, 0, "status", "::paused", "pause", 1},
        {LYR_MSG_SEEK, 4000, 0, "status", "::paused", "seek", 1},
        {LYR_MSG_NEXT, 0, 0, "status", "::paused", "attach", 2},
        {LYR_MSG_PREVIOUS, 0, 0, "status", "::paused", "attach", 3},
        {LYR_MSG_PREVIOUS, 0, 0, "status", "::paused", "attach", 3},
        {LYR_MSG_PLAY, 0, 0, "status", "::playing", "play", 2},
        {LYR_MSG_JUMP, 2, 0, "status", "::playing", "attach", 4},
        {LYR_MSG_JUMP, 3, -1, "status", "::playing", "attach", 4},
        {LYR_MSG_JUMP, -1, -1, "status", "::playing", "attach", 4},
        {LYR_MSG_REPEAT, 2, 0, "repeat", "::one", "repeat", 0},
        {LYR_MSG_REPEAT, 1, 0, "repeat", "::all", "repeat", 0},
        {LYR_MSG_NEXT, 0, 0, "status", "::playing", "attach", 5},
        {LYR_MSG_SHUFFLE, 1, 0, "shuffle", "::on", "shuffle", 0},
        {LYR_MSG_SHUFFLE, 0, 0, "shuffle", "::off", "shuffle", 0},
        {LYR_MSG_STOP, 0, 0, "status", "::stopped", "stop", 3},
        {LYR_MSG_STOP, 0, 0, "status", "::stopped", "stop", 3},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.type);
        const bool numbered = step.type == LYR_MSG_SEEK || step.type == LYR_MSG_JUMP ||
                              step.type == LYR_MSG_REPEAT || step.type == LYR_MSG_SHUFFLE;
        EXPECT_EQ(numbered ? request_number(rig.client, step.type, step.value)
                           : request_simple(rig.client, step.type),
                  step.result);
        EXPECT_EQ(daemon_object(rig.daemon, "radio", "state").at(step.attribute), step.published);
        EXPECT_EQ(fake_number(rig.disk, "count %s", step.entry), step.calls) << step.entry;
    }
    EXPECT_EQ(request_speed(rig.client, 1.5F), 0);
    EXPECT_EQ(daemon_object(rig.daemon, "radio", "state").at("rate"), ":n:1.5");
    fake_do(rig.disk, "rule play result=-77");
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), -77);
    const lyr_state_reply state = request_state(rig.client);
    EXPECT_EQ(state.repeat_mode, LYR_REPEAT_ALL);
    EXPECT_EQ(state.status, LYR_STATUS_STOPPED);
    EXPECT_EQ(state.playback_rate, 1.5F);

    std::vector<request_node> nodes;
    EXPECT_EQ(request_tracks(rig.client, ts_id, 1, -1, nodes), 0);
    EXPECT_EQ(request_ids(nodes), "/album/b /album/c ");
    EXPECT_EQ(request_tracks(rig.client, ts_id, 3, -1, nodes), 0);
    EXPECT_EQ(request_ids(nodes), "");
    EXPECT_EQ(request_destroy(rig.client, ts_id + 1), -1);
    EXPECT_EQ(request_destroy(rig.client, ts_id), 0);
    EXPECT_EQ(daemon_object(rig.daemon, "radio", "track").size(), 0u);
    EXPECT_EQ(daemon_object(rig.daemon, "radio", "state").at("status"), "::idle");
    EXPECT_EQ(daemon_object(rig.daemon, "radio", "state").at("repeat"), "::off");
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), -1);
    EXPECT_EQ(request_current(rig.client).result, -1);
    EXPECT_EQ(request_close(rig.client, "radio"), 0);
    EXPECT_FALSE(rig_has_player(rig.daemon, "radio"));
    rig_end(rig);
}

TEST(Playback, StaleAndForeignEventsChangeNothing) {
    rig rig;
    ASSERT_TRUE(rig_start(rig, ALBUM));
    session_on(rig, "radio", "/album", 3);
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
    const std::string serial = fake_word(fake_log(rig.disk, "play.create")[0], "session");
    EXPECT_EQ(fake_number(rig.disk, "event position value=7"), 0);
    for (const char* event : {"position value=9", "finished", "changed node=/album/b",
                              "state status=3", "error value=0", "error value=1"}) {
        EXPECT_EQ(fake_number(rig.disk, "event %s session=0x7", event), -1) << event;
        EXPECT_EQ(fake_number(rig.disk, "event %s session=null", event), -1) << event;
        EXPECT_EQ(fake_number(rig.disk, "event %s data=0x10", event), -1) << event;
        EXPECT_EQ(fake_number(rig.disk, "event %s data=null", event), -1) << event;
    }
    /* A callback from inside a call would wait for the lock that its caller holds. */
    fake_do(rig.disk, "rule pause inside=\"position value=11\"");
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PAUSE), 0);
    EXPECT_EQ(fake_word(fake_log(rig.disk, "event.position").back(), "result"), "-1");
    EXPECT_EQ(daemon_object(rig.daemon, "radio", "status").at("position"), ":n:7");
    EXPECT_EQ(daemon_object(rig.daemon, "radio", "track").at("index"), ":n:0");
    /* The session before a reconnection is gone for good. */
    EXPECT_EQ(fake_number(rig.disk, "event disconnected uid=disk"), 0);
    EXPECT_EQ(fake_number(rig.disk, "event connected uid=disk"), 0);
    uint64_t ts_id = 0;
    EXPECT_EQ(request_create(rig.client, 0, "/album", 3, 2, &ts_id), 0);
    EXPECT_EQ(ts_id, 1u);
    EXPECT_EQ(fake_number(rig.disk, "event position value=9 session=%s", serial.c_str()), -1);
    EXPECT_EQ(fake_number(rig.disk, "event position value=10"), 0);
    rig_end(rig);
}

TEST(Playback, SkipsWhatCannotBePlayed) {
    rig rig;
    ASSERT_TRUE(rig_start(rig, ALBUM));
    session_on(rig, "radio", "/album", 3);
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
    fake_do(rig.disk, "rule attach id=/album/b result=-1");
    EXPECT_EQ(fake_number(rig.disk, "event error value=0"), 0);
    EXPECT_EQ(daemon_object(rig.daemon, "radio", "track").at("index"), ":n:2");
    expect_calls(rig, "attach", {"/album/a", "/album/b", "/album/c"});
    EXPECT_EQ(fake_number(rig.disk, "event error value=2"), -1);
    /* With repeat all and nothing playable, the search for a track must come to an end. */
    EXPECT_EQ(request_number(rig.client, LYR_MSG_REPEAT, LYR_REPEAT_ALL), 0);
    fake_do(rig.disk, "rule attach result=-1");
    fake_number(rig.disk, "event error value=0");
    EXPECT_LE(fake_number(rig.disk, "count attach"), 3 + 3);
    EXPECT_EQ(fake_number(rig.disk, "event error value=1"), 0);
    EXPECT_EQ(daemon_object(rig.daemon, "radio", "state").at("status"), "::idle");
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

TEST(Playback, BuildsFromAwkwardPages) {
    rig rig;
    ASSERT_TRUE(rig_start(rig, "/t|tree:2,2,3\n"));
    const struct {
        const char* rule;
        int32_t tracks; /* of the 21 in the tree; -1: the first browse already fails */
    } cases[] = {
        {"page=1", 21},    {"page=7", 21},   {"over=2", 21}, {"skip=8 times=1 result=-1", 0},
        {"result=-1", -1}, {"count=-3", -1},
    };
    EXPECT_EQ(request_open(rig.client, "radio"), 0);
    for (const auto& each : cases) {
        SCOPED_TRACE(each.rule);
        fake_do(rig.disk, "unrule");
        fake_do(rig.disk, "rule browse %s", each.rule);
        uint64_t ts_id = 0;
        EXPECT_EQ(request_create(rig.client, 0, "/t", -1, 0, &ts_id), each.tracks < 0 ? -1 : 0);
        if (each.tracks > 0) {
            daemon_await_object(rig.daemon, "radio", "trksession", "length",
                                ":n:" + std::to_string(each.tracks));
            std::vector<request_node> nodes;
            EXPECT_EQ(request_tracks(rig.client, ts_id, 0, -1, nodes), 0);
            EXPECT_EQ(nodes.size(), static_cast<size_t>(each.tracks));
        }
    }
    /* What is not to be believed at all, and records without ids. */
    for (const char* rule : {"count=5", "nullid=1"}) {
        fake_do(rig.disk, "unrule");
        fake_do(rig.disk, "rule browse %s times=40", rule);
        uint64_t ts_id = 0;
        request_create(rig.client, 0, "/t", -1, 0, &ts_id);
        std::vector<request_node> nodes;
        request_browse(rig.client, 0, "/t", 0, -1, nodes);
        EXPECT_EQ(request_sources(rig.client).size(), 1u) << rule;
    }
    rig_end(rig);
}

TEST(Playback, UnpluggedWhileASessionIsBuilt) {
    rig rig;
    ASSERT_TRUE(rig_start(rig, "/t|tree:1,2,3\n"));
    EXPECT_EQ(request_open(rig.client, "radio"), 0);
    const struct {
        const char* rule;
        bool deaf; /* the plug-in does not notice that the browse is cancelled */
    } cases[] = {{"", false}, {"deaf=1", true}};
    for (const auto& each : cases) {
        fake_do(rig.disk, "rule browse id=/t/f1 block=slow %s", each.rule);
        uint64_t ts_id = 0;
        EXPECT_EQ(request_create(rig.client, 0, "/t", -1, 0, &ts_id), 0);
        fake_do(rig.disk, "blocked slow");
        EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
        const std::string ticket = fake_do(rig.disk, "event disconnected uid=disk nowait=1");
        if (each.deaf) {
            fake_do(rig.disk, "await cancel 1");
            fake_do(rig.disk, "release slow");
        }
        EXPECT_EQ(fake_number(rig.disk, "join %s", ticket.c_str()), 0);
        EXPECT_EQ(daemon_object(rig.daemon, "radio", "state").at("status"), "::idle");
        EXPECT_EQ(daemon_object(rig.daemon, "radio", "mediasource").at("type"), ":n:1");
        EXPECT_EQ(daemon_object(rig.daemon, "radio", "track").size(), 0u);
        EXPECT_EQ(fake_do(rig.disk, "sessions"), "");
        EXPECT_TRUE(request_sources(rig.client).empty());
        EXPECT_EQ(request_create(rig.client, 0, "/t", -1, 0, &ts_id), -1);
        fake_do(rig.disk, "reset");
        EXPECT_EQ(fake_number(rig.disk, "event connected uid=disk"), 0);
    }
    rig_end(rig);
}
