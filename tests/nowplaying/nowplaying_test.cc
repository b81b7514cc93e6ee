/* The audio focus: what players tell an arbiter, and what they make of its answers. */
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <veloran/server_object.h>

#include "nowplaying.h"
#include "nowplaying_text.h"
#include "player_commands.h"
#include "player_registry.h"
#include "player_rig.h"
#include "trksession.h"

static constexpr uint64_t ALL = 0xE045F;
static constexpr const char* CONTROL = "/pps/services/multimedia/mediaplayer/control";
static constexpr const char* GRANT = "res::acquire\nid::1";
static constexpr const char* REFUSAL = "res::acquire\nid::1\nerr::revoked";
static constexpr const char* ASKED = "msg::acquire\nid::1";
static constexpr const char* PLAYING = "msg::state\nid::1\ndat::playing";

namespace {

/* The arbiter, with one client. */
struct arbiter {
    server_object* object = nullptr;
    vel_fd client;
    ~arbiter() { server_object_destroy(object); }
};

/* Lets the client go that it has, and waits for one. */
std::string meet(arbiter& self) {
    if (self.client.value >= 0) {
        close(self.client.release());
    }
    pollfd waiting = {server_object_descriptor(self.object), POLLIN, 0};
    EXPECT_EQ(poll(&waiting, 1, 300000), 1);
    self.client.value = server_object_accept(self.object);
    return self.client.value >= 0 ? "met" : "nobody";
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

void await_log(const player_rig& rig, const std::string& text) {
    while (rig_logged(rig, text) == 0) {
        std::this_thread::yield();
    }
}

void await_calls(player_rig& rig, const char* entry, int count) {
    fake_do(rig.fake, "await %s %d", entry, count);
}

std::ptrdiff_t entries(const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
}

/* A player with three tracks that an arbiter knows. */
struct scene {
    player_rig* rig;
    arbiter known;
    ::player* player;
    int32_t source;
};

void begin(scene& s, uint64_t capabilities = ALL) {
    s.rig = &rig_fresh();
    s.known.object = server_object_create(CONTROL, 0666);
    ASSERT_NE(s.known.object, nullptr);
    s.source = rig_source(*s.rig, "focus", capabilities, "/|tracks:3");
    s.player = rig_player(*s.rig, "radio", s.source, "/", 0, 3);
    ASSERT_EQ(meet(s.known), "met");
    EXPECT_EQ(hear(s.known), "msg::register\nid::1\ndat:json:{\"name\":\"radio\",\"prio\":\"low\","
                             "\"audio\":\"general\",\"overlay\":\"plain\"}");
    fake_do(s.rig->fake, "clear");
}

/* Ends with what every end tells the arbiter. */
void end(scene& s) {
    player_close(&mmcontrol, "radio");
    std::string last;
    for (std::string text = hear(s.known); text != "gone"; text = hear(s.known)) {
        last = text;
    }
    EXPECT_EQ(last, "msg::release\nid::1");
    EXPECT_EQ(fake_do(s.rig->fake, "violations"), "");
}

/* A client's play; its result is there when the thread has been joined. */
struct client_play {
    int32_t result = -100;
    std::thread thread;
};

void play(client_play& self, player* player) {
    self.thread = std::thread([&self, player] { self.result = rig_do(player, player_play); });
}

int32_t result(client_play& self) {
    self.thread.join();
    return self.result;
}

} // namespace

TEST(nowplaying_text, reads_words_at_the_beginning_of_lines) {
    const struct {
        const char* text;
        int32_t command;
        bool answer;
        bool refused;
        bool lost;
        const char* next;
    } cases[] = {
        {"msg::track\nid::1\ndat::play", NOWPLAYING_DO_PLAY, false, false, false, nullptr},
        {"dat::pause\nmsg::track\n", NOWPLAYING_DO_PAUSE, false, false, false, nullptr},
        {"@control\nmsg::track\ndat::previous", NOWPLAYING_DO_PREVIOUS, false, false, false,
         nullptr},
        {"msg::track\ndat::prev", NOWPLAYING_DO_PREVIOUS, false, false, false, nullptr},
        {"msg::tracks\ndat::playlist", NOWPLAYING_DO_PLAY, false, false, false, nullptr},
        {"msg::track\ndat::prev\ndat::next\ndat::x\ndat::pause", NOWPLAYING_DO_PAUSE, false, false,
         false, nullptr},
        {"msg::track\n dat::play", NOWPLAYING_DO_NOTHING, false, false, false, nullptr},
        {"msg::revoke now", NOWPLAYING_DO_REVOKE, false, false, false, nullptr},
        {"res::acquired\nerr::revoked:late", NOWPLAYING_DO_NOTHING, true, true, false, nullptr},
        {"dat::next", NOWPLAYING_DO_NOTHING, false, false, false, nullptr},
        {"msg::info\ndat:json:{\"name\":\"msg::revoke\"}", NOWPLAYING_DO_NOTHING, false, false,
         false, nullptr},
        {"res::acquire\nerr::revoked", NOWPLAYING_DO_NOTHING, true, true, false, nullptr},
        {"msg::revoke\nres::acquire", NOWPLAYING_DO_REVOKE, false, false, false, "res::acquire"},
        {"@control\nmsg::track\ndat::next\n@control\nmsg::revoke", NOWPLAYING_DO_NEXT, false, false,
         false, "@control\nmsg::revoke"},
        {"-@control\nmsg::track", NOWPLAYING_DO_NOTHING, false, false, true, nullptr},
        {"-@control", NOWPLAYING_DO_NOTHING, false, false, false, nullptr},
        {"-@phone\n", NOWPLAYING_DO_NOTHING, false, false, true, nullptr},
        {"-@phone", NOWPLAYING_DO_NOTHING, false, false, false, nullptr},
        {"-@phone\nmore::text\n", NOWPLAYING_DO_NOTHING, false, false, false, nullptr},
        {"-@phone\n@control\nmsg::revoke", NOWPLAYING_DO_REVOKE, false, false, false, nullptr},
        {"", NOWPLAYING_DO_NOTHING, false, false, false, nullptr},
    };
    for (const auto& c : cases) {
        nowplaying_message message;
        const char* next = nowplaying_read(c.text, &message);
        EXPECT_EQ(message.command, c.command) << c.text;
        EXPECT_EQ(message.answer, c.answer) << c.text;
        EXPECT_EQ(message.refused, c.refused) << c.text;
        EXPECT_EQ(message.lost, c.lost) << c.text;
        EXPECT_STREQ(next, c.next) << c.text;
    }
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
        {"msg::revoke\nid::1", -1, "Player:radio did not acquire handle"},
        {"msg::hello\nid::9\n@control\nres::acquire\n", 0, "set ALLOW_ACQUIRE state"},
        {"res::acquire\n@control\nerr::revoked", -1, "Player:radio did not acquire handle"},
        {"@control\n-@control\n@control\nres::acquire", 0, "Player:radio got acquire handle"},
        {nullptr, 0, "lost NowPlaying control file; terminating"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.log);
        scene s;
        begin(s);
        client_play asking;
        play(asking, s.player);
        EXPECT_EQ(hear(s.known), ASKED);
        if (c.answer != nullptr) {
            say(s.known, c.answer);
        } else {
            meet(s.known); /* closes the old one; the player comes again */
        }
        EXPECT_EQ(result(asking), c.result);
        await_log(*s.rig, c.log);
        EXPECT_EQ(fake_number(s.rig->fake, "count play"), c.result == 0 ? 1 : 0);
        EXPECT_EQ(rig_logged(*s.rig, "Player:radio not allowed to play. A higher priority client"),
                  c.result == 0 ? 0 : 1);
        EXPECT_EQ(rig_logged(*s.rig, "failed to read NowPlaying control file"),
                  c.answer == nullptr ? 1 : 0);
        end(s);
    }
}

