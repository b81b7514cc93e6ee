/* What plug-ins report while they play. */
#include <string>

#include "player_commands.h"
#include "player_rig.h"
#include "trksession.h"
#include "trksession_walk.h"

namespace {

/* A player that plays track `current` of three. */
struct playback_events : player_test {
    ::player* player = nullptr;
    void play(int32_t current) {
        player = rig_player("player", rig_source(rig, "events", "/|tracks:3"), current, 3);
        EXPECT_EQ(rig_do(player, player_play), 0);
        fake_do(rig.fake, "clear");
    }
};

TEST_F(playback_events, go_on_whatever_the_status_unless_a_device_walks) {
    play(1);
    EXPECT_EQ(rig_do(player, player_pause), 0);
    EXPECT_EQ(fake_number(rig.fake, "event finished"), 0);
    EXPECT_EQ(fake_ids(rig.fake, "attach"), std::vector<std::string>{"/t2"});
    EXPECT_EQ(fake_number(rig.fake, "count play"), 1);
    EXPECT_EQ(player->status, LYR_STATUS_PAUSED);
    EXPECT_EQ(rig_do(player, player_repeat, LYR_REPEAT_ALL), 0);
    player->trksession->ms_session->player_mode = 0;
    EXPECT_EQ(fake_number(rig.fake, "event finished"), 0);
    EXPECT_EQ(player->status, LYR_STATUS_STOPPED);
    EXPECT_EQ(rig_current(player), 2);
}

TEST_F(playback_events, of_earlier_sessions_change_nothing) {
    play(0);
    trksession_set_position(player->trksession, 17);
    for (const char* event :
         {"position value=5", "finished", "changed node=/t1", "state status=3", "error value=1"}) {
        SCOPED_TRACE(event);
        for (const char* whose : {"session=null", "session=0x1234", "data=0x40"}) {
            EXPECT_EQ(fake_number(rig.fake, "event %s %s", event, whose), -1) << whose;
        }
    }
    EXPECT_EQ(player->status, LYR_STATUS_PLAYING);
    EXPECT_EQ(trksession_current(player->trksession).trk_pos, 17);
    EXPECT_EQ(rig_current(player), 0);
    EXPECT_EQ(fake_number(rig.fake, "event browse_error"), 0);
}

TEST_F(playback_events, show_positions_changes_and_states) {
    play(1);
    EXPECT_EQ(fake_number(rig.fake, "event position value=4200"), 0);
    EXPECT_EQ(rig_attribute(rig, "player", "status", "position"), ":n:4200");
    EXPECT_EQ(fake_number(rig.fake, "event changed node=/t2"), 0);
    EXPECT_NE(rig_attribute(rig, "player", "track", "media_node").find("\"id\":\"/t2\""),
              std::string::npos);
    EXPECT_EQ(rig_attribute(rig, "player", "track", "index"), ":n:1");
    EXPECT_EQ(fake_number(rig.fake, "event changed"), 0); /* no node: the attribute goes */
    EXPECT_EQ(rig_attribute(rig, "player", "track", "media_node"), "");
    EXPECT_EQ(fake_number(rig.fake, "event state status=3 shuffle=1 repeat=2 rate=1.5"), 0);
    EXPECT_EQ(rig_attribute(rig, "player", "state", "status"), "::paused");
    EXPECT_EQ(rig_attribute(rig, "player", "state", "repeat"), "::one");
    EXPECT_EQ(rig_attribute(rig, "player", "state", "rate"), ":n:1.5");
    EXPECT_EQ(player->shuffle_mode, 1);
    int32_t refused = 0;
    for (const char* rate : {"nan", "inf", "-inf"}) { /* the rate stays, the rest counts */
        EXPECT_EQ(fake_number(rig.fake, "event state status=4 rate=%s", rate), 0);
        EXPECT_EQ(player->playback_rate, 1.5F);
        EXPECT_EQ(rig_logged(rig, "reports a playback rate that is no number"), ++refused);
    }
    EXPECT_EQ(rig_attribute(rig, "player", "state", "rate"), ":n:1.5");
    EXPECT_EQ(player->status, LYR_STATUS_STOPPED);
}

} // namespace
