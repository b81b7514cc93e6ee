/* Message passing between a channel and clients that behave. */
#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "channel_thread.h"

TEST(Message, RepliesOfAnySizeArriveWhole) {
    channel_thread server;
    test_client client;
    const size_t data = MESSAGE_PACKET_SIZE - sizeof(message_frame);
    for (const size_t size : {size_t{0}, data, data + 1, 2 * data, size_t{5000000}}) {
        int32_t status = 0;
        EXPECT_TRUE(call(&client, "size " + std::to_string(size), size, &status) == pattern(size))
            << size;
        EXPECT_EQ(status, 7);
    }
}

TEST(Message, RequestsLargerThanTheDefaultBufferAreTaken) {
    channel_thread server;
    test_client client;
    const int small = 4096;
    setsockopt(client.fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    const std::string request(60000, 'x');
    EXPECT_EQ(call(&client, request, request.size()), request);
}

TEST(Message, IdsOfAnsweredAndGoneMessagesAreDead) {
    message_channel* channel = message_channel_create();
    ASSERT_EQ(attach(channel), 0);
    char buffer[16];
    const iovec area{buffer, sizeof buffer};
    message_info info;
    const int first = plain_socket();
    ASSERT_EQ(send(first, "one", 3, 0), 3);
    const int64_t rcvid = message_receive(channel, &area, 1, &info);
    ASSERT_GT(rcvid, 0);
    EXPECT_EQ(info.pid, getpid());
    EXPECT_EQ(info.uid, geteuid());
    const int32_t first_scoid = info.scoid;
    EXPECT_EQ(message_reply(channel, rcvid, 0, nullptr, 0), 0);
    EXPECT_EQ(message_reply(channel, rcvid, 0, nullptr, 0), -1);
    EXPECT_EQ(errno, ESRCH);

    /* The end of a client is reported only when its last message is done. */
    close(first);
    message_done(channel, rcvid);
    EXPECT_EQ(message_receive(channel, &area, 1, &info), 0);
    EXPECT_EQ(info.pulse, MESSAGE_PULSE_DISCONNECT);
    EXPECT_EQ(info.scoid, first_scoid);
    message_detach(channel, first_scoid);

    /* The newcomer has the descriptor, but not the id. */
    const int second = plain_socket();
    ASSERT_EQ(send(second, "two", 3, 0), 3);
    const int64_t other = message_receive(channel, &area, 1, &info);
    EXPECT_NE(info.scoid, first_scoid);
    EXPECT_EQ(message_error(channel, rcvid, EIO), -1);
    EXPECT_EQ(message_deliver_event(channel, rcvid, buffer), -1);
    EXPECT_EQ(errno, ESRCH);
    /* A message that is given up without an answer is answered all the same. */
    message_done(channel, other);
    message_frame frame;
    ASSERT_EQ(recv(second, &frame, sizeof frame, 0), static_cast<ssize_t>(sizeof frame));
    EXPECT_EQ(frame.status, EIO);
    EXPECT_EQ(frame.flags, MESSAGE_FRAME_ERROR);
    EXPECT_EQ(frame.sequence, 1u);
    close(second);
    message_channel_destroy(channel);
}

TEST(Message, EventsReachTheClientAndAreLostWhenItDoesNotRead) {
    channel_thread server;
    test_client client;
    int32_t receive_end;
    int32_t send_end;
    ASSERT_EQ(message_event_channel(&receive_end, &send_end), 0);
    int32_t status = -1;
    call(&client, "event", 64, &status, send_end);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(call(&client, "hello"), "hello");
    message_event event{};
    EXPECT_EQ(message_event_wait(receive_end, client.fd, &event), 0);
    EXPECT_EQ(event.value, 42u);
    for (int i = 0; i < 20000; ++i) {
        ASSERT_EQ(call(&client, "more"), "more"); /* far more events than the channel holds */
    }
    EXPECT_EQ(message_event_wait(receive_end, client.fd, &event), 0);
    /* Once the server has gone and the events are read, waiting ends. */
    server.stop();
    while (message_event_wait(receive_end, client.fd, &event) == 0) {
    }
    EXPECT_EQ(errno, EPIPE);
    close(receive_end);
    close(send_end);
}

static void ignore_signal(int) {}

TEST(Message, SignalsDoNotBreakACall) {
    struct sigaction action {};
    action.sa_handler = ignore_signal; /* without SA_RESTART */
    struct sigaction before {};
    sigaction(SIGUSR2, &action, &before);
    channel_thread server;
    const pthread_t self = pthread_self();
    std::atomic<bool> done{false};
    std::thread shooter([&] {
        while (!done) {
            pthread_kill(self, SIGUSR2);
            pthread_kill(server.thread.native_handle(), SIGUSR2);
            std::this_thread::yield();
        }
    });
    test_client client;
    for (int i = 0; i < 500; ++i) {
        const std::string text = std::to_string(i);
        ASSERT_EQ(call(&client, text), text);
    }
    done = true;
    shooter.join();
    server.stop(); /* the last signal may still be on its way to its thread */
    sigaction(SIGUSR2, &before, nullptr);
}
