/* What a save copies, while players are at work, and what a restore thread does. */
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "lastmode.h"
#include "mediasource.h"
#include "player_pin.h"
#include "player_registry.h"
#include "player_rig.h"
#include "snapshot.h"
#include "trksession.h"

namespace {

using snapshots = player_test;
using lastmode_threads = player_test;

/* A copy outlives its session, tracks and all, and is not the same as what came after. */
TEST_F(snapshots, keeps_what_it_copied) {
    player* player = rig_player("copied", rig_source(rig, "snapshot", "/|tracks:9"), 4, -1);
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
}

/* A player whose lock is held is copied as it was, or as it is when it was not there. */
TEST_F(snapshots, passes_by_a_busy_player) {
    player* player = rig_player("busy", rig_source(rig, "busy", "/|tracks:9"), 2, -1);
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
}

/* A player that is opened for this, and its saved session of tracks of a source. */
player_state* saved_state(const char* name, int32_t source, const std::vector<const char*>& ids) {
    mmcontrol.lastmode_devices = LYR_MS_TYPE_HDD;
    mmcontrol.lastmode_timeout = 0; /* one look */
    const mediasource* saved = mediasource_by_id(&mmcontrol, source);
    auto* state = static_cast<player_state*>(calloc(1, sizeof(player_state)));
    state->player = player_open(&mmcontrol, name);
    player_pin(state->player);
    state->ms_plugin_name = strdup(saved->plugin_name);
    state->ms_uid = strdup(saved->uid);
    state->length = static_cast<int32_t>(ids.size());
    state->tracks = static_cast<medianode*>(calloc(ids.size(), sizeof(medianode)));
    for (size_t i = 0; i < ids.size(); ++i) {
        state->tracks[i].id = strdup(ids[i]);
    }
    return state;
}

TEST_F(lastmode_threads, asks_again_only_for_a_session) {
    const int32_t source = rig_source(rig, "back", "/|tracks:2");
    const struct {
        const char* rule;
        const char* tracks; /* what comes back */
        int32_t tries;
    } cases[] = {{"update result=1 times=1", "none", 1},
                 {"browse.create null=1 times=1", "/t0 /t1", 2},
                 {"browse.create null=1", "none", 10}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.rule);
        const int32_t looked = rig_logged(rig, "check whether the media source is ready: 0");
        fake_do(rig.fake, "unrule");
        fake_do(rig.fake, "rule %s", each.rule);
        player_state* state = saved_state("back", source, {"/t0", "/t1"});
        player* player = state->player;
        (void)lastmode_thread(state);
        EXPECT_EQ(rig_tracks(player), each.tracks);
        EXPECT_EQ(rig_logged(rig, "check whether the media source is ready: 0"),
                  looked + each.tries);
        player_close(&mmcontrol, "back");
    }
}

/* The state of a native mutex for which somebody waits. */
constexpr int CONTENDED = 2;

/* A source is there when everybody has been told, not before. */
TEST_F(lastmode_threads, lets_the_event_of_a_source_end_first) {
    const int32_t source = rig_source(rig, "late", "/|tracks:2");
    EXPECT_EQ(fake_number(rig.fake, "event disconnected uid=late"), 0);
    player* busy = player_open(&mmcontrol, "busy");
    player_state* state = saved_state("back", source, {"/t0"});
    player* player = state->player;
    rig.log_start = std::filesystem::file_size(rig.log);
    vel_mutex_lock(&busy->lock);
    const std::string ticket = rig_event(rig, "connected uid=late");
    while (mediasource_active(mediasource_by_id(&mmcontrol, source)) == 0) {
    }
    std::thread restoring(lastmode_thread, state);
    /* It waits for the lock of the event, or goes on. */
    while (__atomic_load_n(&mmcontrol.mediasources_lock.native.__data.__lock, __ATOMIC_ACQUIRE) !=
               CONTENDED &&
           rig_logged(rig, "create browse session for ms") == 0) {
    }
    EXPECT_EQ(rig_logged(rig, "create browse session for ms"), 0);
    vel_mutex_unlock(&busy->lock);
    EXPECT_EQ(rig_join(rig, ticket), source);
    restoring.join();
    EXPECT_EQ(rig_tracks(player), "/t0");
}

} // namespace