/* An arbiter that does not answer costs a bounded time; its late grant is for the next play, and
 * for that one alone. */
TEST(nowplaying, waits_no_longer_than_the_bound) {
    scene s;
    begin(s);
    EXPECT_EQ(rig_do(s.player, player_play), -1);
    EXPECT_EQ(hear(s.known), ASKED);
    say(s.known, GRANT);
    await_log(*s.rig, "set ALLOW_ACQUIRE state");
    EXPECT_EQ(rig_do(s.player, player_play), 0);
    EXPECT_EQ(rig_logged(*s.rig, "already has acquire handle"), 1);
    EXPECT_EQ(hear(s.known), PLAYING);
    EXPECT_EQ(rig_do(s.player, player_stop), 0);
    EXPECT_EQ(hear(s.known), "msg::state\nid::1\ndat::stopped");
    EXPECT_EQ(hear(s.known), "msg::release\nid::1");
    /* A player that plays gets no grant, so that a play of it is refused. */
    client_play again;
    play(again, s.player);
    EXPECT_EQ(hear(s.known), ASKED);
    say(s.known, GRANT);
    EXPECT_EQ(result(again), 0);
    EXPECT_EQ(hear(s.known), PLAYING);
    client_play twice;
    play(twice, s.player);
    EXPECT_EQ(hear(s.known), ASKED);
    say(s.known, GRANT);
    EXPECT_EQ(result(twice), -1);
    EXPECT_EQ(rig_logged(*s.rig, "set DISALLOW_ACQUIRE state"), 1);
    end(s);
}

