/* Deferred replies: what is queued, for whom, how much, and until when. */
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "harness.h"

namespace {

std::string get(msgclient_t* client, uint32_t tag, int32_t* status, int32_t capacity = 4096,
                int32_t* needed = nullptr) {
    std::string reply(static_cast<size_t>(capacity), '\0');
    int32_t length = -1;
    *status = msgclient_get(client, tag, reply.data(), capacity, &length, 0);
    if (needed != nullptr) {
        *needed = length;
    }
    reply.resize(*status == 0 || *status == 3 ? static_cast<size_t>(length) : 0);
    return reply;
}

int32_t put(msgclient_t* client, uint32_t tag, const std::string& request) {
    return msgclient_put(client, tag, request.data(), static_cast<int32_t>(request.size()), 0);
}

} // namespace

TEST(Reply, OneByteMoreThanTheCapacityIsQueued) {
    harness h;
    harness_start(&h);
    msgclient_t* client = harness_open();
    EXPECT_EQ(ask(client, "e 12345", 5), "12345");
    EXPECT_EQ(ask(client, "e 12345", 4), "error 240");
    int32_t status;
    int32_t needed;
    get(client, 0, &status, 4, &needed);
    EXPECT_EQ(status, LYR_STATUS_QUEUED);
    EXPECT_EQ(needed, 5);
    EXPECT_EQ(get(client, 0, &status, 5), "12345");
    get(client, 0, &status, 5);
    EXPECT_EQ(status, ENOMSG);
    /* The worker's status comes with the queued reply, and an empty one always fits. */
    EXPECT_EQ(ask(client, "s 61", 0), "error 61");
    msgclient_close(client);
    harness_await_connections(&h, 0);
    harness_stop(&h);
}

TEST(Reply, LargeRepliesDirectAndQueued) {
    harness h;
    harness_start(&h);
    msgclient_t* client = harness_open();
    constexpr size_t SIZE = 20000000;
    std::string expected(SIZE, '\0');
    for (size_t i = 0; i < SIZE; ++i) {
        expected[i] = pattern_byte(i);
    }
    EXPECT_TRUE(ask(client, "b " + std::to_string(SIZE), SIZE) == expected);
    EXPECT_EQ(ask(client, "b " + std::to_string(SIZE), 100), "error 240");
    EXPECT_EQ(harness_queued(&h), static_cast<int64_t>(SIZE));
    int32_t status;
    EXPECT_TRUE(get(client, 0, &status, SIZE) == expected);
    EXPECT_EQ(harness_queued(&h), 0);
    msgclient_close(client);
    harness_stop(&h);
}

TEST(Reply, PutsAreAnnouncedAndFetchedNewestFirst) {
    harness h;
    harness_start(&h);
    msgclient_t* client = harness_open();
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
    int32_t status;
    EXPECT_EQ(get(client, 7, &status), "new");
    EXPECT_EQ(put(client, 8, "e eight"), 0);
    EXPECT_EQ(get(client, 7, &status), "old");
    EXPECT_EQ(get(client, 9, &status), "nine");
    EXPECT_EQ(msgclient_wait_pulse(client), 8u);
    EXPECT_EQ(get(client, 8, &status), "eight");
    get(client, 8, &status);
    EXPECT_EQ(status, ENOMSG);
    msgclient_close(client);
    harness_stop(&h);
}

TEST(Reply, TheGrantedDepthHasBounds) {
    harness h;
    harness_start(&h);
    const struct {
        int32_t asked;
        int granted;
    } cases[] = {{0, 1}, {-5, 1}, {1, 1}, {5, 5}, {9, 5}};
    for (const auto& entry : cases) {
        msgclient_t* client = harness_open();
        const msgclient_event none{};
        ASSERT_EQ(msgclient_notify(client, entry.asked, &none), 0);
        int accepted = 0;
        while (put(client, 1, "e x") == 0) {
            ++accepted;
        }
        EXPECT_EQ(accepted, entry.granted) << entry.asked;
        msgclient_close(client);
    }
    harness_stop(&h);
}

