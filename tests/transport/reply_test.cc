/* Deferred replies: what is queued, for whom, how much, and until when. */
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "harness.h"

/* Fetches a queued reply: its text, behind error(N) for a status other than 0. */
static std::string get(msgclient_t* client, uint32_t tag, int32_t capacity = 4096,
                       int32_t* needed = nullptr) {
    std::string reply(static_cast<size_t>(capacity), '\0');
    int32_t length = -1;
    const int32_t status = msgclient_get(client, tag, reply.data(), capacity, &length, 0);
    if (needed != nullptr) {
        *needed = length;
    }
    reply.resize(status == 0 || status == LATE_STATUS ? static_cast<size_t>(length) : 0);
    return status == 0 ? reply : error(status) + reply;
}

static constexpr int32_t QUEUE_BYTES = MSGSERVER_REPLY_MEMORY / 2 / 4; /* of one connection */

TEST(Reply, OneByteMoreThanTheCapacityIsQueued) {
    harness h;
    const scoped_client client;
    EXPECT_EQ(ask(client, "e 12345", 5), "12345");
    EXPECT_EQ(ask(client, "e 12345", 4), error(LYR_STATUS_QUEUED));
    int32_t needed;
    EXPECT_EQ(get(client, 0, 4, &needed), error(LYR_STATUS_QUEUED));
    EXPECT_EQ(needed, 5);
    EXPECT_EQ(get(client, 0, 5), "12345");
    EXPECT_EQ(get(client, 0, 5), error(ENOMSG));
    /* The worker's status comes with the queued reply, and an empty one always fits. */
    EXPECT_EQ(ask(client, "s 61", 0), error(61));

    constexpr size_t LARGE = 20000000;
    const std::string expected = pattern(LARGE);
    const std::string request = "b " + std::to_string(LARGE);
    EXPECT_TRUE(ask(client, request, LARGE) == expected);
    EXPECT_EQ(ask(client, request, 100), error(LYR_STATUS_QUEUED));
    EXPECT_EQ(harness_queued(&h), static_cast<int64_t>(LARGE));
    EXPECT_TRUE(get(client, 0, LARGE) == expected);
    EXPECT_EQ(harness_queued(&h), 0);
}

TEST(Reply, PutsAreAnnouncedAndFetchedNewestFirst) {
    harness h;
    const scoped_client client;
    EXPECT_EQ(put(client, 1, "e x"), EAGAIN);
    ASSERT_EQ(msgclient_notify_pulse(client, 3), 0);
    EXPECT_EQ(put(client, 0, "e x"), EINVAL);
    EXPECT_EQ(put(client, 7, "e old"), 0);
    EXPECT_EQ(msgclient_wait_pulse(client), 7u);
    EXPECT_EQ(put(client, 9, "e nine"), 0);
    EXPECT_EQ(msgclient_wait_pulse(client), 9u);
    EXPECT_EQ(put(client, 7, "e new"), 0);
    EXPECT_EQ(msgclient_wait_pulse(client), 7u);
    EXPECT_EQ(put(client, 8, "e x"), EAGAIN) << "three are queued";
    EXPECT_EQ(get(client, 7), "new");
    EXPECT_EQ(put(client, 8, "e eight"), 0);
    EXPECT_EQ(get(client, 7), "old");
    EXPECT_EQ(get(client, 9), "nine");
    EXPECT_EQ(msgclient_wait_pulse(client), 8u);
    EXPECT_EQ(get(client, 8), "eight");
    EXPECT_EQ(get(client, 8), error(ENOMSG));
}

TEST(Reply, TheGrantedDepthHasBounds) {
    const harness h;
    const std::pair<int32_t, int> cases[] = {{0, 1}, {-5, 1}, {1, 1}, {5, 5}, {9, 5}};
    for (const auto& [asked, granted] : cases) {
        const scoped_client client;
        const msgclient_event none{};
        ASSERT_EQ(msgclient_notify(client, asked, &none), 0);
        int accepted = 0;
        while (put(client, 1, "e x") == 0) {
            ++accepted;
        }
        EXPECT_EQ(accepted, granted) << asked;
    }
}

