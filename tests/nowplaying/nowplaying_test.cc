/* The audio focus: what players tell an arbiter, and what they make of its answers. */
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <list>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <veloran/server_object.h>

#include "nowplaying.h"
#include "nowplaying_text.h"
#include "player_commands.h"
#include "player_registry.h"
#include "player_rig.h"
#include "trksession.h"

static constexpr const char* CONTROL = "/pps/services/multimedia/mediaplayer/control";
static constexpr const char* GRANT = "res::acquire\nid::1";
static constexpr const char* REFUSAL = "res::acquire\nid::1\nerr::revoked";
static constexpr const char* REVOKE = "msg::revoke\nid::1";
static constexpr const char* DO_PLAY = "msg::track\nid::1\ndat::play";
static constexpr const char* DO_PAUSE = "msg::track\nid::1\ndat::pause";
static constexpr const char* ASKED = "msg::acquire\nid::1";
static constexpr const char* RELEASED = "msg::release\nid::1";
static constexpr const char* PLAYING = "msg::state\nid::1\ndat::playing";
static constexpr const char* PAUSED = "msg::state\nid::1\ndat::paused";

namespace {

/* The arbiter, with one client. */
struct arbiter {
    player_rig& rig = rig_fresh(); /* has the folder of the object */
    server_object* object = server_object_create(CONTROL, 0666);
    vel_fd client;
    ~arbiter() { server_object_destroy(object); }
};

/* Lets the client go that it has, and waits for one. */
void meet(arbiter& self) {
    if (self.client.value >= 0) {
        close(self.client.release());
    }
    pollfd waiting = {server_object_descriptor(self.object), POLLIN, 0};
    EXPECT_EQ(poll(&waiting, 1, 300000), 1);
    self.client.value = server_object_accept(self.object);
    EXPECT_GE(self.client.value, 0);
}

/* The client's next message; its end is "gone". */
std::string hear(arbiter& self) {
    pollfd waiting = {self.client.value, POLLIN, 0};
    EXPECT_EQ(poll(&waiting, 1, 300000), 1);
    char* text = nullptr;
    if (server_object_read(self.client.value, &text) < 0) {
        return errno == ECONNRESET ? "gone" : "error";
    }
    const vel_text owner(text);
    return text;
}

void say(arbiter& self, const std::string& text) {
    EXPECT_EQ(server_object_write(self.client.value, text.data(), text.size()), 0);
}

/* Lets the client go, and it comes again: what it says first. */
std::string lose(arbiter& self) {
    meet(self);
    return hear(self).substr(0, strlen("msg::register"));
}

void await_log(const arbiter& self, const std::string& text) {
    while (rig_logged(self.rig, text) == 0) {
        std::this_thread::yield();
    }
}

std::ptrdiff_t entries(const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
}

/* An arbiter and a player with three tracks that it knows; what every end tells it. */
struct scene : arbiter {
    explicit scene(uint64_t capabilities = RIG_ALL);
    ~scene();
    ::player* player;
};

scene::scene(uint64_t capabilities)
    : player(rig_player("radio", rig_source(rig, "focus", "/|tracks:3", capabilities), 0, 3)) {
    meet(*this);
    EXPECT_EQ(hear(*this), "msg::register\nid::1\ndat:json:{\"name\":\"radio\",\"prio\":\"low\","
                           "\"audio\":\"general\",\"overlay\":\"plain\"}");
    fake_do(rig.fake, "clear");
}

scene::~scene() {
    player_close(&mmcontrol, "radio");
    std::string last;
    for (std::string text = hear(*this); text != "gone"; text = hear(*this)) {
        last = text;
    }
    EXPECT_EQ(last, RELEASED);
    EXPECT_EQ(fake_do(rig.fake, "violations"), "");
}

/* A client's play, and what the arbiter says to it (null: it loses the client): the result. */
int32_t play(scene& s, const std::vector<const char*>& answers) {
    int32_t result = -100;
    std::thread asking([&s, &result] { result = rig_do(s.player, player_play); });
    EXPECT_EQ(hear(s), ASKED);
    for (const char* answer : answers) {
        if (answer != nullptr) {
            say(s, answer);
        } else {
            meet(s);
        }
    }
    asking.join();
    return result;
}

/* The arbiter makes it play. */
void begin_to_play(scene& s) {
    say(s, DO_PLAY);
    EXPECT_EQ(hear(s), PLAYING);
}

} // namespace