TEST(Reply, QueuesThatNobodyEmptiesAreBounded) {
    harness h;
    harness_start(&h);
    msgclient_t* client = harness_open();
    int queued = 0;
    while (ask(client, "e x", 0) == "error 240") {
        ++queued;
    }
    EXPECT_EQ(queued, MSGSERVER_QUEUE_ENTRIES);
    EXPECT_EQ(ask(client, "e x", 0), "error " + std::to_string(ENOMEM));
    EXPECT_EQ(ask(client, "e x", 1), "x") << "what fits is answered all the same";
    int32_t status;
    while (queued > 0) {
        EXPECT_EQ(get(client, 0, &status), "x");
        --queued;
    }
    const std::string large = "b " + std::to_string(MSGSERVER_QUEUE_BYTES / 2 + 1);
    EXPECT_EQ(ask(client, large, 0), "error 240");
    EXPECT_EQ(ask(client, large, 0), "error 240");
    EXPECT_EQ(ask(client, large, 0), "error " + std::to_string(ENOMEM));
    /* What could not be answered must not be carried out. */
    ASSERT_EQ(msgclient_notify_pulse(client, 5), 0);
    EXPECT_EQ(put(client, 1, "e x"), EAGAIN);
    EXPECT_EQ(get(client, 0, &status, MSGSERVER_QUEUE_BYTES).size(), MSGSERVER_QUEUE_BYTES / 2 + 1);
    EXPECT_EQ(put(client, 1, large), 0);
    msgclient_close(client);
    harness_await_connections(&h, 0);
    EXPECT_EQ(harness_queued(&h), 0);
    harness_stop(&h);
}

TEST(Reply, OneUserLeavesRoomInTheQueues) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be another user, too";
    }
    harness h;
    harness_start(&h);
    std::filesystem::permissions(getenv("VELORAN_RUN"), std::filesystem::perms(0755));
    const std::string large = "b " + std::to_string(MSGSERVER_QUEUE_BYTES / 2 + 1);
    const std::string full = "error " + std::to_string(ENOMEM);
    std::vector<msgclient_t*> clients;
    for (int i = 0; i <= MSGSERVER_QUEUE_USER / MSGSERVER_QUEUE_BYTES; ++i) {
        /* This thread alone is another user while it connects. */
        ASSERT_EQ(syscall(SYS_setresuid, -1, 54321, -1), 0);
        clients.push_back(harness_open());
        ASSERT_EQ(syscall(SYS_setresuid, -1, 0, -1), 0);
        const bool fits = i < MSGSERVER_QUEUE_USER / MSGSERVER_QUEUE_BYTES;
        EXPECT_EQ(ask(clients.back(), large, 0), fits ? "error 240" : full) << i;
        EXPECT_EQ(ask(clients.back(), large, 0), fits ? "error 240" : full) << i;
    }
    clients.push_back(harness_open());
    EXPECT_EQ(ask(clients.back(), large, 0), "error 240");
    for (msgclient_t* client : clients) {
        msgclient_close(client);
    }
    harness_await_connections(&h, 0);
    EXPECT_EQ(harness_queued(&h), 0);
    harness_stop(&h);
}

TEST(Reply, AWorkerThatRepliesNeverOrTwice) {
    harness h;
    harness_start(&h);
    msgclient_t* client = harness_open();
    EXPECT_EQ(ask(client, "n"), "error " + std::to_string(EIO));
    EXPECT_EQ(ask(client, "t"), "one");
    EXPECT_EQ(ask(client, "e next"), "next");
    msgclient_close(client);
    harness_await_connections(&h, 0);
    harness_stop(&h);
    EXPECT_EQ(h.refused_replies.load(), 1);
}

TEST(Reply, LateRepliesFindTheirConnectionOpenClosedOrGone) {
    harness h;
    harness_start(&h);
    msgclient_t* client = harness_open();
    ASSERT_EQ(msgclient_notify_pulse(client, 1), 0);
    EXPECT_EQ(put(client, 5, "l"), 0);
    EXPECT_EQ(put(client, 6, "e x"), EAGAIN) << "a reply still owed counts";
    harness_late(&h, "late");
    EXPECT_EQ(msgclient_wait_pulse(client), 5u);
    int32_t status;
    EXPECT_EQ(get(client, 5, &status), "late");
    EXPECT_EQ(status, 3);

    EXPECT_EQ(put(client, 5, "l"), 0);
    msgclient_close(client);
    EXPECT_EQ(h.disconnects.load(), 1);
    harness_await_connections(&h, 1); /* a reply is owed to it */
    harness_late(&h, "for nobody");
    harness_await_connections(&h, 0);

    message_client gone;
    msg_header header = raw_open(&gone);
    header.type = CSM_NOTIFY;
    EXPECT_EQ(raw_call(&gone, header, std::string(16, '\0')).error, 0);
    header.type = CSM_PUT;
    header.tag = 1;
    header.length = 1;
    EXPECT_EQ(raw_call(&gone, header, "l").error, 0);
    message_disconnect(&gone);
    harness_await_disconnects(&h, 2);
    harness_late(&h, "for nobody");
    harness_await_connections(&h, 0);
    EXPECT_EQ(harness_queued(&h), 0);
    harness_stop(&h);
}
