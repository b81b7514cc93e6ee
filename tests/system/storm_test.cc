/* Everything at once: clients that share players, playback events and media-source events from
 * several threads of two plug-ins, and signals. Whatever the order, nothing may break: the
 * sanitizers watch inside, and what is seen from outside must agree at the end. */
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "rig.h"

namespace {

constexpr int CLIENTS = 8;
constexpr int REQUESTS = 150; /* of each client, in a round; LYRANE_ROUNDS asks for more rounds */

const char* const players[] = {"left", "right", "front", "rear"};

struct storm_client {
    const test_daemon* daemon = nullptr;
    unsigned seed = 0;
    int requests = 0;
    int failures = 0; /* requests without any reply */
    std::thread thread;
};

int rounds() {
    const char* wanted = std::getenv("LYRANE_ROUNDS");
    return wanted != nullptr ? std::atoi(wanted) : 1;
}

/* One random request on a player that this connection holds. */
void one_request(request_client& client, std::mt19937& random, int& failures) {
    static const uint16_t simple[] = {LYR_MSG_PLAY,
                                      LYR_MSG_STOP,
                                      LYR_MSG_PAUSE,
                                      LYR_MSG_NEXT,
                                      LYR_MSG_PREVIOUS,
                                      LYR_MSG_GET_MEDIA_SOURCE,
                                      LYR_MSG_GET_CURRENT_STATE,
                                      LYR_MSG_GET_TRKSESSION_INFO,
                                      LYR_MSG_GET_CURRENT_TRACK_INFO,
                                      LYR_MSG_GET_CURRENT_TRACK_POSITION};
    static const uint16_t numbered[] = {LYR_MSG_JUMP, LYR_MSG_SEEK, LYR_MSG_SHUFFLE,
                                        LYR_MSG_REPEAT};
    const int32_t source = static_cast<int32_t>(random() % 3);
    std::vector<request_node> nodes;
    request_metadata data;
    uint64_t ts_id = random() % 50;
    int32_t result = 0;
    switch (random() % 14) {
    case 0:
    case 12:
    case 13:
        result =
            request_create(client, source, "/a", -1, static_cast<int32_t>(random() % 4), &ts_id);
        break;
    case 1:
        result = request_destroy(client, ts_id);
        break;
    case 2:
        result = request_browse(client, source, "/a", 0, 10, nodes);
        break;
    case 3:
        result = request_tracks(client, ts_id, 0, -1, nodes);
        break;
    case 4:
        result = request_metadata_of(client, source, "/a/t0", data);
        break;
    case 5:
    case 6:
        result = request_number(client, numbered[random() % std::size(numbered)],
                                static_cast<int32_t>(random() % 3));
        break;
    default:
        result = request_simple(client, simple[random() % std::size(simple)]);
        break;
    }
    failures += result == REQUEST_FAILED ? 1 : 0;
}

void run_client(storm_client* self) {
    std::mt19937 random(self->seed);
    int left = self->requests;
    while (left > 0) {
        request_client client;
        if (!request_connect(client, self->daemon->service)) {
            self->failures += 1;
            return;
        }
        const std::string player = players[random() % std::size(players)];
        self->failures += request_open(client, player) == 0 ? 0 : 1;
        for (unsigned i = 5 + random() % 40; i > 0 && left > 0; --i, --left) {
            one_request(client, random, self->failures);
        }
        self->failures += request_close(client, player) == 0 ? 0 : 1;
        request_disconnect(client);
    }
}

/* Blows from all threads of a plug-in until it is calm: gusts of playback events at once, and now
 * and then the source goes and comes back. The service may end meanwhile. */
void blow(fake_client fake, const char* uid, const std::atomic<bool>& calm) {
    static const char* const events[] = {"position value=6000 repeat=20", "finished repeat=3",
                                         "state status=2 repeat=5",       "error value=0 repeat=2",
                                         "changed node=/a/t1 repeat=5",   "browse_error repeat=5"};
    const std::string source = std::string(" uid=") + uid;
    for (int gust = 0; !calm; ++gust) {
        std::vector<std::string> sent;
        int thread = 1;
        for (const char* event : events) {
            sent.push_back(std::string(event) + " thread=" + std::to_string(thread++));
        }
        if (gust % 8 == 0) {
            sent.push_back("error value=1");
        }
        if (gust % 4 == 0) {
            sent.push_back("disconnected" + source);
            sent.push_back("status" + source + " value=" + std::to_string(gust));
            sent.push_back("connected" + source);
            sent.push_back("caps" + source +
                           " value=" + std::to_string(0xf065f | (gust % 16 << 20)));
        }
        std::vector<std::string> tickets;
        std::string answer;
        for (const std::string& event : sent) {
            if (fake_execute(fake, "event " + event + " nowait=1", answer) == 0) {
                tickets.push_back(answer);
            }
        }
        for (const std::string& ticket : tickets) {
            (void)fake_execute(fake, "join " + ticket, answer);
        }
        if (tickets.empty()) {
            break;
        }
    }
    fake_close(fake);
}

/* A service with three sources of two plug-ins, the clients and the winds. */
struct storm {
    ::rig rig;
    fake_client fakes[2];
    std::vector<storm_client> clients{CLIENTS};
    std::vector<std::thread> winds;
    std::atomic<bool> calm = false;
};

bool storm_begin(storm& storm, int requests) {
    test_daemon& daemon = storm.rig.daemon;
    daemon_prepare(daemon);
    daemon.options.push_back("-vvvvvvv"); /* every line is formatted and written */
    daemon.plugins.push_back({"disk", "source disk\nsource spare", {}});
    daemon.plugins.push_back({"stick", "source stick type=0x2\ntypes 0x2", {}});
    if (!daemon_start(daemon)) {
        return false;
    }
    storm.fakes[0] = daemon_fake(daemon, "disk");
    storm.fakes[1] = daemon_fake(daemon, "stick");
    for (fake_client& fake : storm.fakes) {
        fake_tree(fake, "", "/a|tree:2,2,10\n");
        fake_do(fake, "rule browse page=3");
        fake_do(fake, "rule attach id=/a/t3 result=-1");
    }
    for (storm_client& client : storm.clients) {
        client.daemon = &daemon;
        client.requests = requests;
        client.seed = static_cast<unsigned>(&client - storm.clients.data()) + 1;
        client.thread = std::thread(run_client, &client);
    }
    for (const char* source : {"disk", "spare", "stick"}) {
        fake_client fake = daemon_fake(daemon, source == std::string("stick") ? "stick" : "disk");
        storm.winds.emplace_back([&storm, fake, source] { blow(fake, source, storm.calm); });
    }
    return true;
}

void join_all(storm& storm) {
    for (storm_client& client : storm.clients) {
        client.thread.join();
    }
    storm.calm = true;
    for (std::thread& wind : storm.winds) {
        wind.join();
    }
}

} // namespace

