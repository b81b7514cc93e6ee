/* Which track comes next, and what happens when the plug-in does not want it. */
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "player_commands.h"
#include "player_registry.h"
#include "player_rig.h"
#include "trksession.h"
#include "trksession_hold.h"
#include "trksession_shuffle.h"
#include "trksession_walk.h"

static constexpr uint64_t ALL = 0xF045F;

namespace {

void set_order(player* player, const std::vector<int32_t>& order) {
    vel_lock_guard guard(player->trksession->lock);
    for (int32_t p = 0; p < static_cast<int32_t>(order.size()); ++p) {
        player->trksession->order[p] = order[static_cast<size_t>(p)];
        player->trksession->inverse_order[order[static_cast<size_t>(p)]] = p;
    }
}

TEST(player_walk, follows_repeat_and_shuffle) {
    player_rig& rig = rig_fresh();
    const int32_t source = rig_source(rig, "walk", ALL, "/|tracks:5");
    player* player = rig_player(rig, "walker", source, "/", 0, 5);
    set_order(player, {2, 0, 4, 1, 3});
    const struct {
        int32_t shuffle;
        int32_t repeat;
        int32_t current;
        int32_t next; /* -1: none */
        int32_t previous;
    } cases[] = {
        {0, 0, 0, 1, -1}, {0, 0, 4, -1, 3}, {0, 1, 4, 0, 3},  {0, 1, 0, 1, 4},   {0, 2, 4, 4, 4},
        {1, 0, 4, 1, 0},  {1, 0, 3, -1, 1}, {1, 0, 2, 0, -1}, {1, 1, 3, 2, 1},   {1, 1, 2, 0, 3},
        {1, 2, 1, 1, 1},  {2, 0, 0, 1, -1}, {2, 1, 4, 0, 3},  {0, 7, 2, -1, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "shuffle " << c.shuffle << " repeat " << c.repeat
                                        << " current " << c.current);
        vel_lock_guard guard(player->lock);
        player->shuffle_mode = c.shuffle;
        player->repeat_mode = c.repeat;
        trksession_set_current(player->trksession, {c.current, c.current, 0});
        int32_t next = -1;
        int32_t previous = -1;
        EXPECT_EQ(trksession_internal_next_index(player, &next), c.next < 0 ? -1 : 0);
        EXPECT_EQ(trksession_internal_prev_index(player, &previous), c.previous < 0 ? -1 : 0);
        EXPECT_EQ(next, c.next);
        EXPECT_EQ(previous, c.previous);
    }
    player_close(&mmcontrol, "walker");
}

TEST(player_walk, shuffles_with_the_current_track_first) {
    player_rig& rig = rig_fresh();
    const int32_t source = rig_source(rig, "walk", ALL, "/|tracks:50");
    player* player = rig_player(rig, "shuffler", source, "/", 33, 50);
    EXPECT_EQ(rig_do(player, player_shuffle, 1), 0);
    EXPECT_EQ(rig_logged(rig, "Shuffled 50 tracks starting at index 1."), 1);
    EXPECT_EQ(rig_attribute(rig, "shuffler", "state", "shuffle"), "::on");
    {
        trksession* session = player->trksession;
        vel_lock_guard guard(session->lock);
        EXPECT_EQ(session->order[0], 33);
        std::vector<int32_t> order(session->order, session->order + 50);
        EXPECT_FALSE(std::is_sorted(order.begin() + 1, order.end()));
        for (int32_t p = 0; p < 50; ++p) {
            EXPECT_EQ(session->inverse_order[session->order[p]], p);
        }
        std::sort(order.begin(), order.end());
        for (int32_t i = 0; i < 50; ++i) {
            EXPECT_EQ(order[static_cast<size_t>(i)], i);
        }
    }
    EXPECT_EQ(trksession_shuffle(player->trksession, 40, 11, 0, 0), -1);
    EXPECT_EQ(trksession_shuffle(player->trksession, 0, 50, 50, 1), -1);
    EXPECT_EQ(trksession_shuffle(player->trksession, INT32_MAX, INT32_MAX, 0, 0), -1);
    EXPECT_EQ(trksession_shuffle(player->trksession, 0, 0, 0, 1), 0);
    player_close(&mmcontrol, "shuffler");
}

/* Requests alone could once lead into arrays that are not there. */
TEST(player_walk, has_no_tracks_to_walk) {
    player_rig& rig = rig_fresh();
    const int32_t source = rig_source(rig, "walk", ALL, "/|tracks:2");
    player* player = rig_player(rig, "empty", source, "/", 7, -1);
    EXPECT_EQ(rig_do(player, player_shuffle, 1), 0);
    EXPECT_EQ(rig_do(player, player_next), 0);
    EXPECT_EQ(rig_logged(rig, "We are at the end of the trksession"), 1);
    EXPECT_EQ(rig_do(player, player_repeat, LYR_REPEAT_ALL), 0);
    EXPECT_EQ(rig_do(player, player_next), -1);
    EXPECT_EQ(rig_do(player, player_previous), -1);
    EXPECT_EQ(rig_logged(rig, "Cannot retrieve media node from trksession"), 2);
    player_close(&mmcontrol, "empty");
}

TEST(player_walk, tries_the_following_tracks_when_one_is_refused) {
    player_rig& rig = rig_fresh();
    const int32_t source = rig_source(rig, "walk", ALL, "/|tracks:5");
    player* player = rig_player(rig, "attacher", source, "/", 2, 5);
    const struct {
        const char* rule;
        int32_t repeat;
        int32_t tries;
        int32_t result;
        std::vector<std::string> tried;
        int32_t current;
    } cases[] = {
        {"rule attach id=/t2 result=1", 0, 5, 0, {"/t2", "/t3"}, 3},
        {"rule attach result=1", 0, 5, -1, {"/t2", "/t3", "/t4"}, 4},
        {"rule attach result=1", 1, 9, -1, {"/t2", "/t3", "/t4", "/t0", "/t1"}, 1},
        {"rule attach result=1", 1, 2, -1, {"/t2", "/t3"}, 3},
        {"rule attach result=1", 1, 0, -1, {"/t2"}, 2},
        {"rule attach result=1", 2, 5, -1, {"/t2"}, 2},
    };
    for (const auto& c : cases) {
        player_rig& fresh = rig_fresh();
        fake_do(fresh.fake, "%s", c.rule);
        {
            vel_lock_guard guard(player->lock);
            player->repeat_mode = c.repeat;
            player->status = LYR_STATUS_PAUSED;
            EXPECT_EQ(player_internal_attach_medianode(player, 2, c.tries), c.result);
            EXPECT_EQ(player->status, c.result == 0 ? LYR_STATUS_PAUSED : LYR_STATUS_STOPPED);
        }
        EXPECT_EQ(fake_ids(fresh.fake, "attach"), c.tried);
        EXPECT_EQ(rig_current(player), c.current);
        EXPECT_EQ(rig_logged(fresh, "Cannot find valid media nodes to be attached"),
                  c.result == 0 ? 0 : 1);
    }
    player_close(&mmcontrol, "attacher");
}

TEST(player_walk, hands_out_pages) {
    player_rig& rig = rig_fresh();
    const int32_t source = rig_source(rig, "walk", ALL, "/|tracks:5");
    player* player = rig_player(rig, "pager", source, "/", 0, 5);
    trksession* session = trksession_hold(player);
    const struct {
        int32_t offset;
        int32_t limit;
        int32_t result;
        int32_t delivered;
    } cases[] = {{0, -1, 0, 5},  {3, -1, 0, 2},  {3, 9, 0, 2},         {1, 2, 0, 2},
                 {0, 0, 0, 0},   {9, 0, 0, 0},   {1, INT32_MAX, 0, 4}, {5, 1, -1, 1},
                 {-1, 1, -1, 1}, {0, -2, -1, -2}};
    for (const auto& c : cases) {
        vel_lock_guard guard(session->lock);
        medianode* tracks = nullptr;
        int32_t limit = c.limit;
        EXPECT_EQ(trksession_get_tracks(session, 0, c.offset, &limit, &tracks), c.result);
        EXPECT_EQ(limit, c.delivered) << c.offset << " " << c.limit;
        EXPECT_EQ(tracks != nullptr, c.result == 0 && c.limit != 0);
    }
    trksession_release(session);
    player_close(&mmcontrol, "pager");
}

} // namespace