/* What the arbiter tells a player to do, also while a client waits for its answer. */
TEST(nowplaying, does_what_the_arbiter_tells) {
    scene s;
    begin(s);
    say(s.known, "msg::track\nid::1\ndat::play");
    EXPECT_EQ(hear(s.known), PLAYING);
    EXPECT_EQ(s.player->np_state, NOWPLAYING_PLAY);
    say(s.known, "@control\nmsg::track\ndat::next\n@control\nmsg::track\ndat::next");
    await_calls(*s.rig, "attach", 2);
    say(s.known, "msg::track\ndat::prev");
    await_calls(*s.rig, "attach", 3);
    say(s.known, "msg::track\ndat::pause");
    EXPECT_EQ(hear(s.known), "msg::state\nid::1\ndat::paused");
    EXPECT_EQ(rig_current(s.player), 1);

    client_play asking;
    play(asking, s.player);
    EXPECT_EQ(hear(s.known), ASKED);
    say(s.known, "msg::track\ndat::pause");
    say(s.known, GRANT);
    EXPECT_EQ(result(asking), 0);
    EXPECT_EQ(hear(s.known), PLAYING);
    EXPECT_EQ(hear(s.known), "msg::state\nid::1\ndat::paused");
    end(s);
}

/* A revoke silences the player by what its source can do, and is not answered. */
TEST(nowplaying, falls_silent_when_the_focus_is_taken) {
    const struct {
        uint64_t capabilities;
        const char* rule;
        int32_t status;
        const char* calls; /* the last entry that was called */
    } cases[] = {
        {ALL, "rule seek result=1", LYR_STATUS_PAUSED, "pause"},
        {ALL & ~uint64_t{LYR_CAP_PAUSE}, "rule seek result=1", LYR_STATUS_STOPPED, "stop"},
        {ALL, "rule pause result=1", LYR_STATUS_PLAYING, "pause"},
        {ALL & ~uint64_t{LYR_CAP_PAUSE | LYR_CAP_STOP}, "rule seek result=1", LYR_STATUS_PLAYING,
         "play"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.calls);
        scene s;
        begin(s, c.capabilities);
        fake_do(s.rig->fake, "%s", c.rule);
        say(s.known, "msg::track\ndat::play");
        EXPECT_EQ(hear(s.known), PLAYING);
        say(s.known, "msg::revoke\nid::1");
        const std::string cannot = "Cannot Pause/Stop since player:radio does not have either";
        const bool can = strcmp(c.calls, "play") != 0;
        if (!can) {
            await_log(*s.rig, cannot);
        } else {
            await_calls(*s.rig, c.calls, 1);
        }
        {
            vel_lock_guard guard(s.player->lock); /* the revoke is over */
            EXPECT_EQ(s.player->status, c.status);
            EXPECT_EQ(s.player->np_state, NOWPLAYING_REVOKED);
            EXPECT_EQ(fake_number(s.rig->fake, "count stop"), strcmp(c.calls, "stop") == 0 ? 1 : 0);
            EXPECT_EQ(rig_logged(*s.rig, cannot), can ? 0 : 1);
        }
        EXPECT_EQ(rig_destroy(s.player), 0);
        say(s.known,
            "msg::revoke\nid::1\n@control\nmsg::track\ndat::play"); /* nothing to silence */
        await_log(*s.rig, "There is no trksession to be played");
        end(s);
    }
}

