/* What a save copies, while players are at work. */
#include <string>

#include <gtest/gtest.h>

#include "lastmode.h"
#include "player_registry.h"
#include "player_rig.h"
#include "snapshot.h"

static constexpr uint64_t ALL = 0xF045F;

/* A copy outlives its session, tracks and all, and is not the same as what came after. */
TEST(snapshot, keeps_what_it_copied) {
    player_rig& rig = rig_fresh();
    const int32_t source = rig_source(rig, "snapshot", ALL, "/|tracks:9");
    player* player = rig_player(rig, "copied", source, "/", 4, -1);
    rig_await_build(player);
    ASSERT_NE(player_open(&mmcontrol, "empty"), nullptr); /* nothing of it is saved */
    bool is_whole = false;
    snapshot before = snapshot_take(&mmcontrol, nullptr, &is_whole);
    snapshot again = snapshot_take(&mmcontrol, &before, &is_whole);
    EXPECT_TRUE(is_whole);
    EXPECT_TRUE(snapshot_same(&before, &again));
    snapshot_free(&again);
    EXPECT_EQ(rig_destroy(player), 0);
    ASSERT_EQ(before.count, 1);
    const saved_player& copy = before.players[0];
    EXPECT_STREQ(copy.name, "copied");
    EXPECT_EQ(copy.length, 9);
    EXPECT_EQ(copy.trk_id, 4);
    EXPECT_STREQ(copy.mn_id, "/");
    std::string ids;
    for (int32_t i = 0; i < copy.length; ++i) {
        ids += copy.session->tracks[i].id;
    }
    EXPECT_EQ(ids, "/t0/t1/t2/t3/t4/t5/t6/t7/t8");
    again = snapshot_take(&mmcontrol, &before, &is_whole);
    EXPECT_EQ(again.count, 0);
    EXPECT_FALSE(snapshot_same(&before, &again));
    snapshot_free(&again);
    snapshot_free(&before);
    player_close(&mmcontrol, "copied");
    player_close(&mmcontrol, "empty");
}

/* A player whose lock is held is copied as it was, or as it is when it was not there. */
TEST(snapshot, passes_by_a_busy_player) {
    player_rig& rig = rig_fresh();
    const int32_t source = rig_source(rig, "busy", ALL, "/|tracks:9");
    player* player = rig_player(rig, "busy", source, "/", 2, -1);
    bool is_whole = false;
    snapshot before = snapshot_take(&mmcontrol, nullptr, &is_whole);
    vel_mutex_lock(&player->lock);
    player->repeat_mode = LYR_REPEAT_ALL;
    snapshot now = snapshot_take(&mmcontrol, &before, &is_whole);
    EXPECT_FALSE(is_whole);
    ASSERT_EQ(now.count, 1);
    EXPECT_EQ(now.players[0].repeat_mode, LYR_REPEAT_OFF);
    EXPECT_EQ(now.players[0].session, nullptr);
    EXPECT_EQ(snapshot_find(&before, now.players[0].ts_id), &before.players[0]);
    snapshot_free(&now);
    now = snapshot_take(&mmcontrol, nullptr, &is_whole);
    EXPECT_FALSE(is_whole);
    ASSERT_EQ(now.count, 1);
    EXPECT_EQ(now.players[0].repeat_mode, LYR_REPEAT_ALL);
    snapshot_free(&now);
    vel_mutex_unlock(&player->lock);
    snapshot_free(&before);
    player_close(&mmcontrol, "busy");
}

TEST(lastmode_thread, says_what_it_lacks) {
    player_rig& rig = rig_fresh();
    EXPECT_EQ(lastmode_thread(nullptr), nullptr);
    EXPECT_EQ(rig_logged(rig, "The user data to lastmode thread is NULL"), 1);
    EXPECT_EQ(lastmode_thread(calloc(1, sizeof(player_state))), nullptr);
    EXPECT_EQ(rig_logged(rig, "Invalid player associated with lastmode state"), 1);
}
