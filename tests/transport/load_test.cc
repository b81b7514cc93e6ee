/* Many clients, many threads, and what is left afterwards: nothing. */
#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "harness.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HEAP_IS_COUNTED 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define HEAP_IS_COUNTED 0
#endif
#endif
#ifndef HEAP_IS_COUNTED
#define HEAP_IS_COUNTED 1
#endif

namespace {

/* Synchronous and asynchronous requests by turns; each reply is checked. */
void talk(msgclient_t* client, int seed, int requests) {
    ASSERT_EQ(msgclient_notify_pulse(client, 5), 0);
    for (int i = 1; i <= requests; ++i) {
        const std::string text = std::to_string(seed) + "/" + std::to_string(i);
        const std::string request = "e " + text;
        if (i % 3 != 0) {
            ASSERT_EQ(ask(client, request), text);
            continue;
        }
        const auto tag = static_cast<uint32_t>(i);
        ASSERT_EQ(
            msgclient_put(client, tag, request.data(), static_cast<int32_t>(request.size()), 0), 0);
        ASSERT_EQ(msgclient_wait_pulse(client), tag);
        char reply[64];
        int32_t length;
        ASSERT_EQ(msgclient_get(client, tag, reply, sizeof reply, &length, 0), 0);
        ASSERT_EQ(std::string(reply, static_cast<size_t>(length)), text);
    }
}

} // namespace

TEST(TransportLoad, TenThousandOpensAndRequestsLeaveNothing) {
    harness h;
    harness_start(&h);
    int descriptors = 0;
    size_t heap = 0;
    for (int round = 1; round <= 10000; ++round) {
        msgclient_t* client = harness_open();
        ASSERT_EQ(ask(client, "e x"), "x");
        ASSERT_EQ(ask(client, "e xyz", 1), "error 240"); /* stays in the queue */
        if (round % 10 == 0) {
            talk(client, round, 3);
        }
        msgclient_close(client);
        harness_await_disconnects(&h, round);
        harness_await_connections(&h, 0);
        if (round == 1000) {
            descriptors = descriptor_count();
            heap = mallinfo2().uordblks;
        }
    }
    while (descriptor_count() > descriptors) {
        std::this_thread::yield(); /* the end of the last socket is worked off after its close */
    }
    EXPECT_EQ(harness_queued(&h), 0);
    if (HEAP_IS_COUNTED != 0) {
        EXPECT_LT(mallinfo2().uordblks, heap + 16384);
    }
    harness_stop(&h);
}

TEST(TransportLoad, PipelinedRequestsAreAnsweredInOrderAndOneAtATime) {
    harness h;
    harness_start(&h, 4);
    message_client client;
    msg_header header = raw_open(&client);
    constexpr int REQUESTS = 40;
    header.type = CSM_PUTGET;
    header.size = INT32_MAX;
    for (int i = 0; i < REQUESTS; ++i) {
        /* By turns short, and of several packets. */
        const std::string request = "b " + std::to_string(i % 2 == 0 ? i : 150000 + i);
        header.length = static_cast<int32_t>(request.size());
        std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
        bytes += request;
        ASSERT_EQ(send(client.fd, bytes.data(), bytes.size(), 0),
                  static_cast<ssize_t>(bytes.size()));
    }
    std::vector<char> packet(MESSAGE_PACKET_SIZE);
    size_t data = 0;
    for (uint32_t i = 0; i < REQUESTS;) {
        const ssize_t got = recv(client.fd, packet.data(), packet.size(), 0);
        ASSERT_GE(got, static_cast<ssize_t>(sizeof(message_frame)));
        message_frame frame;
        memcpy(&frame, packet.data(), sizeof frame);
        ASSERT_EQ(frame.sequence, i + 2);
        ASSERT_EQ(frame.length, sizeof header + (i % 2 == 0 ? i : 150000 + i));
        data += static_cast<size_t>(got) - sizeof frame;
        if ((frame.flags & MESSAGE_FRAME_MORE) == 0) {
            ASSERT_EQ(data, frame.length);
            data = 0;
            ++i;
        }
    }
    message_disconnect(&client);
    harness_await_disconnects(&h, 1);
    harness_stop(&h);
    EXPECT_EQ(h.most_inside.load(), 1) << "two requests of one socket ran side by side";
}
