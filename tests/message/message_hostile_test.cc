/* Clients and servers that do what they should not. */
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <list>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <veloran/closer.h>

#include "channel_thread.h"
#include "gifts.h"

namespace {

/* Open descriptors of this process. */
auto descriptor_count() {
    const std::filesystem::directory_iterator folder("/proc/self/fd");
    return std::distance(begin(folder), end(folder));
}

void expect_served() {
    test_client client;
    EXPECT_EQ(call(&client, "ping"), "ping");
}

/* Sends until the socket takes no more; the number of packets. */
int flood(int fd, const char* text) {
    int sent = 0;
    while (sent < 100000 && send(fd, text, strlen(text), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
        ++sent;
    }
    return sent;
}

/* Bytes of data in one reply, or what came of it before the end; the last frame. */
size_t read_reply(int fd, message_frame* frame) {
    std::vector<char> packet(MESSAGE_PACKET_SIZE);
    size_t data = 0;
    frame->flags = MESSAGE_FRAME_MORE;
    while ((frame->flags & MESSAGE_FRAME_MORE) != 0) {
        const ssize_t got = recv(fd, packet.data(), packet.size(), 0);
        if (got < static_cast<ssize_t>(sizeof *frame)) {
            break;
        }
        memcpy(frame, packet.data(), sizeof *frame);
        data += static_cast<size_t>(got) - sizeof *frame;
    }
    return data;
}

} // namespace

TEST(MessageHostile, AClientThatNeverReadsCostsOnlyItself) {
    channel_thread server;
    const int greedy = plain_socket();
    int sent = flood(greedy, "size 300000");
    expect_served();
    sent += flood(greedy, "size 300000");
    expect_served();
    EXPECT_LT(server.received.load(), 10) << "read on although replies were pending";
    EXPECT_GT(sent, 10);
    /* What it reads in the end is whole and in order. */
    for (uint32_t reply = 1; reply <= 5; ++reply) {
        message_frame frame{};
        EXPECT_EQ(read_reply(greedy, &frame), 300000u);
        EXPECT_EQ(frame.sequence, reply);
        EXPECT_EQ(frame.length, 300000u);
    }
    close(greedy);
    server.await(server.ended, 3);
    EXPECT_EQ(server.received.load(), sent + 2) << "what it had sent is still handled";
}

TEST(MessageHostile, DataThenHangUp) {
    channel_thread server;
    int expected = 0;
    for (int round = 1; round <= 3; ++round) {
        const int fd = plain_socket();
        for (int i = 0; i < 5; ++i) {
            ASSERT_EQ(send(fd, "data", 4, MSG_NOSIGNAL), 4);
        }
        expected += 5;
        if (round == 2) {
            server.await(server.received, 6); /* replies lie unread: a reset */
        } else if (round == 3) {
            shutdown(fd, SHUT_WR); /* still gets its replies */
            message_frame frame{};
            for (int i = 0; i < 5; ++i) {
                EXPECT_EQ(read_reply(fd, &frame), 4u);
            }
            EXPECT_EQ(recv(fd, &frame, sizeof frame, 0), 0);
        }
        close(fd);
        server.await(server.ended, round);
        EXPECT_EQ(server.received.load(), expected);
        EXPECT_EQ(message_channel_connections(server.channel), 0);
    }
}

TEST(MessageHostile, EmptyPacketsAreMessagesAndNoEnd) {
    channel_thread server;
    const int fd = plain_socket();
    for (const char* text : {"", "a", "", "b"}) {
        ASSERT_EQ(send(fd, text, strlen(text), MSG_NOSIGNAL), static_cast<ssize_t>(strlen(text)));
    }
    server.await(server.received, 4);
    EXPECT_EQ(server.ended.load(), 0);
    send(fd, "", 0, MSG_NOSIGNAL);
    send(fd, "c", 1, MSG_NOSIGNAL);
    send(fd, "", 0, MSG_NOSIGNAL);
    close(fd);
    server.await(server.ended, 1);
    EXPECT_GE(server.received.load(), 6) << "a message behind an empty one was lost";
}

/* With many descriptors and with few, which are two ways to receive. */
struct MessageGifts : testing::TestWithParam<rlim_t> {
    void SetUp() override {
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit_before), 0);
        const rlimit limit = {std::min(GetParam(), limit_before.rlim_max), limit_before.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    void TearDown() override { setrlimit(RLIMIT_NOFILE, &limit_before); }
    rlimit limit_before = {};
};
INSTANTIATE_TEST_SUITE_P(Limits, MessageGifts, testing::Values(rlim_t{1024}, rlim_t{32768}));

TEST_P(MessageGifts, OnlyAPairOfSocketsIsAnEventChannel) {
    channel_thread server;
    int pair[2];
    int used[2];
    int datagram[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, used), 0);
    ASSERT_EQ(send(used[0], "", 0, 0), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, datagram), 0);
    const int file = open("/dev/null", O_RDWR | O_CLOEXEC);
    const int lonely = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    test_client client;
    const struct {
        const char* what;
        int fd;
        int status;
    } cases[] = {
        {"itself", client.fd, EINVAL},
        {"with something in it", used[1], EINVAL},
        {"file", file, EINVAL},
        {"datagram", datagram[0], EINVAL},
        {"unconnected", lonely, EINVAL},
        {"pair", pair[1], 0},
        {"none", -1, 0},
    };
    call(&client, "warm");
    closer_wait(); /* for what earlier tests left */
    const auto before = descriptor_count();
    for (const auto& entry : cases) {
        int32_t status = -1;
        call(&client, "event", 64, &status, entry.fd);
        EXPECT_EQ(status, entry.status) << entry.what;
    }
    EXPECT_EQ(send(pair[0], "", 0, MSG_NOSIGNAL), -1) << "who gets events writes nothing";
    /* One that nobody asked for is closed; with more of them a client breaks the protocol. */
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(gift_send(client.fd, "take this", {file}), 0);
    }
    server.await(server.received, 1 + 7 + 50);
    closer_wait();
    EXPECT_EQ(descriptor_count(), before);
    for (int i = 1; i <= 50; ++i) {
        const int fd = plain_socket();
        ASSERT_EQ(gift_send(fd, "take these", std::vector<int>(16, file)), 0);
        close(fd);
        server.await(server.ended, i);
    }
    EXPECT_EQ(server.received.load(), 1 + 7 + 50);
    closer_wait();
    EXPECT_EQ(descriptor_count(), before);
    for (const int fd :
         {pair[0], pair[1], used[0], used[1], datagram[0], datagram[1], file, lonely}) {
        close(fd);
    }
}