TEST(nowplaying_text, reads_words_at_the_beginning_of_lines) {
    const struct {
        const char* text;
        int32_t command;
        const char* next = nullptr;
        bool refused = false; /* which is an answer */
        bool lost = false;
    } cases[] = {
        {"msg::track\nid::1\ndat::play", NOWPLAYING_DO_PLAY},
        {"dat::pause\nmsg::track\n", NOWPLAYING_DO_PAUSE},
        {"@control\nmsg::track\ndat::previous", NOWPLAYING_DO_PREVIOUS},
        {"msg::tracks\ndat::playlist", NOWPLAYING_DO_PLAY},
        {"msg::track\ndat::prev\ndat::next\ndat::x\ndat::pause", NOWPLAYING_DO_PAUSE},
        {"msg::track\n dat::play", NOWPLAYING_DO_NOTHING},
        {"msg::revoke now", NOWPLAYING_DO_REVOKE},
        {"res::acquired\nerr::revoked:late", NOWPLAYING_DO_NOTHING, nullptr, true},
        {"dat::next", NOWPLAYING_DO_NOTHING},
        {"msg::info\ndat:json:{\"name\":\"msg::revoke\"}", NOWPLAYING_DO_NOTHING},
        {"msg::revoke\nres::acquire", NOWPLAYING_DO_REVOKE, "res::acquire"},
        {"@control\nmsg::track\ndat::next\n@control\nmsg::revoke", NOWPLAYING_DO_NEXT,
         "@control\nmsg::revoke"},
        {"-@control\nmsg::track", NOWPLAYING_DO_NOTHING, nullptr, false, true},
        {"-@control", NOWPLAYING_DO_NOTHING},
        {"-@phone\n", NOWPLAYING_DO_NOTHING, nullptr, false, true},
        {"-@phone", NOWPLAYING_DO_NOTHING},
        {"-@phone\nmore::text\n", NOWPLAYING_DO_NOTHING},
        {"-@phone\n@control\nmsg::revoke", NOWPLAYING_DO_REVOKE},
        {"", NOWPLAYING_DO_NOTHING},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        nowplaying_message message;
        EXPECT_STREQ(nowplaying_read(c.text, &message), c.next);
        EXPECT_EQ(message.command, c.command);
        EXPECT_EQ(message.answer, c.refused);
        EXPECT_EQ(message.refused, c.refused);
        EXPECT_EQ(message.lost, c.lost);
    }
}

TEST(nowplaying_text, names_are_no_more_than_text) {
    const std::string name = std::string(100, 'x') + "\",\"prio\":\"high\\\xff";
    const vel_text text(nowplaying_register_text(name.c_str(), "low", "general", "plain"));
    EXPECT_EQ(std::string(text.get()),
              "msg::register\nid::1\ndat:json:{\"name\":\"" + std::string(100, 'x') +
                  "\\\",\\\"prio\\\":\\\"high\\\\\uFFFD\",\"prio\":\"low\","
                  "\"audio\":\"general\",\"overlay\":\"plain\"}");
}

/* The answers to a request of a player that does not play. */
TEST(nowplaying, plays_when_the_arbiter_lets_it) {
    const struct {
        const char* answer; /* null: the connection ends */
        int32_t result;
        const char* log;
    } cases[] = {
        {GRANT, 0, "Player:radio got acquire handle"},
        {REFUSAL, -1, "Player:radio did not acquire handle"},
        {REVOKE, -1, "Player:radio did not acquire handle"},
        {"msg::hello\nid::9\n@control\nres::acquire\n", 0, "set ALLOW_ACQUIRE state"},
        {"res::acquire\n@control\nerr::revoked", -1, "Player:radio did not acquire handle"},
        {"@control\n-@control\n@control\nres::acquire", 0, "Player:radio got acquire handle"},
        {nullptr, 0, "lost NowPlaying control file; terminating"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.log);
        scene s;
        EXPECT_EQ(play(s, {c.answer}), c.result);
        await_log(s, c.log);
        EXPECT_EQ(fake_number(s.rig.fake, "count play"), c.result == 0 ? 1 : 0);
        EXPECT_EQ(rig_logged(s.rig, "Player:radio not allowed to play. A higher priority client"),
                  c.result == 0 ? 0 : 1);
        EXPECT_EQ(rig_logged(s.rig, "failed to read NowPlaying control file"),
                  c.answer == nullptr ? 1 : 0);
    }
}

