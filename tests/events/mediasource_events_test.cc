/* Sources that come, change and go, with players at work on them. */
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "mediasource.h"
#include "mediasource_events.h"
#include "player_commands.h"
#include "player_registry.h"
#include "player_rig.h"

namespace {

using mediasource_events = player_test;

TEST_F(mediasource_events, keep_a_source_s_id_over_its_absence) {
    player_open(&mmcontrol, "watcher");
    const int32_t id = rig_source(rig, "stick", "", LYR_CAP_DEVICE_LIST);
    const mediasource* source = mediasource_by_id(&mmcontrol, id);
    EXPECT_EQ(source->capabilities, 0x10000BCCu);
    EXPECT_EQ(rig_attribute(rig, "watcher", "mediasource", "type"), ":n:0");
    EXPECT_EQ(fake_number(rig.fake, "event disconnected uid=stick"), 0);
    EXPECT_EQ(source->active, 0);
    EXPECT_EQ(rig_attribute(rig, "watcher", "mediasource", "type"), ":n:1");
    EXPECT_EQ(lyrane_internal_mediasource_connected(0, "STICK", nullptr, nullptr, 2, 5, 1), id);
    EXPECT_EQ(source->name, nullptr);
    EXPECT_EQ(source->type, LYR_MS_TYPE_HDD); /* as it first came */
    EXPECT_STREQ(source->uid, "stick");
    EXPECT_EQ(source->capabilities, 5u);
    EXPECT_NE(lyrane_internal_mediasource_connected(0, "other", "n", "v", 1, 5, 1), id);
    EXPECT_EQ(lyrane_internal_mediasource_connected(7, "other", "n", "v", 1, 5, 1), -1);
    EXPECT_EQ(lyrane_internal_mediasource_connected(0, nullptr, "n", "v", 1, 5, 1), -1);
}

TEST_F(mediasource_events, publish_changes_and_only_changes) {
    const int32_t id = rig_source(rig, "changing", "", LYR_CAP_PLAY);
    player_open(&mmcontrol, "watcher");
    EXPECT_EQ(lyrane_internal_mediasource_status_changed(id, 1), 0);
    EXPECT_EQ(lyrane_internal_mediasource_capability_changed(id, LYR_CAP_PLAY), 0);
    EXPECT_EQ(rig_attribute(rig, "watcher", "mediasource", "type"), "");
    EXPECT_EQ(lyrane_internal_mediasource_capability_changed(id, LYR_CAP_DEVICE_LIST), 0);
    EXPECT_EQ(mediasource_by_id(&mmcontrol, id)->capabilities, LYR_CAP_DEVICE_LIST);
    EXPECT_EQ(rig_attribute(rig, "watcher", "mediasource", "type"), ":n:2");
    EXPECT_EQ(lyrane_internal_mediasource_status_changed(-1, 1), -1);
    EXPECT_EQ(lyrane_internal_mediasource_capability_changed(4711, 1), -1);
    EXPECT_EQ(lyrane_internal_mediasource_disconnected(4711), -1);
}

TEST_F(mediasource_events, take_the_sessions_of_a_lost_source_away) {
    const int32_t lost = rig_source(rig, "lost", "/|tracks:100000");
    const int32_t kept = rig_source(rig, "kept", "/|tracks:3");
    player* other = rig_player("other", kept, 0, 3);
    fake_do(rig.fake, "rule browse page=1 ms=%d", lost);
    player* player = rig_begin("loser", lost, 0, -1);
    EXPECT_EQ(rig_do(player, player_play), 0);
    fake_do(rig.fake, "await browse 9"); /* in the midst of the build */
    EXPECT_EQ(fake_number(rig.fake, "event disconnected uid=lost"), 0);
    EXPECT_EQ(rig_tracks(player), "none");
    EXPECT_EQ(rig_attribute(rig, "loser", "state", "status"), "::idle");
    EXPECT_EQ(rig_tracks(other), "/t0 /t1 /t2");
    EXPECT_EQ(rig_attribute(rig, "other", "mediasource", "type"), ":n:1");
    EXPECT_EQ(rig_do(player, player_play), -1);
    EXPECT_EQ(rig_create(player, lost, 0, -1), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(fake_do(rig.fake, "violations"), "");
}

/* Whoever calls has the player lock: waiting for it here would be for ever. */
TEST_F(mediasource_events, are_refused_from_inside_a_call) {
    const int32_t source = rig_source(rig, "inside", "/|tracks:5");
    player* player = rig_player("insider", source, 0, 5);
    for (const char* event : {"disconnected", "finished", "position", "error"}) {
        fake_do(rig.fake, "clear");
        fake_do(rig.fake, "rule seek times=1 inside=%s", event);
        (void)rig_do(player, player_seek, 1);
        const std::vector<fake_record> made = fake_log(rig.fake, std::string("event.") + event);
        ASSERT_EQ(made.size(), 1u) << event;
        EXPECT_EQ(fake_word(made[0], "result"), "-1") << event;
    }
    EXPECT_EQ(rig_logged(rig, "from inside a call made into it; refused"), 4);
    /* From a build thread, too, which the disconnection would join. */
    EXPECT_EQ(rig_destroy(player), 0);
    fake_do(rig.fake, "clear");
    fake_do(rig.fake, "rule browse inside=\"disconnected uid=inside\"");
    EXPECT_EQ(rig_create(player, source, 0, -1), 0);
    rig_await_build(player);
    for (const fake_record& made : fake_log(rig.fake, "event.disconnected")) {
        EXPECT_EQ(fake_word(made, "result"), "-1");
    }
    EXPECT_EQ(rig_tracks(player), "/t0 /t1 /t2 /t3 /t4");
}

/* A call that does not return is named, and readers of the registry do not wait for it. */
TEST_F(mediasource_events, pass_by_a_call_that_does_not_return) {
    const int32_t source = rig_source(rig, "stuck", "/|tracks:5");
    player* player = rig_player("stuck", source, 0, 5);
    fake_do(rig.fake, "rule seek block=stuck");
    std::thread caller([player] { (void)rig_do(player, player_seek, 1); });
    fake_do(rig.fake, "blocked stuck");
    const std::string ticket = rig_event(rig, "status uid=stuck value=8");
    const std::string named =
        " does not return (player stuck, media source " + std::to_string(source);
    while (rig_logged(rig, named) == 0) {
        EXPECT_NE(mediasource_by_id(&mmcontrol, source), nullptr);
    }
    fake_do(rig.fake, "release stuck");
    EXPECT_EQ(rig_join(rig, ticket), 0);
    caller.join();
    EXPECT_EQ(rig_logged(rig, named), 1);
}

/* Whoever asks a source something holds a player; another source's event waits for that player and
 * holds the events; and the source that goes must end what both wait for. */
TEST_F(mediasource_events, end_what_hangs_on_a_source_that_goes) {
    const int32_t other = rig_source(rig, "other", "");
    int32_t source = -1;
    const struct {
        const char* entry;
        std::function<int32_t(player*)> call;
    } cases[] = {
        {"browse",
         [&source](player* player) {
             int32_t count = -1;
             medianode* nodes = nullptr;
             return mediasource_browse(&mmcontrol, player, source, "/", 0, &count, &nodes);
         }},
        {"metadata",
         [&source](player* player) {
             metadata* data = nullptr;
             return mediasource_get_metadata(&mmcontrol, player, source, "/t0", &data);
         }},
        {"extended",
         [&source](player* player) {
             const char* const keys[] = {"codec", nullptr};
             char* values[] = {nullptr};
             return mediasource_get_extended_metadata(&mmcontrol, player, source, "/t0", keys,
                                                      values);
         }},
        {"update",
         [&source](player* player) {
             medianode node = {};
             return mediasource_update_medianodes(&mmcontrol, player, source, &node, 1);
         }},
    };
    player* player = player_open(&mmcontrol, "asking");
    int32_t status = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.entry);
        source = rig_source(rig, "hanging", "/|tracks:3");
        fake_do(rig.fake, "rule %s block=hang", c.entry);
        std::thread asking([&] {
            vel_lock_guard guard(player->lock);
            EXPECT_EQ(c.call(player), -1);
        });
        fake_do(rig.fake, "blocked hang");
        ++status;
        const std::string waiting =
            rig_event(rig, "status uid=other thread=1 value=" + std::to_string(status));
        while (mediasource_status(mediasource_by_id(&mmcontrol, other)) != status) {
            std::this_thread::yield();
        }
        EXPECT_EQ(fake_number(rig.fake, "event disconnected uid=hanging"), 0);
        fake_do(rig.fake, "release hang"); /* if it did not */
        asking.join();
        EXPECT_EQ(rig_join(rig, waiting), 0);
    }
}

