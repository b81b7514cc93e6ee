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
    channel_thread_start(&server);
    message_client client;
    ASSERT_EQ(message_connect(&client, TEST_NAME), 0);
    const size_t data = MESSAGE_PACKET_SIZE - sizeof(message_frame);
    for (const size_t size : {size_t{0}, size_t{1}, data - 1, data, data + 1, 2 * data,
                              2 * data + 1, size_t{5000000}}) {
        int32_t status = 0;
        const std::string reply = call(&client, "size " + std::to_string(size), size, &status);
        ASSERT_EQ(reply.size(), size);
        EXPECT_EQ(status, 7);
        for (size_t i = 0; i < size; ++i) {
            ASSERT_EQ(static_cast<unsigned char>(reply[i]), pattern(i)) << size << " " << i;
        }
    }
    message_disconnect(&client);
    channel_thread_stop(&server);
}

TEST(Message, RequestsLargerThanTheDefaultBufferAreTaken) {
    channel_thread server;
    channel_thread_start(&server);
    message_client client;
    ASSERT_EQ(message_connect(&client, TEST_NAME), 0);
    const int small = 4096;
    setsockopt(client.fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    const std::string request(60000, 'x');
    EXPECT_EQ(call(&client, request, request.size()), request);
    message_disconnect(&client);
    channel_thread_stop(&server);
}

TEST(Message, IdsOfAnsweredAndGoneMessagesAreDead) {
    message_channel* channel = message_channel_create();
    const int32_t lock = message_name_claim(TEST_NAME);
    ASSERT_GE(message_name_attach(channel, TEST_NAME, lock, 0600, static_cast<uid_t>(-1),
                                  static_cast<gid_t>(-1)),
              0);
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

TEST(Message, EveryWakeEndsOneReceive) {
    message_channel* channel = message_channel_create();
    char byte;
    const iovec area{&byte, 1};
    message_info info;
    for (int i = 0; i < 3; ++i) {
        message_wake(channel);
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(message_receive(channel, &area, 1, &info), 0);
        EXPECT_EQ(info.pulse, MESSAGE_PULSE_WAKE);
    }
    /* A fourth would wait for ever; another wake must reach a receiver that sleeps already. */
    std::thread waiter([&] { EXPECT_EQ(message_receive(channel, &area, 1, &info), 0); });
    message_wake(channel);
    waiter.join();
    message_channel_destroy(channel);
}

TEST(Message, EventsReachTheClientAndAreLostWhenItDoesNotRead) {
    channel_thread server;
    channel_thread_start(&server);
    message_client client;
    ASSERT_EQ(message_connect(&client, TEST_NAME), 0);
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
    channel_thread_stop(&server);
    while (message_event_wait(receive_end, client.fd, &event) == 0) {
    }
    EXPECT_EQ(errno, EPIPE);
    close(receive_end);
    close(send_end);
    message_disconnect(&client);
}

static void ignore_signal(int) {}

TEST(Message, SignalsDoNotBreakACall) {
    struct sigaction action {};
    action.sa_handler = ignore_signal; /* without SA_RESTART */
    struct sigaction before {};
    sigaction(SIGUSR2, &action, &before);
    channel_thread server;
    channel_thread_start(&server);
    const pthread_t self = pthread_self();
    std::atomic<bool> done{false};
    std::thread shooter([&] {
        while (!done) {
            pthread_kill(self, SIGUSR2);
            pthread_kill(server.thread.native_handle(), SIGUSR2);
            std::this_thread::yield();
        }
    });
    message_client client;
    ASSERT_EQ(message_connect(&client, TEST_NAME), 0);
    for (int i = 0; i < 500; ++i) {
        const std::string text = std::to_string(i);
        ASSERT_EQ(call(&client, text), text);
    }
    done = true;
    shooter.join();
    message_disconnect(&client);
    channel_thread_stop(&server);
    sigaction(SIGUSR2, &before, nullptr);
}