/* An arbiter that does not answer costs a bounded time; its late grant is for the next play, and
 * for that one alone. */
TEST(nowplaying, waits_no_longer_than_the_bound) {
    scene s;
    EXPECT_EQ(play(s, {}), -1);
    say(s, GRANT);
    await_log(s, "set ALLOW_ACQUIRE state");
    EXPECT_EQ(rig_do(s.player, player_play), 0);
    EXPECT_EQ(rig_logged(s.rig, "already has acquire handle"), 1);
    EXPECT_EQ(hear(s), PLAYING);
    EXPECT_EQ(rig_do(s.player, player_stop), 0);
    EXPECT_EQ(hear(s), "msg::state\nid::1\ndat::stopped");
    EXPECT_EQ(hear(s), RELEASED);
    /* A player that plays gets no grant, so that a play of it is refused. */
    EXPECT_EQ(play(s, {GRANT}), 0);
    EXPECT_EQ(hear(s), PLAYING);
    EXPECT_EQ(play(s, {GRANT}), -1);
    EXPECT_EQ(rig_logged(s.rig, "set DISALLOW_ACQUIRE state"), 1);
}

/* What the arbiter tells a player to do, also while a client waits for its answer. */
TEST(nowplaying, does_what_the_arbiter_tells) {
    scene s;
    begin_to_play(s);
    EXPECT_EQ(s.player->np_state, NOWPLAYING_PLAY);
    say(s, "@control\nmsg::track\ndat::next\n@control\nmsg::track\ndat::next");
    fake_do(s.rig.fake, "await attach 2");
    say(s, "msg::track\ndat::prev");
    fake_do(s.rig.fake, "await attach 3");
    say(s, DO_PAUSE);
    EXPECT_EQ(hear(s), PAUSED);
    EXPECT_EQ(rig_current(s.player), 1);

    EXPECT_EQ(play(s, {DO_PAUSE, GRANT}), 0);
    EXPECT_EQ(hear(s), PLAYING);
    EXPECT_EQ(hear(s), PAUSED);
}

/* A revoke silences the player by what its source can do, and is not answered. */
TEST(nowplaying, falls_silent_when_the_focus_is_taken) {
    const std::string cannot = "Cannot Pause/Stop since player:radio does not have either";
    const std::string plays_on = "Player:radio plays on without the audio focus";
    const uint64_t no_pause = RIG_ALL & ~uint64_t{LYR_CAP_PAUSE};
    const struct {
        uint64_t capabilities;
        const char* fail; /* entries that do */
        int32_t status;
        const char* calls; /* that silence it */
        std::string line;
    } cases[] = {
        {RIG_ALL, "", LYR_STATUS_PAUSED, "pause", ""},
        {no_pause, "", LYR_STATUS_STOPPED, "stop", ""},
        {RIG_ALL, "pause", LYR_STATUS_STOPPED, "pause stop", ""},
        {RIG_ALL, "pause stop", LYR_STATUS_PLAYING, "pause stop", plays_on},
        {no_pause & ~uint64_t{LYR_CAP_STOP}, "", LYR_STATUS_PLAYING, "", cannot},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.calls + c.line);
        scene s(c.capabilities);
        std::istringstream entries(c.fail);
        for (std::string entry; entries >> entry;) {
            fake_do(s.rig.fake, "rule %s result=1", entry.c_str());
        }
        begin_to_play(s);
        say(s, REVOKE);
        const std::string first = std::string(c.calls).substr(0, strcspn(c.calls, " "));
        if (first.empty()) {
            await_log(s, c.line);
        } else {
            fake_do(s.rig.fake, "await %s 1", first.c_str());
        }
        {
            vel_lock_guard guard(s.player->lock); /* the revoke is over */
            EXPECT_EQ(s.player->status, c.status);
            EXPECT_EQ(s.player->np_state, NOWPLAYING_REVOKED);
            for (const char* call : {"pause", "stop"}) {
                EXPECT_EQ(fake_number(s.rig.fake, "count %s", call),
                          strstr(c.calls, call) != nullptr ? 1 : 0);
            }
            for (const std::string& line : {cannot, plays_on}) {
                EXPECT_EQ(rig_logged(s.rig, line), line == c.line ? 1 : 0);
            }
        }
        EXPECT_EQ(rig_destroy(s.player), 0);
        say(s, std::string(REVOKE) + "\n@control\n" + DO_PLAY); /* nothing to silence */
        await_log(s, "There is no trksession to be played");
    }
}