/* As for the list of sources, which is packed under this lock alone. */
TEST_F(mediasource_events, are_never_shown_by_half) {
    const int32_t id = rig_source(rig, "1", "", 1);
    const mediasource* source = mediasource_by_id(&mmcontrol, id);
    std::atomic<bool> over = false;
    std::thread reporter([&over, id] {
        for (int32_t i = 0; i < 2000; ++i) {
            const int32_t value = 1 + i % 2;
            const std::string name = std::to_string(value);
            (void)lyrane_internal_mediasource_connected(0, "1", name.c_str(), nullptr, 1,
                                                        static_cast<uint64_t>(value), value);
            if (i % 4 == 3) {
                (void)lyrane_internal_mediasource_disconnected(id);
            }
        }
        over = true;
    });
    int32_t halves = 0;
    while (!over) {
        if (!vel_mutex_try_lock(&mmcontrol.registry_leaf)) {
            continue;
        }
        const bool active = mediasource_active(source) != 0;
        const int32_t named = atoi(source->name);
        const bool same = mediasource_capabilities(source) == static_cast<uint64_t>(named) &&
                          mediasource_status(source) == (active ? named : 0);
        vel_mutex_unlock(&mmcontrol.registry_leaf);
        halves += same ? 0 : 1;
    }
    reporter.join();
    EXPECT_EQ(halves, 0);
}

} // namespace
