/* The playback commands, in player mode and in device mode. */
#include <cerrno>
#include <cmath>
#include <string>

#include <gtest/gtest.h>

#include "media.h"
#include "player_commands.h"
#include "player_registry.h"
#include "player_rig.h"
#include "trksession.h"
#include "trksession_walk.h"

static constexpr uint64_t ALL = 0xF045F;

namespace {

using command = int32_t (*)(player*);

int32_t seek_7(player* player) {
    return player_seek(player, 7);
}
int32_t rate_2(player* player) {
    return player_set_playback_rate(player, 2.0F);
}
int32_t shuffle_1(player* player) {
    return player_shuffle(player, 1);
}
int32_t repeat_1(player* player) {
    return player_repeat(player, 1);
}
int32_t jump_2(player* player) {
    return player_jump(player, 2);
}

struct command_case {
    const char* name;
    command run;
    const char* entry;       /* of the plug-in; player mode */
    uint64_t needs;          /* in player mode; 0 nothing */
    int32_t without_session; /* errno */
    uint64_t device_needs;   /* in device mode; 0: never reaches the device */
    int without_capability;  /* errno in device mode */
};

const command_case commands[] = {
    {"play", player_play, "play", 0, EINVAL, LYR_CAP_PLAY, ENOTSUP},
    {"pause", player_pause, "pause", LYR_CAP_PAUSE, EINVAL, LYR_CAP_PAUSE, 0},
    {"stop", player_stop, "stop", LYR_CAP_STOP, EINVAL, LYR_CAP_STOP, 0},
    {"rate", rate_2, "rate", LYR_CAP_STOP, EINVAL, LYR_CAP_STOP, 0},
    {"seek", seek_7, "seek", LYR_CAP_SEEK, EINVAL, LYR_CAP_SEEK, 0},
    {"next", player_next, "attach", 0, EINVAL, LYR_CAP_NEXT, ENOTSUP},
    {"previous", player_previous, "attach", 0, EINVAL, LYR_CAP_PREVIOUS, ENOTSUP},
    {"shuffle", shuffle_1, "", 0, EINVAL, LYR_CAP_MODES, ENOTSUP},
    {"repeat", repeat_1, "", 0, EINVAL, LYR_CAP_MODES, ENOTSUP},
    {"jump", jump_2, "attach", 0, EINVAL, 0, 0},
};

/* A player with five tracks whose second is current, in a mode and a status. */
struct command_scene {
    player_rig* rig;
    ::player* player;
    int32_t source;
};

command_scene scene(uint64_t capabilities, int32_t mode) {
    player_rig& rig = rig_fresh();
    const int32_t source = rig_source(rig, "commands", capabilities, "/|tracks:5");
    player* player = rig_player(rig, "commander", source, "/", 1, 5);
    player->trksession->ms_session->player_mode = mode;
    fake_do(rig.fake, "clear");
    return {&rig, player, source};
}

TEST(player_commands, need_a_session_a_play_half_and_their_capability) {
    for (const command_case& c : commands) {
        SCOPED_TRACE(c.name);
        command_scene s = scene(ALL & ~c.needs, 1);
        if (c.needs != 0) {
            s.player->status = LYR_STATUS_PLAYING;
            EXPECT_EQ(rig_do(s.player, c.run), -1);
            EXPECT_EQ(fake_number(s.rig->fake, "count %s", c.entry), 0);
            EXPECT_EQ(s.player->status, LYR_STATUS_PLAYING);
        }
        EXPECT_EQ(rig_destroy(s.player), 0);
        errno = 0;
        EXPECT_EQ(rig_do(s.player, c.run), -1);
        EXPECT_EQ(errno, c.without_session);
        player_close(&mmcontrol, "commander");
    }
}

TEST(player_commands, pass_a_device_its_own_list) {
    for (const command_case& c : commands) {
        SCOPED_TRACE(c.name);
        command_scene s = scene(ALL, 0);
        {
            vel_lock_guard guard(s.player->lock);
            s.player->status = LYR_STATUS_PLAYING;
        }
        if (c.device_needs != 0) {
            fake_do(s.rig->fake, "rule %s result=6", c.name);
        }
        if (c.run == player_play) {
            EXPECT_EQ(rig_do(s.player, c.run), 0); /* already playing */
        } else {
            EXPECT_EQ(rig_do(s.player, c.run), c.device_needs != 0 ? 6 : -1);
        }
        EXPECT_EQ(fake_number(s.rig->fake, "count attach"), 0);
        EXPECT_EQ(rig_current(s.player), 1);
        player_close(&mmcontrol, "commander");

        s = scene(ALL & ~c.device_needs, 0);
        s.player->status = c.run == player_play ? LYR_STATUS_STOPPED : LYR_STATUS_PLAYING;
        errno = 0;
        EXPECT_EQ(rig_do(s.player, c.run), -1);
        EXPECT_EQ(errno, c.without_capability);
        player_close(&mmcontrol, "commander");
    }
}

TEST(player_commands, publish_only_what_the_plug_in_did) {
    const struct {
        const char* entry;
        command run;
        int32_t before;
        int32_t after;
        const char* attribute;
        const char* shown_before;
        const char* shown_after;
    } cases[] = {
        {"play", player_play, LYR_STATUS_STOPPED, LYR_STATUS_PLAYING, "status", "::stopped",
         "::playing"},
        {"pause", player_pause, LYR_STATUS_PLAYING, LYR_STATUS_PAUSED, "status", "::stopped",
         "::paused"},
        {"stop", player_stop, LYR_STATUS_PLAYING, LYR_STATUS_STOPPED, "status", "::stopped",
         "::stopped"},
        {"rate", rate_2, LYR_STATUS_PLAYING, LYR_STATUS_PLAYING, "rate", ":n:1.0", ":n:2.0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.entry);
        command_scene s = scene(ALL, 1);
        s.player->status = c.before;
        fake_do(s.rig->fake, "rule %s result=9 times=1", c.entry);
        EXPECT_EQ(rig_do(s.player, c.run), 9);
        EXPECT_EQ(s.player->status, c.before);
        EXPECT_EQ(rig_attribute(*s.rig, "commander", "state", c.attribute), c.shown_before);
        EXPECT_EQ(rig_do(s.player, c.run), 0);
        EXPECT_EQ(s.player->status, c.after);
        EXPECT_EQ(rig_attribute(*s.rig, "commander", "state", c.attribute), c.shown_after);
        player_close(&mmcontrol, "commander");
    }
}

TEST(player_commands, skip_and_keep_playing) {
    command_scene s = scene(ALL, 1);
    const struct {
        int32_t status;
        int32_t position;
        command run;
        int32_t current;
        const char* calls;
    } cases[] = {
        {LYR_STATUS_PLAYING, 0, player_next, 2, "stop attach play"},
        {LYR_STATUS_PAUSED, 0, player_next, 2, "attach"},
        {LYR_STATUS_PLAYING, 5000, player_previous, 0, "stop attach play"},
        {LYR_STATUS_PLAYING, 5001, player_previous, 1, "stop attach play"},
        {LYR_STATUS_STOPPED, 0, jump_2, 2, "attach"},
        {LYR_STATUS_PLAYING, 0, jump_2, 2, "stop attach play"},
    };
    for (const auto& c : cases) {
        trksession_set_current(s.player->trksession, {1, 1, c.position});
        s.player->status = c.status;
        s.player->repeat_mode = LYR_REPEAT_ONE; /* does not hold a skip */
        fake_do(s.rig->fake, "clear");
        EXPECT_EQ(rig_do(s.player, c.run), 0);
        EXPECT_EQ(rig_current(s.player), c.current);
        std::string calls;
        for (const fake_record& record : fake_log(s.rig->fake, "")) {
            if (record.entry != "metadata") {
                calls += (calls.empty() ? "" : " ") + record.entry;
            }
        }
        EXPECT_EQ(calls, c.calls);
        EXPECT_EQ(s.player->status, c.status);
        EXPECT_EQ(s.player->repeat_mode, LYR_REPEAT_ONE);
    }
    EXPECT_EQ(rig_do(s.player, player_jump, 5), -1);
    EXPECT_EQ(rig_logged(*s.rig, "The specified index is out of range"), 1);
    EXPECT_EQ(rig_do(s.player, player_jump, -1), -1);
    EXPECT_EQ(rig_logged(*s.rig, "Invalid track index"), 1);
    player_close(&mmcontrol, "commander");
}

TEST(player_commands, refuse_rates_that_are_no_numbers) {
    command_scene s = scene(ALL, 1);
    vel_lock_guard guard(s.player->lock);
    for (const float rate : {NAN, INFINITY, -INFINITY}) {
        errno = 0;
        EXPECT_EQ(player_set_playback_rate(s.player, rate), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(fake_number(s.rig->fake, "count rate"), 0);
    EXPECT_EQ(player_set_playback_rate(s.player, 1e30F), 0);
    EXPECT_EQ(rig_attribute(*s.rig, "commander", "state", "rate"),
              ":n:1000000015047466219876688855040.0");
}

/* The mode words of the Veloran progressions: "ROSP" shows the index again. */
TEST(player_commands, set_modes_as_they_are_told) {
    player_close(&mmcontrol, "commander");
    command_scene s = scene(ALL, 1);
    mmcontrol.player_cfg->progression_mode = 0;
    EXPECT_EQ(rig_do(s.player, player_shuffle, 1), 0);
    EXPECT_EQ(rig_do(s.player, player_shuffle, 1), 0);
    EXPECT_EQ(rig_logged(*s.rig, "Shuffled 5 tracks"), 1);
    EXPECT_EQ(rig_do(s.player, player_shuffle, -3), 0);
    EXPECT_EQ(rig_attribute(*s.rig, "commander", "state", "shuffle"), "::on");
    EXPECT_EQ(rig_do(s.player, player_repeat, 7), 0);
    EXPECT_EQ(rig_attribute(*s.rig, "commander", "state", "repeat"), "::all");
    EXPECT_EQ(rig_do(s.player, player_next), 0); /* no such mode: the end */
    EXPECT_EQ(rig_current(s.player), 1);
    player_close(&mmcontrol, "commander");
}

} // namespace