/* A revoke that waits for the player is void once an acquire is granted that was sent after it was
 * read. While an earlier acquire has no answer, the grant may be that one's: the player falls
 * silent and says so. */
TEST(nowplaying, a_revoke_ends_at_a_later_grant) {
    for (const bool unanswered : {false, true}) {
        SCOPED_TRACE(unanswered);
        scene s;
        begin_to_play(s);
        if (unanswered) {
            EXPECT_EQ(lose(s), "msg::register");
            EXPECT_EQ(hear(s), ASKED);
            EXPECT_EQ(hear(s), PLAYING);
        }
        std::thread client([&s] {
            vel_lock_guard guard(s.player->lock);
            say(s, REVOKE);
            await_log(s, "received a Revoke cmd");
            EXPECT_EQ(player_pause(s.player), 0);
            EXPECT_EQ(player_play(s.player), 0);
        });
        EXPECT_EQ(hear(s), ASKED);
        say(s, std::string(GRANT) + "\n@control\n" + DO_PLAY);
        say(s, DO_PAUSE);
        client.join();
        EXPECT_EQ(hear(s), PLAYING);
        EXPECT_EQ(hear(s), PAUSED); /* the revoke's, or the pause's */
        if (unanswered) {
            EXPECT_EQ(hear(s), PLAYING);
            EXPECT_EQ(hear(s), PAUSED);
        }
        vel_lock_guard guard(s.player->lock);
        EXPECT_EQ(fake_number(s.rig.fake, "count play"), unanswered ? 3 : 2);
        EXPECT_EQ(s.player->np_state, NOWPLAYING_PAUSE);
    }
}

/* More commands than can wait: a revoke among them is never the one that is dropped. */
TEST(nowplaying, never_loses_a_revoke) {
    scene s;
    begin_to_play(s);
    {
        vel_lock_guard guard(s.player->lock);
        for (int i = 0; i < 70; ++i) {
            say(s, "msg::track\ndat::prev");
        }
        say(s, REVOKE);
        say(s, REVOKE);
        while (rig_logged(s.rig, "received a Revoke cmd") < 2) {
            std::this_thread::yield();
        }
    }
    while (rig_logged(s.rig, "We are at the end of the trksession") < 63) {
        std::this_thread::yield();
    }
    say(s, DO_PLAY);
    say(s, DO_PAUSE);
    EXPECT_EQ(hear(s), PLAYING); /* as it was silent */
    EXPECT_EQ(hear(s), PAUSED);
    EXPECT_EQ(fake_number(s.rig.fake, "count pause"), 2);
}

/* What an arbiter told that has gone meanwhile is void. */
TEST(nowplaying, forgets_what_a_lost_arbiter_told) {
    scene s;
    begin_to_play(s);
    {
        vel_lock_guard guard(s.player->lock); /* nothing can be done yet */
        say(s, "msg::track\ndat::next");
        say(s, "-@control\n");
        EXPECT_EQ(hear(s), "gone");
        EXPECT_EQ(lose(s), "msg::register");
    }
    EXPECT_EQ(hear(s), ASKED);
    EXPECT_EQ(hear(s), PLAYING);
    say(s, DO_PAUSE);
    EXPECT_EQ(hear(s), PAUSED);
    EXPECT_EQ(fake_number(s.rig.fake, "count attach"), 0);
}

/* An arbiter that has no room for one more client now is one all the same. */
TEST(nowplaying, waits_for_an_arbiter_that_is_busy) {
    arbiter known;
    ASSERT_EQ(listen(server_object_descriptor(known.object), 0), 0);
    const vel_fd other(server_object_open(CONTROL));
    EXPECT_GE(other.value, 0);
    player* player = rig_player("radio", rig_source(known.rig, "focus", "/|tracks:3"), 0, 3);
    for (int32_t busy = 0; busy == 0;) {
        vel_lock_guard guard(player->np_lock);
        busy = player->np_busy;
    }
    int32_t result = 0;
    std::thread asking([&] { result = rig_do(player, player_play); });
    meet(known); /* the other one */
    meet(known);
    EXPECT_EQ(hear(known).substr(0, strlen("msg::register")), "msg::register");
    EXPECT_EQ(hear(known), ASKED);
    say(known, REFUSAL);
    asking.join();
    EXPECT_EQ(result, -1);
    player_close(&mmcontrol, "radio");
}

