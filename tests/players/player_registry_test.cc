/* Opening, sharing and closing players; and who still points at one that has been closed. */
#include <cerrno>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "mediasource_events.h"
#include "player_commands.h"
#include "player_pin.h"
#include "player_registry.h"
#include "player_rig.h"
#include "plugin_watch.h"
#include "trksession_hold.h"

namespace {

using player_registry = player_test;

bool is_published(const player_rig& rig, const std::string& name) {
    return std::filesystem::exists(rig.root + "/run/pps/services/lyrane/" + name);
}

/* A library in which a thread still is must not be unloaded, however many calls there are. */
TEST_F(player_registry, knows_each_of_many_calls_into_plug_ins) {
    static constexpr char QUIET[] = "quiet";
    static constexpr char BUSY[] = "busy";
    std::vector<watch_slot*> calls;
    for (int i = 0; i < 200; ++i) {
        calls.push_back(plugin_watch_enter({QUIET, nullptr, "play", -1}));
    }
    calls.push_back(plugin_watch_enter({BUSY, nullptr, "play", -1}));
    EXPECT_EQ(plugin_watch_inside(BUSY), 1);
    plugin_watch_leave(calls.back());
    calls.pop_back();
    EXPECT_EQ(plugin_watch_inside(BUSY), 0);
    EXPECT_EQ(plugin_watch_inside(QUIET), 1);
    for (watch_slot* call : calls) {
        plugin_watch_leave(call);
    }
    EXPECT_EQ(plugin_watch_inside(QUIET), 0);
}

TEST_F(player_registry, shares_a_player_among_32_clients) {
    player* first = player_open(&mmcontrol, "shared");
    ASSERT_NE(first, nullptr);
    EXPECT_NE(player_open(&mmcontrol, "Shared"), first);
    for (int i = 1; i < PLAYER_CLIENTS_MAX; ++i) {
        EXPECT_EQ(player_open(&mmcontrol, "shared"), first);
    }
    EXPECT_EQ(player_open(&mmcontrol, "shared"), nullptr);
    player_close(&mmcontrol, "shared");
    EXPECT_EQ(player_open(&mmcontrol, "shared"), first);
    EXPECT_EQ(validate_callback_data(first), 0);
    for (int i = 0; i < PLAYER_CLIENTS_MAX; ++i) {
        EXPECT_TRUE(is_published(rig, "shared"));
        player_close(&mmcontrol, "shared");
    }
    EXPECT_FALSE(is_published(rig, "shared"));
    EXPECT_EQ(validate_callback_data(first), -1);
    EXPECT_EQ(player_close(&mmcontrol, "shared"), 0);
    EXPECT_EQ(rig_logged(rig, "There is no Player shared to be closed"), 1);
}

TEST_F(player_registry, refuses_names_and_numbers_without_end) {
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
    EXPECT_TRUE(std::filesystem::is_empty(rig.root + "/run/pps/services/lyrane"));
}

/* An event that waits for the lock of a player which is being closed finds a closed player. */
TEST_F(player_registry, closes_under_an_event_in_flight) {
    player* player = rig_player("flight", rig_source(rig, "registry", "/|tracks:9"), 0, 9);
    EXPECT_EQ(rig_do(player, player_play), 0);
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
    EXPECT_EQ(fake_number(rig.fake, "count stop"), 1);
    EXPECT_EQ(fake_do(rig.fake, "sessions"), "");
    EXPECT_FALSE(is_published(rig, "flight"));
    EXPECT_EQ(fake_do(rig.fake, "violations"), "");
}

/* Validated before the close and locked after it: the pin keeps the memory, the flag sends the
 * event away. */
TEST_F(player_registry, keeps_a_closed_player_for_those_who_wait_for_its_lock) {
    player* player = rig_player("waiting", rig_source(rig, "registry", "/|tracks:9"), 0, 9);
    player_pin(player);
    vel_mutex_lock(&player->lock);
    const std::string ticket = rig_event(rig, "position value=3");
    rig_await_pins(player, 4); /* ours and the event's among them */
    std::thread closer([] { player_close(&mmcontrol, "waiting"); });
    for (int32_t count = 1; count > 0;) {
        vel_lock_guard guard(mmcontrol.players_lock);
        count = players_find(&mmcontrol.players, "waiting") + 1;
    }
    vel_mutex_unlock(&player->lock);
    closer.join();
    const int64_t result = rig_join(rig, ticket);
    EXPECT_TRUE(result == 0 || result == -1); /* whoever got the lock first */
    EXPECT_EQ(rig_do(player, player_play), -1);
    /* Only the memory waits for the last pin: the name is free, and its new player stays. */
    EXPECT_FALSE(is_published(rig, "waiting"));
    EXPECT_NE(player_open(&mmcontrol, "waiting"), player);
    player_unpin(player);
    EXPECT_EQ(rig_attribute(rig, "waiting", "state", "status"), "::idle");
}

} // namespace
