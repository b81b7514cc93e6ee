/* Ten thousand requests leave the service as it was: memory, descriptors, threads, and the
 * plug-in's sessions. */
#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include <gtest/gtest.h>

#include "rig.h"

namespace {

constexpr int WARM_UP = RIG_SANITIZED ? 20 : 150;
constexpr int ROUNDS = RIG_SANITIZED ? 40 : 300;

/* LYRANE_ROUNDS asks for more, each with every request of the catalogue. */
int rounds() {
    const char* wanted = std::getenv("LYRANE_ROUNDS");
    return wanted != nullptr ? std::max(1, std::atoi(wanted)) : ROUNDS;
}

/* Every request of the catalogue, on a player of its own that goes away again. */
void one_round(rig& rig, int number) {
    request_client& client = rig.client;
    const std::string player = "round" + std::to_string(number % 7);
    std::vector<request_node> nodes;
    std::vector<std::string> values;
    request_metadata data;
    uint64_t ts_id = 0;
    int32_t value = 0;
    EXPECT_EQ(request_open(client, player), 0);
    EXPECT_EQ(request_sources(client).size(), 1u);
    EXPECT_EQ(request_browse(client, 0, "/", 0, -1, nodes), 0);
    EXPECT_EQ(request_search(client, 0, "", "Track", 0, 5, nodes), 0);
    EXPECT_EQ(request_metadata_of(client, 0, "/a/t0", data), 0);
    EXPECT_EQ(request_extended(client, 0, "/a/t0", {"mood", "none"}, values), 0);
    EXPECT_EQ(request_create(client, 0, "/a", -1, number % 3, &ts_id), 0);
    EXPECT_EQ(request_session(client, &ts_id, &value), 0);
    EXPECT_EQ(request_tracks(client, ts_id, 0, -1, nodes), 0);
    EXPECT_EQ(request_simple(client, LYR_MSG_PLAY), 0);
    fake_number(rig.disk, "event position value=%d", number);
    fake_number(rig.disk, "event finished");
    EXPECT_EQ(request_current(client).result, 0);
    EXPECT_EQ(request_position(client, &value), 0);
    EXPECT_EQ(request_state(client).result, 0);
    EXPECT_EQ(request_number(client, LYR_MSG_SHUFFLE, 1), 0);
    EXPECT_EQ(request_number(client, LYR_MSG_REPEAT, 1), 0);
    EXPECT_EQ(request_simple(client, LYR_MSG_NEXT), 0);
    EXPECT_EQ(request_simple(client, LYR_MSG_PREVIOUS), 0);
    EXPECT_EQ(request_number(client, LYR_MSG_JUMP, 0), 0);
    EXPECT_EQ(request_number(client, LYR_MSG_SEEK, 1000), 0);
    EXPECT_EQ(request_speed(client, 2.0F), 0);
    EXPECT_EQ(request_simple(client, LYR_MSG_PAUSE), 0);
    EXPECT_EQ(request_simple(client, LYR_MSG_STOP), 0);
    EXPECT_EQ(request_send(client, request_begin(LYR_MSG_CREATE_TRKSESSIONV)).status, ENOTSUP);
    EXPECT_EQ(request_send(client, request_begin(LYR_MSG_REPEAT + 1)).status, ENOMSG);
    EXPECT_EQ(request_browse(client, 0, "/nowhere", 0, -1, nodes), -1);
    EXPECT_EQ(request_browse(client, 5, "/", 0, -1, nodes), -1);
    EXPECT_EQ(request_browse(client, 0, "/", -1, 7, nodes), -1);
    EXPECT_EQ(request_close(client, "other"), -1);
    EXPECT_EQ(request_destroy(client, ts_id + 1), -1);
    if (number % 2 == 0) {
        EXPECT_EQ(request_destroy(client, ts_id), 0);
    }
    if (number % 5 == 0) {
        fake_number(rig.disk, "event disconnected uid=disk");
        fake_number(rig.disk, "event connected uid=disk");
    }
    EXPECT_EQ(request_close(client, player), 0);
    request_client passing;
    EXPECT_TRUE(request_connect(passing, rig.daemon.service));
    request_disconnect(passing);
}

} // namespace

TEST(Endurance, TenThousandRequestsLeaveNothingBehind) {
    rig rig;
    ASSERT_TRUE(rig_start(rig, "/a|tree:1,2,30\n"));
    int number = 0;
    /* The plug-in's own log and its memory of sessions are full after this. */
    for (; number < WARM_UP; ++number) {
        one_round(rig, number);
        ASSERT_FALSE(HasFailure()) << number;
    }
    const int64_t memory = daemon_resident(rig.daemon);
    const int64_t threads = daemon_settle(rig.daemon, daemon_threads, 7);
    const int64_t descriptors = daemon_settle(rig.daemon, daemon_descriptors, 20);
    for (const int last = WARM_UP + rounds(); number < last; ++number) {
        one_round(rig, number);
        ASSERT_FALSE(HasFailure()) << number;
    }
    EXPECT_LE(daemon_settle(rig.daemon, daemon_descriptors, descriptors), descriptors);
    EXPECT_LE(daemon_settle(rig.daemon, daemon_threads, threads), threads);
    if (!RIG_SANITIZED) { /* freed memory stays in quarantine */
        EXPECT_LE(daemon_resident(rig.daemon), memory + 1024) << "KiB, " << memory << " before";
    }
    EXPECT_EQ(fake_do(rig.disk, "sessions"), "");
    EXPECT_EQ(fake_do(rig.disk, "violations"), "");
    rig_end(rig);
}