TEST(Storm, EverythingAtOnce) {
    storm storm;
    ASSERT_TRUE(storm_begin(storm, REQUESTS * rounds()));
    rig& rig = storm.rig;
    for (int i = 0; i < 16; ++i) {
        daemon_signal(rig.daemon, SIGUSR1);
    }
    join_all(storm);
    for (const storm_client& client : storm.clients) {
        EXPECT_EQ(client.failures, 0);
    }
    /* The plug-ins' own threads come to their end, too, and nothing of the players is left. */
    EXPECT_GE(fake_number(storm.fakes[0], "event connected uid=disk"), 0);
    EXPECT_GE(fake_number(storm.fakes[1], "event connected uid=stick"), 0);
    ASSERT_TRUE(request_connect(rig.client, rig.daemon.service));
    EXPECT_EQ(request_sources(rig.client).size(), 3u);
    for (const char* player : players) {
        EXPECT_FALSE(rig_has_player(rig.daemon, player));
    }
    /* There was a storm indeed. */
    for (const char* entry : {"attach", "play", "browse", "cancel", "event.finished"}) {
        EXPECT_GT(fake_number(storm.fakes[0], "count %s returned=1", entry), 0) << entry;
    }
    for (fake_client& fake : storm.fakes) {
        EXPECT_EQ(fake_do(fake, "sessions"), "");
        EXPECT_EQ(fake_do(fake, "violations"), "");
        fake_close(fake);
    }
    rig_end(rig);
}

TEST(Storm, EndsInTheMidst) {
    storm storm;
    ASSERT_TRUE(storm_begin(storm, REQUESTS));
    fake_do(storm.fakes[0], "await attach 20");
    EXPECT_EQ(daemon_stop(storm.rig.daemon), 0);
    rig_expect_clean(storm.rig.daemon);
    join_all(storm);
    for (fake_client& fake : storm.fakes) {
        fake_close(fake);
    }
    daemon_remove(storm.rig.daemon);
}