/* Somebody who speaks as soon as there is an arbiter. */
TEST(nowplaying, registers_before_it_says_anything_else) {
    scene s;
    for (int i = 0; i < 300; ++i) {
        {
            vel_lock_guard guard(s.player->np_lock);
            s.player->np_lost = 0;
        }
        std::thread eager([&s] {
            bool again = false;
            while (!again) { /* awake, to have the lock as soon as it is free */
                if (vel_mutex_try_lock(&s.player->np_lock)) {
                    again = s.player->np_lost == 1 && s.player->np_fd >= 0;
                    vel_mutex_unlock(&s.player->np_lock);
                }
            }
            nowplaying_msg(s.player, ASKED);
        });
        EXPECT_EQ(lose(s), "msg::register");
        EXPECT_EQ(hear(s), ASKED);
        eager.join();
    }
}

namespace {

/* An arbiter without any sense: whatever it hears, it says something else to somebody. */
void speak_at_random(server_object* object, const std::atomic<bool>& over) {
    static const char* const words[] = {
        GRANT,        REFUSAL,
        REVOKE,       DO_PLAY,
        DO_PAUSE,     "msg::track\ndat::next\n@control\nres::acquire",
        "-@phone\nx", "\x01\xff no message"};
    std::mt19937 random(7);
    std::list<vel_fd> clients;
    while (!over) {
        pollfd waiting = {server_object_descriptor(object), POLLIN, 0};
        (void)poll(&waiting, 1, 1);
        for (int fd = server_object_accept(object); fd >= 0; fd = server_object_accept(object)) {
            clients.emplace_back(fd);
        }
        clients.remove_if([&random](const vel_fd& client) {
            char* text = nullptr;
            while (server_object_read(client.value, &text) >= 0) {
                free(text);
                for (int n = 0; n < 4; ++n) {
                    const char* word = words[random() % std::size(words)];
                    (void)server_object_write(client.value, word, strlen(word));
                }
            }
            return errno == ECONNRESET || random() % 50 == 0;
        });
    }
}

/* Threads of players that have not ended. */
int player_threads() {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm") >> std::ws, name);
        count += name == "nowplaying" ? 1 : 0;
    }
    return count;
}

void live_and_play(int number, int32_t source, int rounds) {
    const std::string name = "player" + std::to_string(number);
    std::mt19937 random(static_cast<unsigned>(number));
    int32_t (*const commands[])(player*) = {player_play, player_pause, player_stop, player_next,
                                            player_play};
    for (int round = 0; round < rounds; ++round) {
        player* player = player_open(&mmcontrol, name.c_str());
        bool connected = random() % 4 == 0; /* or not waited for */
        while (!connected) {
            vel_lock_guard guard(player->np_lock);
            connected = player->np_fd >= 0;
        }
        (void)rig_create(player, source, 0, 3);
        for (unsigned i = random() % 8; i > 0; --i) {
            (void)rig_do(player, commands[random() % std::size(commands)]);
        }
        player_close(&mmcontrol, name.c_str());
    }
}

} // namespace

TEST(nowplaying, outlives_an_arbiter_without_sense) {
    const char* wanted = std::getenv("LYRANE_ROUNDS");
    const int rounds = wanted != nullptr ? std::atoi(wanted) : 3;
    arbiter known;
    const int32_t source = rig_source(known.rig, "focus", "/|tracks:3");
    std::ptrdiff_t descriptors = 0;
    for (const int count : {1, 8}) { /* what is opened once, at the first use, stays */
        std::atomic<bool> over = false;
        std::thread speaker([&] { speak_at_random(known.object, over); });
        std::vector<std::thread> players;
        for (int i = 0; i < count; ++i) {
            players.emplace_back([=] { live_and_play(i, source, rounds); });
        }
        for (std::thread& player : players) {
            player.join();
        }
        over = true;
        speaker.join();
        while (player_threads() > 0) {
            std::this_thread::yield(); /* threads that were late for their close */
        }
        descriptors = count == 1 ? entries("/proc/self/fd") : descriptors;
    }
    EXPECT_EQ(entries("/proc/self/fd"), descriptors);
    EXPECT_EQ(fake_do(known.rig.fake, "sessions"), "");
    EXPECT_EQ(fake_do(known.rig.fake, "violations"), "");
}
