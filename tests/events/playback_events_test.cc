/* What plug-ins report while they play. */
#include <string>

#include <gtest/gtest.h>

#include "player_commands.h"
#include "player_registry.h"
#include "player_rig.h"
#include "trksession.h"
#include "trksession_walk.h"

static constexpr uint64_t ALL = 0xF045F;

namespace {

/* A player that plays track `current` of three. */
struct event_scene {
    player_rig* rig;
    ::player* player;
};

event_scene playing(int32_t current, int32_t repeat) {
    player_rig& rig = rig_fresh();
    const int32_t source = rig_source(rig, "events", ALL, "/|tracks:3");
    player* player = rig_player(rig, "player", source, "/", current, 3);
    EXPECT_EQ(rig_do(player, player_play), 0);
    (void)rig_do(player, player_repeat, repeat);
    rig_await_build(player);
    fake_do(rig.fake, "clear");
    return {&rig, player};
}

TEST(playback_events, stop_a_device_at_the_end) {
    event_scene s = playing(0, 1);
    s.player->trksession->ms_session->player_mode = 0;
    EXPECT_EQ(fake_number(s.rig->fake, "event finished"), 0);
    EXPECT_EQ(s.player->status, LYR_STATUS_STOPPED);
    EXPECT_EQ(rig_current(s.player), 0);
    EXPECT_EQ(rig_logged(*s.rig, "The trksession finished its playing in device mode"), 1);
    player_close(&mmcontrol, "player");
}

TEST(playback_events, go_on_where_they_can) {
    event_scene s = playing(1, 0);
    EXPECT_EQ(rig_do(s.player, player_pause), 0);
    EXPECT_EQ(fake_number(s.rig->fake, "event finished"), 0); /* whatever the status */
    EXPECT_EQ(fake_ids(s.rig->fake, "attach"), std::vector<std::string>{"/t2"});
    EXPECT_EQ(fake_number(s.rig->fake, "count play"), 1);
    EXPECT_EQ(s.player->status, LYR_STATUS_PAUSED);
    EXPECT_EQ(fake_number(s.rig->fake, "event error value=0"), 0);
    EXPECT_EQ(s.player->status, LYR_STATUS_PAUSED) << "the last track's error leaves it";
    player_close(&mmcontrol, "player");

    const int32_t source = rig_source(*s.rig, "events", ALL, "/|tracks:3");
    s.player = rig_player(*s.rig, "player", source, "/", 7, -1);
    rig_await_build(s.player);
    EXPECT_EQ(rig_tracks(s.player), "") << "begins beyond the folder";
    EXPECT_EQ(fake_number(s.rig->fake, "event error value=0"), 0);
    EXPECT_EQ(s.player->status, LYR_STATUS_IDLE);
    EXPECT_EQ(rig_do(s.player, player_repeat, LYR_REPEAT_ALL), 0);
    EXPECT_EQ(fake_number(s.rig->fake, "event error value=0"), -1);
    EXPECT_EQ(rig_logged(*s.rig, "Cannot retrieve media node from trksession"), 1);
    player_close(&mmcontrol, "player");
}

TEST(playback_events, of_earlier_sessions_change_nothing) {
    event_scene s = playing(0, 0);
    trksession_set_position(s.player->trksession, 17);
    const struct {
        const char* event;
        const char* log;
    } cases[] = {
        {"position value=5", "Invalid position updates callback"},
        {"finished", "Invalid track finished callback"},
        {"changed node=/t1", "Invalid track finished callback"},
        {"state status=3", "Invalid state update callback"},
        {"error value=1", "Invalid track finished callback"},
    };
    for (const auto& c : cases) {
        for (const char* session : {"null", "0x1234"}) {
            EXPECT_EQ(fake_number(s.rig->fake, "event %s session=%s", c.event, session), -1);
        }
        EXPECT_GE(rig_logged(*s.rig, c.log), 2);
        EXPECT_EQ(fake_number(s.rig->fake, "event %s data=0x40", c.event), -1);
    }
    EXPECT_EQ(trksession_current(s.player->trksession).trk_pos, 17);
    EXPECT_EQ(rig_current(s.player), 0);
    EXPECT_EQ(fake_number(s.rig->fake, "event browse_error"), 0);
    player_close(&mmcontrol, "player");
}

TEST(playback_events, show_positions_changes_and_states) {
    event_scene s = playing(1, 0);
    EXPECT_EQ(fake_number(s.rig->fake, "event position value=4200"), 0);
    EXPECT_EQ(rig_attribute(*s.rig, "player", "status", "position"), ":n:4200");
    EXPECT_EQ(fake_number(s.rig->fake, "event changed node=/t2"), 0);
    EXPECT_NE(rig_attribute(*s.rig, "player", "track", "media_node").find("\"id\":\"/t2\""),
              std::string::npos);
    EXPECT_EQ(rig_attribute(*s.rig, "player", "track", "index"), ":n:1");
    EXPECT_EQ(fake_number(s.rig->fake, "event changed"), 0); /* no node: the attribute goes */
    EXPECT_EQ(rig_attribute(*s.rig, "player", "track", "media_node"), "");
    EXPECT_EQ(fake_number(s.rig->fake, "event state status=3 shuffle=1 repeat=2 rate=1.5"), 0);
    EXPECT_EQ(rig_attribute(*s.rig, "player", "state", "status"), "::paused");
    EXPECT_EQ(rig_attribute(*s.rig, "player", "state", "repeat"), "::one");
    EXPECT_EQ(rig_attribute(*s.rig, "player", "state", "rate"), ":n:1.5");
    EXPECT_EQ(s.player->shuffle_mode, 1);
    int32_t refused = 0;
    for (const char* rate : {"nan", "inf", "-inf"}) { /* the rate stays, the rest counts */
        EXPECT_EQ(fake_number(s.rig->fake, "event state status=4 rate=%s", rate), 0);
        EXPECT_EQ(s.player->playback_rate, 1.5F);
        EXPECT_EQ(rig_logged(*s.rig, "reports a playback rate that is no number"), ++refused);
    }
    EXPECT_EQ(rig_attribute(*s.rig, "player", "state", "rate"), ":n:1.5");
    EXPECT_EQ(s.player->status, LYR_STATUS_STOPPED);
    player_close(&mmcontrol, "player");
}

} // namespace
