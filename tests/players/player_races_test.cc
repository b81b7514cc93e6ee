/* Requests, events and builds that meet on one player. Most tests hold the threads at the place
 * where they would collide, so that what keeps them apart is needed for certain; the others let
 * them run free, for the thread sanitizer to watch. */
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <lyrane/client.h>

#include "mediasource.h"
#include "mediasource_events.h"
#include "msgserver.h"
#include "player_commands.h"
#include "player_registry.h"
#include "player_rig.h"
#include "service.h"
#include "trksession.h"
#include "trksession_build.h"
#include "trksession_hold.h"
#include "trksession_shuffle.h"

namespace {

using player_races = player_test;

/* Waits until the player's session has been told to end. */
void await_cancelled(player* player) {
    for (bool cancelled = false; !cancelled;) {
        trksession* session = trksession_hold(player);
        cancelled = session == nullptr || session->cancelled != 0;
        trksession_release(session);
    }
}

bool building(player* player) {
    vel_lock_guard guard(player->trksession->lock);
    return player->trksession->build_done == 0;
}

/* --- Players ---------------------------------------------------------------------------------- */

/* As if each of them had waited for the lock while the player was closed. */
TEST_F(player_races, leave_a_closed_player_alone) {
    player* player = rig_player("closed", rig_source(rig, "races", "/|tracks:3"), 0, 3);
    player->closed = 1;
    for (const char* event :
         {"position value=3", "finished", "changed node=/t1", "state status=3", "error value=1"}) {
        EXPECT_EQ(fake_number(rig.fake, "event %s", event), -1) << event;
    }
    EXPECT_EQ(rig_logged(rig, "Invalid callback_data passed in by Plug-in"), 5);
    for (const char* event : {"status value=7", "caps value=0xf045e", "disconnected"}) {
        EXPECT_EQ(fake_number(rig.fake, "event %s uid=races", event), 0) << event;
    }
    EXPECT_EQ(rig_attribute(rig, "closed", "mediasource", "type"), "");
    EXPECT_EQ(rig_tracks(player), "/t0 /t1 /t2");
    player->closed = 0;
}

/* The disconnection is held in the middle of its walk over the players. */
TEST_F(player_races, walk_over_players_that_come_and_go) {
    const int32_t source = rig_source(rig, "races", "/|tracks:3");
    player_open(&mmcontrol, "before");
    (void)rig_player("holding", source, 0, 3);
    for (const char* name : {"behind", "last"}) {
        player_open(&mmcontrol, name);
    }
    fake_do(rig.fake, "rule play.destroy block=walk");
    const std::string ticket = rig_event(rig, "disconnected uid=races");
    fake_do(rig.fake, "blocked walk");
    player_close(&mmcontrol, "before"); /* the list moves up, and nobody is left out */
    player_close(&mmcontrol, "behind"); /* still to be visited */
    player* late = player_open(&mmcontrol, "late");
    EXPECT_EQ(rig_create(late, source, 0, 3), -1); /* already nothing to build on */
    EXPECT_EQ(errno, ENODEV);
    fake_do(rig.fake, "release walk");
    EXPECT_EQ(rig_join(rig, ticket), 0);
    EXPECT_EQ(rig_attribute(rig, "last", "mediasource", "type"), ":n:1");
    EXPECT_EQ(fake_do(rig.fake, "sessions"), "");
}

/* --- Builds ----------------------------------------------------------------------------------- */

/* The flag stops a walk between two pages, where a cancel finds no browse to end: it must be there
 * before the cancel. */
TEST_F(player_races, tell_a_build_to_end_before_its_browse_is_cancelled) {
    const int32_t source = rig_source(rig, "races", "/|tracks:9");
    fake_do(rig.fake, "rule browse page=1");
    fake_do(rig.fake, "rule browse skip=3 times=1 block=page deaf=1");
    fake_do(rig.fake, "rule cancel block=cancel");
    player* player = rig_begin("builder", source, 0, -1);
    fake_do(rig.fake, "blocked page");
    std::thread destroyer([player] { EXPECT_EQ(rig_destroy(player), 0); });
    fake_do(rig.fake, "blocked cancel");
    fake_do(rig.fake, "release page");
    rig_await_build(player);
    EXPECT_EQ(fake_number(rig.fake, "count browse"), 4);
    fake_do(rig.fake, "release cancel");
    destroyer.join();
    EXPECT_EQ(rig_attribute(rig, "builder", "state", "status"), "::idle");
    EXPECT_EQ(rig_attribute(rig, "builder", "trksession", "type"), ":n:1");
}

/* A browse that is entered only after the first cancel has come and gone: the destroyer, and the
 * disconnection that waits for the lock which the browse holds, must cancel again. */
const lyr_browse_api* late_entries;
fake_client* late_fake;
int32_t late_count; /* what the browse asks for that comes late */
std::atomic<bool> late_begun;

int32_t late_browse(void* session, const char* id, int32_t offset, int32_t* count,
                    medianode** nodes) noexcept {
    if (*count == late_count) {
        late_begun = true;
        fake_do(*late_fake, "await cancel 2 returned=1");
        fake_do(*late_fake, "rule browse block=heard");
    }
    return late_entries->browse(session, id, offset, count, nodes);
}

TEST_F(player_races, cancel_again_what_began_after_the_cancel) {
    for (const bool is_lost : {false, true}) {
        rig_fresh();
        const int32_t source = rig_source(rig, "races", "/|tracks:9");
        player* player = rig_player("canceller", source, 0, 1);
        mediasource_session* session = player->trksession->ms_session;
        lyr_browse_api late = *session->browse_api;
        late_fake = &rig.fake;
        late_entries = session->browse_api;
        late_count = is_lost ? 1 : -1; /* the first of all, or the build thread's */
        late_begun = false;
        late.browse = late_browse;
        session->browse_api = &late;
        std::thread creator(
            [&] { EXPECT_EQ(rig_create(player, source, 0, -1), is_lost ? -1 : 0); });
        while (!late_begun) {
            std::this_thread::yield();
        }
        if (is_lost) {
            EXPECT_EQ(fake_number(rig.fake, "event disconnected uid=races"), 0);
            creator.join();
        } else {
            creator.join();
            EXPECT_EQ(rig_destroy(player), 0);
            EXPECT_GE(fake_number(rig.fake, "count cancel"), 3);
            session->browse_api = late_entries;
        }
        player_close(&mmcontrol, "canceller");
    }
}

/* The array of tracks moves while the plug-in looks at one of them. */
TEST_F(player_races, hand_out_tracks_that_stay) {
    for (const char* event : {"finished", "error value=0"}) {
        rig_fresh();
        const int32_t source =
            rig_source(rig, "races", "/a|F\n/b|F\n/c|F\n/a|tracks:3\n/b|tracks:9\n/c|tracks:90");
        fake_do(rig.fake, "rule browse id=/b block=growing");
        player* player = rig_begin("grower", source, 0, -1);
        fake_do(rig.fake, "blocked growing");
        fake_do(rig.fake, "rule attach block=attach");
        const std::string ticket = rig_event(rig, event);
        fake_do(rig.fake, "blocked attach");
        fake_do(rig.fake, "release growing");
        rig_await_build(player);
        fake_do(rig.fake, "release attach");
        EXPECT_EQ(rig_join(rig, ticket), 0);
        EXPECT_EQ(rig_current(player), 1);
        EXPECT_NE(rig_attribute(rig, "grower", "track", "media_node").find("\"id\":\"/a/t1\""),
                  std::string::npos);
        player_close(&mmcontrol, "grower");
    }
}

TEST_F(player_races, walk_and_shuffle_a_session_that_grows) {
    const int32_t source = rig_source(rig, "races", "/|tree:1,400,2", RIG_ALL & ~LYR_CAP_METADATA);
    player* player = rig_begin("grower", source, 0, -1);
    for (int32_t turns = 0; building(player); ++turns) {
        EXPECT_EQ(rig_do(player, player_shuffle, turns % 2), 0);
        EXPECT_EQ(rig_do(player, player_next), 0);
        EXPECT_EQ(rig_do(player, player_jump, 0), 0);
        for (int i = 0; i < 100; ++i) {
            (void)trksession_shuffle(player->trksession, 0, 1, 0, 0);
        }
    }
    const trksession* session = player->trksession;
    ASSERT_EQ(session->length, 802);
    for (int32_t p = 0; p < session->length; ++p) {
        ASSERT_EQ(session->inverse_order[session->order[p]], p);
    }
}

/* --- Sources and events ----------------------------------------------------------------------- */

/* Whoever works on a source that goes holds the lock which the disconnection waits for. */
TEST_F(player_races, give_up_at_once_when_the_source_goes) {
    const int32_t source = rig_source(rig, "races", "/|tracks:50");
    player* player = player_open(&mmcontrol, "loser");
    fake_do(rig.fake, "rule browse page=1 times=1 block=first deaf=1");
    std::thread creator([&] {
        EXPECT_EQ(rig_create(player, source, 9, -1), -1);
        EXPECT_GE(fake_number(rig.fake, "count cancel returned=1"), 1);
    });
    fake_do(rig.fake, "blocked first");
    fake_do(rig.fake, "rule cancel times=1 block=cancel");
    std::string gone = rig_event(rig, "disconnected uid=races");
    fake_do(rig.fake, "blocked cancel");
    fake_do(rig.fake, "release first");
    fake_do(rig.fake, "await browse 1 returned=1");
    /* The plug-in is still inside the cancel, on a session that nobody may take from it. */
    EXPECT_EQ(rig_logged(rig, "after minitrk"), 0);
    fake_do(rig.fake, "release cancel");
    creator.join();
    EXPECT_EQ(rig_join(rig, gone), 0);
    EXPECT_EQ(fake_number(rig.fake, "count browse"), 1);
    EXPECT_EQ(rig_tracks(player), "none");
    player_close(&mmcontrol, "loser");

    for (const char* event : {"finished", "error value=0"}) {
        fake_do(rig.fake, "unrule");
        (void)rig_source(rig, "races", "/|tracks:50");
        player = rig_player("loser", source, 0, 50);
        fake_do(rig.fake, "clear");
        fake_do(rig.fake, "rule attach result=1");
        fake_do(rig.fake, "rule attach skip=2 times=1 block=refusing");
        const std::string walking = rig_event(rig, std::string(event) + " thread=1");
        fake_do(rig.fake, "blocked refusing");
        gone = rig_event(rig, "disconnected uid=races thread=2");
        await_cancelled(player);
        fake_do(rig.fake, "release refusing");
        EXPECT_EQ(rig_join(rig, walking), -1);
        EXPECT_EQ(rig_join(rig, gone), 0);
        EXPECT_EQ(fake_number(rig.fake, "count attach"), 3);
        EXPECT_EQ(rig_tracks(player), "none");
        player_close(&mmcontrol, "loser");
    }
}

/* What was reported of a track before something else was attached, or before it was stopped. A
 * fatal error is one of the device, and a track that plays on or is only paused comes to its end.
 */
TEST_F(player_races, leave_events_alone_that_something_overtook) {
    const int32_t source = rig_source(rig, "races", "/|tracks:9");
    const struct {
        const char* what;
        std::function<void(player*)> change;
        int32_t result; /* of the event, unless it is fatal */
    } cases[] = {
        {"stopped", player_stop, -1},
        {"next", player_next, -1},
        {"empty session",
         [source](player* player) {
             int32_t expected = -1;
             player->status = LYR_STATUS_STOPPED; /* nothing to stop */
             player_create_trksession(&mmcontrol, player, source, "/", &expected, 99);
         },
         -1},
        {"stop failed",
         [this](player* player) {
             fake_do(rig.fake, "rule stop result=1");
             EXPECT_EQ(player_jump(player, 5), -1);
         },
         0},
        {"paused",
         [](player* player) {
             player_pause(player);
             player_seek(player, 1);
             player_set_playback_rate(player, 2);
             player_shuffle(player, LYR_SHUFFLE_ON);
             player_repeat(player, LYR_REPEAT_ALL);
         },
         0},
    };
    for (const auto& c : cases) {
        for (const std::string event :
             {"finished", "position value=9", "error value=0", "error value=1"}) {
            SCOPED_TRACE(event + " " + c.what);
            player* player = rig_player("late", source, 0, 9);
            EXPECT_EQ(rig_do(player, player_play), 0);
            vel_mutex_lock(&player->lock);
            const std::string ticket = rig_event(rig, event);
            rig_await_pins(player, 3); /* the event's among them */
            c.change(player);
            vel_mutex_unlock(&player->lock);
            EXPECT_EQ(rig_join(rig, ticket), event == "error value=1" ? 0 : c.result);
            player_close(&mmcontrol, "late");
            fake_do(rig.fake, "unrule");
        }
    }
    /* Of two ends that wait the first one's attach overtakes the other. */
    player* player = rig_player("late", source, 0, 9);
    fake_do(rig.fake, "clear");
    vel_mutex_lock(&player->lock);
    const std::string first = rig_event(rig, "finished thread=1");
    const std::string second = rig_event(rig, "finished thread=2");
    rig_await_pins(player, 4);
    vel_mutex_unlock(&player->lock);
    EXPECT_EQ(rig_join(rig, first) + rig_join(rig, second), -1);
    EXPECT_EQ(fake_number(rig.fake, "count play"), 1);
    /* While the plug-in attaches, an end is the track's before and an error the new one's. */
    for (const char* event : {"finished", "error value=0"}) {
        fake_do(rig.fake, "rule attach times=1 block=attach");
        std::thread skipper([player] { EXPECT_EQ(rig_do(player, player_next), 0); });
        fake_do(rig.fake, "blocked attach");
        const std::string ticket = rig_event(rig, event);
        rig_await_pins(player, 3);
        fake_do(rig.fake, "release attach");
        skipper.join();
        EXPECT_EQ(rig_join(rig, ticket), strcmp(event, "finished") == 0 ? -1 : 0);
    }
}

/* --- Requests --------------------------------------------------------------------------------- */

/* A connection to the dispatcher, without the transport below it. */
struct request_line {
    msgserver server = {};
    osb connection = {};
};

std::string answer; /* the body of the last one; one thread asks */

int32_t keep_replyv(osb*, recv_context*, int32_t, const iovec* vector, int32_t count) {
    answer.clear();
    for (int32_t i = 0; i < count; ++i) {
        answer.append(static_cast<const char*>(vector[i].iov_base), vector[i].iov_len);
    }
    return 0;
}

int32_t keep_reply(osb*, recv_context*, int32_t, const void* data, int32_t length) {
    answer.assign(static_cast<const char*>(data), static_cast<size_t>(length));
    return 0;
}

std::string i32(int32_t value) {
    return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

/* The result of one request. */
int32_t ask(request_line& line, uint16_t type, const std::string& fields) {
    const lyr_request request = {type, {}};
    msg_header header = {};
    header.length = static_cast<int32_t>(sizeof request + fields.size());
    std::string message(reinterpret_cast<const char*>(&header), sizeof header);
    message.append(reinterpret_cast<const char*>(&request), sizeof request);
    message += fields;
    recv_context context = {};
    context.buffer = reinterpret_cast<unsigned char*>(message.data());
    context.payload = context.buffer + sizeof header;
    line.server.user_data = &mmcontrol;
    line.server.reply = keep_reply;
    line.server.replyv = keep_replyv;
    line.connection.server = &line.server;
    service_worker(&line.connection, &context, nullptr);
    int32_t result = -2;
    memcpy(&result, answer.data(), std::min(answer.size(), sizeof result));
    return result;
}

/* Open or close. */
int32_t ask_name(request_line& line, uint16_t type, const std::string& name) {
    return ask(line, type, std::string{static_cast<char>(name.size()), 0, 0, 0} + name);
}

/* A reader has found the session, and waits for its lock when the session is destroyed. */
TEST_F(player_races, read_a_session_that_is_destroyed_meanwhile) {
    const int32_t source = rig_source(rig, "races", "/|tracks:3");
    request_line line;
    EXPECT_EQ(ask_name(line, LYR_MSG_OPEN, "read"), 0);
    auto* player = static_cast<struct player*>(line.connection.user_data);
    for (const uint16_t type :
         {LYR_MSG_GET_TRKSESSION_INFO, LYR_MSG_GET_CURRENT_TRACK_INFO,
          LYR_MSG_GET_CURRENT_TRACK_POSITION, LYR_MSG_GET_TRKSESSION_TRACKS}) {
        EXPECT_EQ(rig_create(player, source, 0, 3), 0);
        rig_await_build(player);
        trksession* session = trksession_hold(player);
        vel_mutex_lock(&session->lock);
        std::thread reader([&] { (void)ask(line, type, std::string(16, 0)); });
        for (int32_t holds = 0; holds < 3;) { /* the player's, ours, the reader's */
            vel_lock_guard guard(trksession_hold_lock);
            holds = session->holds;
        }
        const std::string fatal = rig_event(rig, "error value=1");
        vel_mutex_unlock(&session->lock);
        trksession_release(session);
        EXPECT_EQ(rig_join(rig, fatal), 0);
        reader.join();
        EXPECT_EQ(rig_tracks(player), "none");
    }
    EXPECT_EQ(ask_name(line, LYR_MSG_CLOSE, "read"), 0);
}

/* The request has named the session when somebody else destroys it. */
TEST_F(player_races, destroy_no_session_that_is_no_more) {
    const int32_t source = rig_source(rig, "races", "/|tracks:3");
    request_line line;
    EXPECT_EQ(ask_name(line, LYR_MSG_OPEN, "gone"), 0);
    auto* player = static_cast<struct player*>(line.connection.user_data);
    EXPECT_EQ(rig_create(player, source, 0, 3), 0);
    const uint64_t ts_id = player->trksession->ts_id;
    vel_mutex_lock(&player->lock);
    std::thread asker([&] {
        EXPECT_EQ(ask(line, LYR_MSG_DESTROY_TRKSESSION,
                      std::string(reinterpret_cast<const char*>(&ts_id), sizeof ts_id)),
                  -1);
    });
    while (rig_logged(rig, "tsid: " + std::to_string(ts_id)) == 0) {
    }
    EXPECT_EQ(player_destroy_trksession(player), 0);
    vel_mutex_unlock(&player->lock);
    asker.join();
    EXPECT_EQ(ask_name(line, LYR_MSG_CLOSE, "gone"), 0);
}

/* Everything that a client asks for on a player of its own. */
void ask_everything(request_line& line, const std::string& player, const std::string& source) {
    EXPECT_EQ(ask_name(line, LYR_MSG_OPEN, player), 0);
    std::string ts_id(8, 0);
    if (ask(line, LYR_MSG_CREATE_TRKSESSION, source + i32(-1) + i32(0) + i32(1) + "/") == 0) {
        ts_id = answer.substr(4, 8);
    }
    for (const uint16_t type : {LYR_MSG_PLAY, LYR_MSG_GET_TRKSESSION_INFO, LYR_MSG_NEXT,
                                LYR_MSG_GET_CURRENT_TRACK_INFO, LYR_MSG_GET_CURRENT_TRACK_POSITION,
                                LYR_MSG_GET_MEDIA_SOURCE, LYR_MSG_GET_CURRENT_STATE}) {
        (void)ask(line, type, "");
    }
    (void)ask(line, LYR_MSG_SHUFFLE, i32(1));
    (void)ask(line, LYR_MSG_GET_TRKSESSION_TRACKS, ts_id + i32(0) + i32(-1));
    (void)ask(line, LYR_MSG_BROWSE, source + i32(0) + i32(-1) + i32(1) + "/");
    (void)ask(line, LYR_MSG_DESTROY_TRKSESSION, ts_id);
    EXPECT_EQ(ask_name(line, LYR_MSG_CLOSE, player), 0);
}

/* The winds have an end of their own: nobody can keep the client from its locks for ever. */
constexpr int32_t GUSTS = 2000;

TEST_F(player_races, serve_requests_while_sources_and_sessions_come_and_go) {
    const int32_t source = rig_source(rig, "races", "/|tree:1,5,2");
    std::atomic<bool> calm = false;
    std::vector<std::thread> winds;
    const auto blow = [&](const std::function<void(int32_t)>& gust) {
        winds.emplace_back([&calm, gust] {
            for (int32_t i = 0; i < GUSTS && !calm; ++i) {
                gust(i);
            }
        });
    };
    blow([source](int32_t i) { (void)lyrane_internal_mediasource_status_changed(source, i); });
    blow([source](int32_t) {
        (void)lyrane_internal_mediasource_disconnected(source);
        (void)lyrane_internal_mediasource_connected(0, "races", "r", nullptr, 1, RIG_ALL, 1);
    });
    for (const char* event : {"finished thread=1 repeat=3", "error value=1 thread=2 repeat=2",
                              "position value=1 thread=3 repeat=9", "changed thread=4 repeat=9",
                              "state status=2 thread=5 repeat=9"}) {
        blow([this, event](int32_t) { fake_do(rig.fake, "event %s", event); });
    }
    request_line line;
    for (int i = 0; i < 60; ++i) {
        ask_everything(line, "guest" + std::to_string(i % 3), i32(source));
    }
    calm = true;
    for (std::thread& wind : winds) {
        wind.join();
    }
    EXPECT_GT(fake_number(rig.fake, "count play"), 0);
    EXPECT_EQ(fake_do(rig.fake, "sessions"), "");
    EXPECT_EQ(fake_do(rig.fake, "violations"), "");
}

} // namespace