TEST(MessageHostile, OneProcessCannotTakeAllConnections) {
    channel_thread server;
    std::list<test_client> clients;
    std::string reply;
    do {
        reply = call(&clients.emplace_back(), "x");
    } while (reply == "x" && clients.size() < 5000);
    EXPECT_EQ(reply, "error " + std::to_string(ENOMEM));
    EXPECT_LE(message_channel_connections(server.channel), MESSAGE_CONNECTIONS_MAX / 4);
    const int all = static_cast<int>(clients.size());
    clients.pop_front();
    server.await(server.ended, 1);
    closer_wait(); /* it counts until it is closed */
    expect_served();
    clients.clear();
    server.await(server.ended, all);
    EXPECT_EQ(message_channel_connections(server.channel), 0);
}

/* A client of another user, whose thread alone it is while it connects; the way to the name is open
 * to it. */
static message_client client_of(uid_t user) {
    std::filesystem::path folder = test_folder();
    std::filesystem::permissions(folder / "default", std::filesystem::perms(0666));
    for (; folder != "/tmp"; folder = folder.parent_path()) {
        std::filesystem::permissions(folder, std::filesystem::perms(0755));
    }
    message_client client;
    EXPECT_EQ(syscall(SYS_setresuid, -1, user, -1), 0);
    EXPECT_EQ(message_connect(&client, TEST_NAME), 0) << strerror(errno);
    EXPECT_EQ(syscall(SYS_setresuid, -1, 0, -1), 0);
    return client;
}