/* Arbiters come and go; a player that plays meanwhile goes on, and says so. */
TEST(nowplaying, connects_again_and_leaves_nothing) {
    scene s;
    begin(s);
    say(s.known, "msg::track\ndat::play");
    EXPECT_EQ(hear(s.known), PLAYING);
    const auto before = entries("/proc/self/fd");
    for (int i = 0; i < 50; ++i) {
        if (i % 2 == 0) {
            say(s.known, "-@control\n");
            EXPECT_EQ(hear(s.known), "gone");
        }
        meet(s.known);
        EXPECT_EQ(hear(s.known).rfind("msg::register", 0), 0u);
        EXPECT_EQ(hear(s.known), ASKED);
        EXPECT_EQ(hear(s.known), PLAYING);
    }
    EXPECT_EQ(entries("/proc/self/fd"), before);
    EXPECT_EQ(s.player->status, LYR_STATUS_PLAYING);
    end(s);
}

/* What an arbiter told that has gone meanwhile is void. */
TEST(nowplaying, forgets_what_a_lost_arbiter_told) {
    scene s;
    begin(s);
    say(s.known, "msg::track\ndat::play");
    EXPECT_EQ(hear(s.known), PLAYING);
    {
        vel_lock_guard guard(s.player->lock); /* nothing can be done yet */
        say(s.known, "msg::track\ndat::next");
        say(s.known, "-@control\n");
        EXPECT_EQ(hear(s.known), "gone");
        meet(s.known);
        EXPECT_EQ(hear(s.known).rfind("msg::register", 0), 0u);
    }
    EXPECT_EQ(hear(s.known), ASKED);
    EXPECT_EQ(hear(s.known), PLAYING);
    say(s.known, "msg::track\ndat::pause");
    EXPECT_EQ(hear(s.known), "msg::state\nid::1\ndat::paused");
    EXPECT_EQ(fake_number(s.rig->fake, "count attach"), 0);
    end(s);
}

/* Somebody who speaks as soon as there is an arbiter. */
TEST(nowplaying, registers_before_it_says_anything_else) {
    scene s;
    begin(s);
    for (int i = 0; i < 20; ++i) {
        {
            vel_lock_guard guard(s.player->np_lock);
            s.player->np_lost = 0;
        }
        std::thread eager([&s] {
            bool again = false;
            while (!again) {
                std::this_thread::yield();
                vel_lock_guard guard(s.player->np_lock);
                again = s.player->np_lost == 1 && s.player->np_fd >= 0;
            }
            nowplaying_msg(s.player, ASKED);
        });
        meet(s.known);
        EXPECT_EQ(hear(s.known).rfind("msg::register", 0), 0u);
        EXPECT_EQ(hear(s.known), ASKED);
        eager.join();
    }
    end(s);
}