TEST(Reply, QueuesThatNobodyEmptiesAreBounded) {
    harness h;
    {
        const scoped_client client;
        int queued = 0;
        while (ask(client, "e x", 0) == error(LYR_STATUS_QUEUED)) {
            ++queued;
        }
        EXPECT_EQ(queued, MSGSERVER_QUEUE_ENTRIES);
        EXPECT_EQ(ask(client, "e x", 0), error(ENOMEM));
        EXPECT_EQ(ask(client, "e x", 1), "x") << "what fits is answered all the same";
        for (; queued > 0; --queued) {
            EXPECT_EQ(get(client, 0), "x");
        }
        const std::string large = "b " + std::to_string(QUEUE_BYTES / 2 + 1);
        EXPECT_EQ(ask(client, large, 0), error(LYR_STATUS_QUEUED));
        EXPECT_EQ(ask(client, large, 0), error(LYR_STATUS_QUEUED));
        EXPECT_EQ(ask(client, large, 0), error(ENOMEM));
        /* What could not be answered must not be carried out. */
        ASSERT_EQ(msgclient_notify_pulse(client, 5), 0);
        EXPECT_EQ(put(client, 1, "e x"), EAGAIN);
        EXPECT_EQ(get(client, 0, QUEUE_BYTES).size(), QUEUE_BYTES / 2 + 1);
        EXPECT_EQ(put(client, 1, large), 0);
    }
    harness_await_connections(&h, 0);
    EXPECT_EQ(harness_queued(&h), 0);
}

TEST(Reply, OneUserLeavesRoomInTheQueues) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be another user, too";
    }
    const harness h;
    std::filesystem::permissions(getenv("VELORAN_RUN"), std::filesystem::perms(0755));
    const std::string large = "b " + std::to_string(QUEUE_BYTES / 2 + 1);
    constexpr size_t FIT = 3; /* of four quarters */
    /* This thread alone is another user while it connects. */
    ASSERT_EQ(syscall(SYS_setresuid, -1, 54321, -1), 0);
    const std::vector<scoped_client> clients(FIT + 1);
    ASSERT_EQ(syscall(SYS_setresuid, -1, 0, -1), 0);
    for (size_t i = 0; i <= FIT; ++i) {
        const std::string expected = error(i < FIT ? LYR_STATUS_QUEUED : ENOMEM);
        EXPECT_EQ(ask(clients[i], large, 0), expected) << i;
        EXPECT_EQ(ask(clients[i], large, 0), expected) << i;
    }
    const scoped_client root;
    EXPECT_EQ(ask(root, large, 0), error(LYR_STATUS_QUEUED));
}

TEST(Reply, AWorkerThatRepliesNeverOrTwice) {
    harness h;
    const scoped_client client;
    EXPECT_EQ(ask(client, "n"), error(EIO));
    EXPECT_EQ(ask(client, "t"), "one");
    EXPECT_EQ(ask(client, "e next"), "next");
    harness_stop(&h);
    EXPECT_EQ(h.refused_replies.load(), 1);
}

TEST(Reply, LateRepliesFindTheirConnectionOpenClosedOrGone) {
    harness h;
    {
        const scoped_client client;
        ASSERT_EQ(msgclient_notify_pulse(client, 1), 0);
        EXPECT_EQ(put(client, 5, "l"), 0);
        EXPECT_EQ(put(client, 6, "e x"), EAGAIN) << "a reply still owed counts";
        harness_late(&h, ": late");
        EXPECT_EQ(msgclient_wait_pulse(client), 5u);
        EXPECT_EQ(get(client, 5), error(LATE_STATUS) + ": late");
        EXPECT_EQ(put(client, 5, "l"), 0);
    }
    EXPECT_EQ(h.disconnects.load(), 1);
    harness_await_connections(&h, 1); /* a reply is owed to it */
    harness_late(&h, "for nobody");
    harness_await_connections(&h, 0);

    wire_client gone = raw_client();
    EXPECT_FALSE(
        wire_call(gone, wire_header(gone, CSM_NOTIFY, 0, 1) + std::string(16, '\0')).error);
    EXPECT_FALSE(wire_call(gone, wire_header(gone, CSM_PUT, 1, 0, 1) + "l").error);
    wire_close(gone);
    harness_await_disconnects(&h, 2);
    harness_late(&h, "for nobody");
    harness_await_connections(&h, 0);
    EXPECT_EQ(harness_queued(&h), 0);
}
