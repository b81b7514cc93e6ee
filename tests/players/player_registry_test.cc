/* Opening, sharing and closing players; and who still points at one that has been closed. */
#include <cerrno>
#include <filesystem>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "player_commands.h"
#include "player_pin.h"
#include "player_registry.h"
#include "player_rig.h"
#include "trksession_hold.h"

static constexpr uint64_t ALL = 0xF045F;

namespace {

std::string directory(const player_rig& rig, const std::string& name) {
    return rig.root + "/run/pps/services/lyrane/" + name;
}

TEST(player_registry, shares_a_player_among_32_clients) {
    player_rig& rig = rig_fresh();
    player* first = player_open(&mmcontrol, "shared");
    ASSERT_NE(first, nullptr);
    EXPECT_NE(player_open(&mmcontrol, "Shared"), first);
    player_close(&mmcontrol, "Shared");
    for (int i = 1; i < PLAYER_CLIENTS_MAX; ++i) {
        EXPECT_EQ(player_open(&mmcontrol, "shared"), first);
    }
    EXPECT_EQ(player_open(&mmcontrol, "shared"), nullptr);
    EXPECT_EQ(rig_logged(rig, "Too many clients connected to Player shared now (max 32)"), 1);
    player_close(&mmcontrol, "shared");
    EXPECT_EQ(player_open(&mmcontrol, "shared"), first);
    EXPECT_EQ(rig_attribute(rig, "shared", "state", "status"), "::idle");
    EXPECT_EQ(rig_attribute(rig, "shared", "state", "rate"), ":n:1.0");
    for (int i = 0; i < PLAYER_CLIENTS_MAX; ++i) {
        EXPECT_TRUE(std::filesystem::exists(directory(rig, "shared")));
        player_close(&mmcontrol, "shared");
    }
    EXPECT_FALSE(std::filesystem::exists(directory(rig, "shared")));
    EXPECT_EQ(player_close(&mmcontrol, "shared"), 0);
    EXPECT_EQ(rig_logged(rig, "There is no Player shared to be closed"), 1);
}

TEST(player_registry, refuses_names_and_numbers_without_end) {
    (void)rig_fresh();
    for (const char* name : {"", ".", "..", ".all", "a/b", "x?wait", "line\nfeed", "\x7f"}) {
        errno = 0;
        EXPECT_EQ(player_open(&mmcontrol, name), nullptr) << name;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(player_open(&mmcontrol, std::string(PLAYER_NAME_MAX + 1, 'n').c_str()), nullptr);
    EXPECT_NE(player_open(&mmcontrol, std::string(PLAYER_NAME_MAX, 'n').c_str()), nullptr);
    EXPECT_NE(player_open(&mmcontrol, "\xff\xfe \"quoted\""), nullptr);
    for (int i = 2; i < PLAYERS_MAX; ++i) {
        EXPECT_NE(player_open(&mmcontrol, ("p" + std::to_string(i)).c_str()), nullptr);
    }
    errno = 0;
    EXPECT_EQ(player_open(&mmcontrol, "one more"), nullptr);
    EXPECT_EQ(errno, ENFILE);
    EXPECT_EQ(players_force_close(&mmcontrol), 0);
    EXPECT_TRUE(std::filesystem::is_empty(directory(rig_fresh(), "")));
}

TEST(player_registry, takes_everything_down_at_close) {
    player_rig& rig = rig_fresh();
    const int32_t source = rig_source(rig, "registry", ALL, "/|tracks:9");
    player* player = rig_player(rig, "closed", source, "/", 0, -1);
    EXPECT_EQ(rig_do(player, player_play), 0);
    player_close(&mmcontrol, "closed");
    EXPECT_EQ(fake_number(rig.fake, "count stop"), 1);
    EXPECT_EQ(fake_do(rig.fake, "sessions"), "");
    EXPECT_FALSE(std::filesystem::exists(directory(rig, "closed")));
    EXPECT_EQ(fake_do(rig.fake, "violations"), "");
}

/* An event that waits for the lock of a player which is being closed finds a closed player. */
TEST(player_registry, closes_under_an_event_in_flight) {
    player_rig& rig = rig_fresh();
    const int32_t source = rig_source(rig, "registry", ALL, "/|tracks:9");
    player* player = rig_player(rig, "flight", source, "/", 0, 9);
    trksession* held = trksession_hold(player);
    fake_do(rig.fake, "rule play.destroy block=closing");
    std::thread closer([] { player_close(&mmcontrol, "flight"); });
    fake_do(rig.fake, "blocked closing");
    /* The player is out of the registry: a new event is refused at once, while the close goes on.
     */
    EXPECT_EQ(fake_number(rig.fake, "event position value=3 thread=1"), -1);
    fake_do(rig.fake, "release closing");
    closer.join();
    EXPECT_GE(rig_logged(rig, "Invalid callback_data passed in by Plug-in"), 1);
    {
        vel_lock_guard guard(held->lock);
        EXPECT_EQ(held->destroyed, 1);
        EXPECT_EQ(held->length, 0);
    }
    trksession_release(held);
}

/* Validated before the close and locked after it: the pin keeps the memory, the flag sends the
 * event away. */
TEST(player_registry, keeps_a_closed_player_for_those_who_wait_for_its_lock) {
    player_rig& rig = rig_fresh();
    const int32_t source = rig_source(rig, "registry", ALL, "/|tracks:9");
    player* player = rig_player(rig, "waiting", source, "/", 0, 9);
    player_pin(player);
    vel_mutex_lock(&player->lock);
    const std::string ticket = fake_do(rig.fake, "event position value=3 nowait=1");
    /* The event is in flight once it holds a pin beside the registry's and ours. */
    for (int32_t pins = 0; pins < 3;) {
        vel_lock_guard guard(mmcontrol.players_lock);
        pins = player->pins;
    }
    std::thread closer([] { player_close(&mmcontrol, "waiting"); });
    for (int32_t count = 1; count > 0;) {
        vel_lock_guard guard(mmcontrol.players_lock);
        count = players_find(&mmcontrol.players, "waiting") + 1;
    }
    vel_mutex_unlock(&player->lock);
    closer.join();
    const int64_t result = fake_number(rig.fake, "join %s", ticket.c_str());
    EXPECT_TRUE(result == 0 || result == -1); /* whoever got the lock first */
    EXPECT_EQ(rig_do(player, player_play), -1);
    /* Only the memory waits for the last pin: the name is free, and its new player stays. */
    EXPECT_FALSE(std::filesystem::exists(directory(rig, "waiting")));
    EXPECT_NE(player_open(&mmcontrol, "waiting"), player);
    player_unpin(player);
    EXPECT_EQ(rig_attribute(rig, "waiting", "state", "status"), "::idle");
    player_close(&mmcontrol, "waiting");
}

} // namespace