TEST(MessageHostile, OneUserLeavesRoomForUnreadReplies) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be another user, too";
    }
    constexpr size_t REPLY = MESSAGE_OUTPUT_MAX / 4;
    constexpr size_t FITS = 4; /* the one that goes beyond three quarters, too */
    const std::string ask = "size " + std::to_string(REPLY);
    channel_thread server;
    std::vector<message_client> clients;
    for (size_t i = 0; i < FITS + 2; ++i) {
        /* The last one is root's. */
        clients.push_back(client_of(i < FITS + 1 ? 54321 : 0));
        ASSERT_EQ(send(clients.back().fd, ask.data(), ask.size(), 0),
                  static_cast<ssize_t>(ask.size()));
        server.await(server.received, static_cast<int>(i) + 1);
    }
    for (size_t i = 0; i < clients.size(); ++i) {
        message_frame frame{};
        EXPECT_EQ(read_reply(clients[i].fd, &frame), i != FITS ? REPLY : 0) << i;
        EXPECT_EQ(frame.status, i != FITS ? 7 : ENOMEM);
    }
    /* Who was refused asks again when there is room. */
    ASSERT_GT(send(clients[FITS].fd, ask.data(), ask.size(), 0), 0);
    message_frame frame{};
    EXPECT_EQ(read_reply(clients[FITS].fd, &frame), REPLY);
    for (message_client& client : clients) {
        message_disconnect(&client);
    }
    server.await(server.ended, static_cast<int>(clients.size()));
}

TEST(MessageHostile, WithoutDescriptorsAcceptingPausesAndGoesOn) {
    channel_thread server;
    test_client served;
    ASSERT_EQ(call(&served, "before"), "before");
    message_client waiting;
    const int newcomer = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    /* The newcomer's end exists already; the server's does not find a number. */
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    rlimit none = limit;
    const int folder_fd = open(test_folder().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/default", folder_fd);
    none.rlim_cur = 3; /* every number below is taken */
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    ASSERT_EQ(connect(newcomer, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    waiting.fd = newcomer;
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(call(&served, "still here"), "still here");
    }
    EXPECT_EQ(message_channel_connections(server.channel), 1);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(call(&waiting, "at last"), "at last");
    message_disconnect(&waiting);
    close(folder_fd);
}

TEST(MessageHostile, AServerThatBreaksTheProtocolIsNotBelieved) {
    struct packet {
        message_frame frame;
        size_t data;
    };
    const struct {
        const char* what;
        std::vector<packet> packets;
        int32_t expected;
    } cases[] = {
        {"good, after a stale one", {{{0, 0, 0, 3}, 3}, {{1, 0, 0, 4}, 4}}, 0},
        {"short frame", {{{1, 0, 0, 0}, size_t(-4)}}, EPROTO},
        {"number of the future", {{{2, 0, 0, 0}, 0}}, EPROTO},
        {"more than announced", {{{1, 0, 0, 2}, 4}}, EPROTO},
        {"less than announced", {{{1, 0, 0, 8}, 4}}, EPROTO},
        {"more than fits", {{{1, 0, 0, 64}, 64}}, EPROTO},
        {"more than fits, in pieces",
         {{{1, 0, MESSAGE_FRAME_MORE, 12}, 6}, {{1, 0, 0, 12}, 6}},
         EPROTO},
        {"empty piece", {{{1, 0, MESSAGE_FRAME_MORE, 4}, 0}}, EPROTO},
        {"error that is none", {{{1, 0, MESSAGE_FRAME_ERROR, 0}, 0}}, EPROTO},
        {"error with data", {{{1, EIO, MESSAGE_FRAME_ERROR, 4}, 4}}, EPROTO},
        {"gone", {}, ECONNRESET},
    };
    for (const auto& entry : cases) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        for (const packet& sent : entry.packets) {
            std::vector<char> bytes(sizeof sent.frame + sent.data, 'd');
            memcpy(bytes.data(), &sent.frame, std::min(bytes.size(), sizeof sent.frame));
            ASSERT_EQ(send(ends[1], bytes.data(), bytes.size(), 0),
                      static_cast<ssize_t>(bytes.size()));
        }
        shutdown(ends[1], SHUT_WR);
        message_client client{ends[0], 0, false};
        char reply[8] = {};
        const iovec out{reply, 1};
        const iovec in[2] = {{reply, 4}, {reply + 4, 4}};
        message_result result;
        EXPECT_EQ(message_call(&client, &out, 1, -1, in, 2, &result), entry.expected) << entry.what;
        EXPECT_EQ(client.broken, entry.expected == EPROTO) << entry.what;
        message_disconnect(&client);
        close(ends[1]);
    }
}