/* Names are text for the arbiter, whatever they look like; a closed player has no thread. */
TEST(nowplaying, registers_any_name) {
    (void)rig_fresh();
    arbiter known;
    known.object = server_object_create(CONTROL, 0666);
    const std::string name = std::string(100, 'x') + "\",\"prio\":\"high\\\xff";
    player* player = player_open(&mmcontrol, name.c_str());
    meet(known);
    EXPECT_EQ(hear(known), "msg::register\nid::1\ndat:json:{\"name\":\"" + std::string(100, 'x') +
                               "\\\",\\\"prio\\\":\\\"high\\\\\uFFFD\",\"prio\":\"low\","
                               "\"audio\":\"general\",\"overlay\":\"plain\"}");
    EXPECT_NE(player, nullptr);
    player_close(&mmcontrol, name.c_str());
    EXPECT_EQ(hear(known), "msg::release\nid::1");
    EXPECT_EQ(hear(known), "gone");
}

namespace {

/* An arbiter without any sense: whatever it hears, it says something else to somebody. */
void speak_at_random(server_object* object, const std::atomic<bool>& over) {
    static const char* const words[] = {GRANT,
                                        REFUSAL,
                                        "msg::revoke\nid::1",
                                        "msg::track\ndat::play",
                                        "msg::track\ndat::pause",
                                        "msg::track\ndat::next\n@control\nres::acquire",
                                        "-@phone\nx",
                                        "\x01\xff no message"};
    std::mt19937 random(7);
    std::vector<int> clients;
    while (!over) {
        pollfd waiting = {server_object_descriptor(object), POLLIN, 0};
        (void)poll(&waiting, 1, 1);
        for (int fd = server_object_accept(object); fd >= 0; fd = server_object_accept(object)) {
            clients.push_back(fd);
        }
        for (size_t i = 0; i < clients.size(); ++i) {
            char* text = nullptr;
            while (server_object_read(clients[i], &text) >= 0) {
                free(text);
                for (int n = 0; n < 4; ++n) {
                    const char* word = words[random() % std::size(words)];
                    (void)server_object_write(clients[i], word, strlen(word));
                }
            }
            if (errno == ECONNRESET || random() % 50 == 0) {
                close(clients[i]);
                clients.erase(clients.begin() + static_cast<std::ptrdiff_t>(i));
                --i;
            }
        }
    }
    for (const int fd : clients) {
        close(fd);
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
        int32_t expected = 3;
        bool connected = random() % 4 == 0; /* or not waited for */
        while (!connected) {
            vel_lock_guard guard(player->np_lock);
            connected = player->np_fd >= 0;
        }
        (void)rig_create(player, source, "/", 0, &expected);
        for (unsigned i = random() % 8; i > 0; --i) {
            (void)rig_do(player, commands[random() % std::size(commands)]);
        }
        player_close(&mmcontrol, name.c_str());
    }
}

} // namespace

TEST(nowplaying, outlives_an_arbiter_without_sense) {
    player_rig& rig = rig_fresh();
    const int32_t source = rig_source(rig, "focus", ALL, "/|tracks:3");
    const char* wanted = std::getenv("LYRANE_ROUNDS");
    const int rounds = wanted != nullptr ? std::atoi(wanted) : 3;
    arbiter known;
    known.object = server_object_create(CONTROL, 0666);
    std::atomic<bool> over = false;
    std::thread speaker([&] { speak_at_random(known.object, over); });
    live_and_play(0, source, 1); /* what is opened once, at the first use, stays */
    over = true;
    speaker.join();
    const auto descriptors = entries("/proc/self/fd");
    over = false;
    speaker = std::thread([&] { speak_at_random(known.object, over); });
    std::vector<std::thread> players;
    for (int i = 0; i < 8; ++i) {
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
    EXPECT_EQ(entries("/proc/self/fd"), descriptors);
    EXPECT_EQ(fake_do(rig.fake, "sessions"), "");
    EXPECT_EQ(fake_do(rig.fake, "violations"), "");
}
