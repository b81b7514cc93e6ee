/* Clients that do what clients must not: it costs them, and nobody else. */
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "gifts.h"
#include "rig.h"

namespace {

constexpr int16_t OPEN = 0x200;
constexpr int16_t NOTIFY = 0x202;
constexpr int16_t PUTGET = 0x203;

/* The source has folders of few tracks, of many, and of folders; a well-behaved client holds a
 * player. */
bool start(rig& rig) {
    return rig_start(rig, "/few|tracks:3\n/many|tracks:400\n/tree|tree:1,3,50\n") &&
           request_open(rig.client, "radio") == 0;
}

/* The well-behaved client is served as ever. */
void expect_served(rig& rig) {
    EXPECT_EQ(request_sources(rig.client).size(), 1u);
    EXPECT_EQ(request_state(rig.client).result, 0);
}

} // namespace

TEST(Hostile, RequestsThatLieAreRefused) {
    rig rig;
    ASSERT_TRUE(start(rig));
    request_client bad;
    ASSERT_TRUE(request_connect(bad, rig.daemon.service));
    /* Every request without a player, cut at every length, and with absurd lengths inside. */
    for (uint16_t type = LYR_MSG_GET_CURRENT_STATE; type <= LYR_MSG_REPEAT; ++type) {
        const request_reply reply = request_send(bad, request_begin(type) + std::string(64, '\0'));
        EXPECT_TRUE(reply.status != 0 || reply.result == -1) << type;
    }
    EXPECT_EQ(request_open(bad, "crooked"), 0);
    for (uint16_t type = LYR_MSG_GET_CURRENT_STATE; type <= LYR_MSG_REPEAT; ++type) {
        for (const char filling : {'\0', '\x7f', '\xff'}) {
            for (size_t size = 0; size <= 48; size += 3) {
                request_send(bad, request_begin(type) + std::string(size, filling));
            }
        }
    }
    for (const int8_t length : {-128, -1, 0, 127}) {
        EXPECT_EQ(request_send(bad, request_name(LYR_MSG_OPEN, "abc", length)).result, -1)
            << int{length};
    }
    /* A name that would make a line of its own on the standard error. */
    daemon_signal(rig.daemon, SIGUSR1);
    ASSERT_TRUE(daemon_await_log(rig.daemon, "verbosity now 5"));
    EXPECT_EQ(request_open(bad, "x\nlyrane: NOTICE: forged\x1b[2J"), -1);
    std::ostringstream errors;
    errors << std::ifstream(rig.daemon.root + "/err").rdbuf();
    EXPECT_NE(errors.str().find("Player x\\nlyrane: NOTICE: forged\\x1b[2J\n"), std::string::npos);
    expect_served(rig);
    request_disconnect(bad);
    rig_end(rig);
}

/* With 64 descriptors the service takes 16 clients, half of them of one process; whoever is too
 * many is told so, or waits at the door, and those inside notice nothing. */
TEST(Hostile, OneThousandConnectionsOnFewDescriptors) {
    /* This process needs as many as it opens. */
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    rig rig;
    rig.daemon.descriptor_limit = 64;
    ASSERT_TRUE(start(rig));
    const int64_t before = daemon_descriptors(rig.daemon);
    std::vector<wire_client> crowd(1000);
    int served = 0;
    for (wire_client& client : crowd) {
        /* Connecting must not block when the service does not take any more. */
        if (!wire_connect_nowait(client, rig_socket(rig.daemon))) {
            EXPECT_EQ(errno, EAGAIN);
            continue;
        }
        const std::string name = rig.daemon.service + '\0';
        (void)wire_send(client, wire_header(client, OPEN, static_cast<int32_t>(name.size()), 28) +
                                    name); /* a refusal may be there before it */
        const wire_reply reply = wire_receive(client);
        EXPECT_TRUE(reply.came);
        EXPECT_EQ(reply.status, reply.error ? ENOMEM : 0);
        served += reply.came && !reply.error ? 1 : 0;
    }
    EXPECT_EQ(served, 7);
    for (int i = 0; i < 100; ++i) {
        expect_served(rig);
    }
    uint64_t ts_id = 0;
    EXPECT_EQ(request_create(rig.client, 0, "/few", -1, 0, &ts_id), 0);
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
    const pid_t other = fork(); /* there is room for another process */
    if (other == 0) {
        request_client client;
        const bool is_served = request_connect(client, rig.daemon.service) &&
                               request_open(client, "kitchen") == 0 &&
                               request_close(client, "kitchen") == 0;
        _exit(is_served ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(other, &status, 0), other);
    EXPECT_EQ(status, 0);
    for (wire_client& client : crowd) {
        wire_close(client);
    }
    EXPECT_LE(daemon_settle(rig.daemon, daemon_descriptors, before + 2), before + 2);
    request_client late;
    EXPECT_TRUE(request_connect(late, rig.daemon.service));
    EXPECT_EQ(request_open(late, "radio"), 0);
    request_disconnect(late);
    expect_served(rig);
    rig_end(rig);
}

/* What comes with messages is closed by nobody whom others wait for, whatever that takes; with
 * many descriptors and with few, which are two ways to receive. */
TEST(Hostile, DescriptorsThatDoNotClose) {
    for (const int64_t descriptor_limit : {0, 256}) {
        rig rig;
        rig.daemon.descriptor_limit = descriptor_limit;
        ASSERT_TRUE(start(rig));
        const int64_t before = daemon_descriptors(rig.daemon);
        wire_client giver[5];
        for (wire_client& client : giver) {
            ASSERT_TRUE(wire_connect(client, rig_socket(rig.daemon)));
            ASSERT_TRUE(wire_open(client, rig.daemon.service));
        }
        const std::string notify =
            wire_header(giver[0], NOTIFY, 16, 1) + std::string(16, '\0'); /* indices are theirs */
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        const std::pair<int, int> channels[] = {
            {2, ends[1]}, {3, giver[3].fd}, {4, giver[3].fd}, {3, giver[4].fd}};
        /* It stands still until this process has closed its own, so the last ones are there. */
        daemon_signal(rig.daemon, SIGSTOP);
        std::vector<int> gifts = gift_lingering(1);
        EXPECT_EQ(gift_send(giver[0].fd, "nonsense", gifts), 0);
        gift_close(gifts);
        gifts = gift_lingering(10);
        EXPECT_EQ(gift_send(giver[1].fd, "nonsense", gifts), 0);
        gift_close(gifts);
        /* Hidden in the queue of an event channel; and connections that keep themselves open. */
        gifts = gift_lingering(3);
        EXPECT_EQ(gift_send(ends[0], "", gifts), 0);
        gift_close(gifts);
        for (const auto& [client, channel] : channels) {
            std::string message = notify;
            std::memcpy(message.data() + 4, &giver[client].service_index, 2);
            std::memcpy(message.data() + 6, &giver[client].connection_index, 2);
            EXPECT_EQ(gift_send(giver[client].fd, message, {channel}), 0);
        }
        close(ends[0]);
        close(ends[1]);
        daemon_signal(rig.daemon, SIGCONT);
        EXPECT_EQ(wire_receive(giver[0]).status, ENOSYS);
        EXPECT_FALSE(wire_receive(giver[1]).came) << "only one is allowed";
        for (const auto& [client, channel] : channels) {
            EXPECT_EQ(wire_receive(giver[client]).status, EINVAL);
        }
        expect_served(rig);
        for (wire_client& client : giver) {
            wire_close(client);
        }
        EXPECT_LE(daemon_settle(rig.daemon, daemon_descriptors, before), before);
        rig_end(rig);
    }
}

/* A client that reads no reply and writes its own end of the connection into messages that wait
 * behind it keeps that end open after its death. It goes when its place is wanted. */
TEST(Hostile, TheDeadLeaveRoom) {
    rig rig;
    rig.daemon.descriptor_limit = 64; /* 16 clients, 8 of one process */
    ASSERT_TRUE(start(rig));
    for (int i = 0; i < 2; ++i) {
        const pid_t other = fork();
        if (other == 0) {
            const std::string ask = request_begin(LYR_MSG_GET_MEDIA_SOURCE);
            wire_client client;
            while (wire_connect_nowait(client, rig_socket(rig.daemon)) &&
                   wire_open(client, rig.daemon.service)) {
                const std::string message =
                    wire_header(client, PUTGET, static_cast<int32_t>(ask.size()), 65536) + ask;
                for (int sent = 0; sent < 10000; ++sent) {
                    if (gift_send(client.fd, message, {client.fd}) == EAGAIN) {
                        break;
                    }
                }
            }
            _exit(0);
        }
        int status = -1;
        EXPECT_EQ(waitpid(other, &status, 0), other);
        EXPECT_EQ(status, 0);
    }
    request_client late;
    for (int tries = 0; tries < 1000000 && !request_connect(late, rig.daemon.service); ++tries) {
        std::this_thread::yield();
    }
    EXPECT_EQ(request_open(late, "radio"), 0);
    request_disconnect(late);
    expect_served(rig);
    rig_end(rig);
}

/* It has asked for all that the sockets hold and reads none of it. */
TEST(Hostile, OneThatNeverReadsWhileThirtyOneWork) {
    constexpr int WORKERS = 31;
    constexpr int32_t REQUESTS = 100;
    rig rig;
    ASSERT_TRUE(start(rig));
    wire_client deaf;
    ASSERT_TRUE(wire_connect(deaf, rig_socket(rig.daemon)));
    ASSERT_TRUE(wire_open(deaf, rig.daemon.service));
    fcntl(deaf.fd, F_SETFL, O_NONBLOCK);
    const std::string ask = request_begin(LYR_MSG_GET_MEDIA_SOURCE);
    while (
        wire_send(deaf, wire_header(deaf, PUTGET, static_cast<int32_t>(ask.size()), 65536) + ask)) {
    }
    const int64_t resident = daemon_resident(rig.daemon);
    std::atomic<int> right = 0;
    std::vector<std::thread> workers;
    for (int i = 0; i < WORKERS; ++i) {
        workers.emplace_back([&rig, &right, i] {
            request_client client;
            request_metadata data;
            EXPECT_TRUE(request_connect(client, rig.daemon.service));
            EXPECT_EQ(request_open(client, "p" + std::to_string(i % 8)), 0);
            for (int32_t n = 0; n < REQUESTS; ++n) {
                const std::string track = std::to_string((i + n) % 400);
                right += request_metadata_of(client, 0, "/many/t" + track, data) == 0 &&
                                 data.title == "Track " + std::to_string((i + n) % 400 + 1)
                             ? 1
                             : 0;
            }
            EXPECT_EQ(request_close(client, "p" + std::to_string(i % 8)), 0);
            request_disconnect(client);
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    EXPECT_EQ(right, WORKERS * REQUESTS);
    EXPECT_LT(daemon_resident(rig.daemon), resident + 128 * 1024); /* KiB; a sanitizer keeps some */
    /* It may think better of it. */
    fcntl(deaf.fd, F_SETFL, 0);
    EXPECT_TRUE(wire_receive(deaf).came);
    wire_close(deaf);
    expect_served(rig);
    rig_end(rig);
}

/* A process that has as many connections as one may have, until it is killed. */
static pid_t connect_many(const rig& rig) {
    int told[2];
    EXPECT_EQ(pipe(told), 0);
    const pid_t child = fork();
    if (child == 0) {
        wire_client client;
        while (wire_connect(client, rig_socket(rig.daemon)) &&
               wire_open(client, rig.daemon.service)) {
        }
        (void)!write(told[1], "", 1);
        pause();
        _exit(0);
    }
    char byte;
    EXPECT_EQ(read(told[0], &byte, 1), 1);
    close(told[0]);
    close(told[1]);
    return child;
}

/* Players are refused before the descriptors are used up that clients and players need. */
TEST(Hostile, PlayersOnFewDescriptors) {
    for (const auto& [limit, crowds] : {std::pair(256, 0), std::pair(512, 4)}) {
        rig rig;
        rig.daemon.descriptor_limit = limit;
        ASSERT_TRUE(start(rig));
        std::vector<pid_t> others;
        while (others.size() < static_cast<size_t>(crowds)) {
            others.push_back(connect_many(rig));
        }
        request_client client;
        while (!request_connect(client, rig.daemon.service)) { /* one of the crowd goes */
            ASSERT_FALSE(others.empty());
            kill(others.back(), SIGKILL);
            waitpid(others.back(), nullptr, 0);
            others.pop_back();
        }
        int players = 0;
        while (request_open(client, "p" + std::to_string(players)) == 0) {
            ++players;
        }
        EXPECT_GE(players, 8);
        EXPECT_NE(daemon_log(rig.daemon).find("refused: too few descriptors are free"),
                  std::string::npos);
        /* Who comes is served, as far as there may be more, and players play. */
        others.push_back(connect_many(rig));
        uint64_t ts_id = 0;
        EXPECT_EQ(request_create(rig.client, 0, "/few", -1, 0, &ts_id), 0);
        EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
        expect_served(rig);
        for (const pid_t other : others) {
            kill(other, SIGKILL);
            waitpid(other, nullptr, 0);
        }
        request_disconnect(client);
        rig_end(rig);
    }
}

/* Clients that go without a close use up a player's places only where nothing is forgiven. */
TEST(Hostile, LostClients) {
    for (const bool forgives : {false, true}) {
        rig rig;
        rig.daemon.player["forgive_lost_clients"] = forgives ? "1" : "0";
        rig.daemon.options = {"-vvvvv"};
        ASSERT_TRUE(start(rig));
        request_client lost;
        request_client last;
        ASSERT_TRUE(request_connect(lost, rig.daemon.service));
        ASSERT_TRUE(request_connect(last, rig.daemon.service));
        EXPECT_EQ(request_open(last, "left"), 0);
        for (int i = 2; i <= 32; ++i) {
            EXPECT_EQ(request_open(lost, "left"), 0);
        }
        EXPECT_EQ(request_open(lost, "left"), forgives ? 0 : -1);
        EXPECT_EQ(request_open(lost, "left"), forgives ? 0 : -1);
        const size_t mark = daemon_log_mark(rig.daemon);
        request_disconnect(lost);
        if (forgives) {
            EXPECT_TRUE(daemon_await_log(rig.daemon, "gets back its client count", mark));
        }
        EXPECT_EQ(request_close(last, "left"), 0);
        EXPECT_EQ(rig_has_player(rig.daemon, "left"), !forgives);
        /* The last one stays. */
        EXPECT_EQ(request_open(last, "left"), 0);
        request_disconnect(last);
        EXPECT_TRUE(daemon_await_log(rig.daemon, "keeps its client count", mark));
        EXPECT_TRUE(rig_has_player(rig.daemon, "left"));
        rig_end(rig);
    }
}

/* What one user's clients take is bounded before it is everything. */
TEST(Hostile, OneUserLeavesRoomForOthers) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be another user, too";
    }
    constexpr uid_t GREEDY = 54321;
    rig rig;
    rig.daemon.limits = R"({"players_per_user": "3", "tracks_per_user": "120"})";
    ASSERT_TRUE(start(rig));
    const std::string folder = rig.daemon.root.substr(0, rig.daemon.root.rfind('/'));
    ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
    request_client greedy[4];
    /* Of this thread alone: who connects is who it is at that moment. */
    ASSERT_EQ(syscall(SYS_setresuid, -1, GREEDY, -1), 0);
    for (request_client& client : greedy) {
        EXPECT_TRUE(request_connect(client, rig.daemon.service));
    }
    ASSERT_EQ(syscall(SYS_setresuid, -1, 0, -1), 0);

    EXPECT_EQ(request_open(greedy[0], "radio"), 0); /* is another's, and costs nothing */
    EXPECT_EQ(request_close(greedy[0], "radio"), 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(request_open(greedy[i], "p" + std::to_string(i)), 0);
    }
    EXPECT_EQ(request_open(greedy[3], "p3"), -1);
    EXPECT_NE(daemon_log(rig.daemon).find("Player p3 refused: user 54321 has 3 players open"),
              std::string::npos);
    EXPECT_EQ(request_close(greedy[2], "p2"), 0);
    EXPECT_EQ(request_open(greedy[3], "p3"), 0);

    uint64_t ts_id = 0;
    uint64_t theirs = 0;
    int32_t length = 0;
    EXPECT_EQ(request_create(greedy[0], 0, "/tree", -1, 0, &ts_id), 0);
    EXPECT_TRUE(daemon_await_log(rig.daemon, "the sessions of user 54321 would have more"));
    EXPECT_EQ(request_session(greedy[0], &ts_id, &length), 0);
    EXPECT_GE(length, 50);
    EXPECT_LE(length, 120);
    EXPECT_EQ(request_create(rig.client, 0, "/tree", -1, 0, &theirs), 0);
    EXPECT_TRUE(daemon_await_object(rig.daemon, "radio", "trksession", "length", ":n:200"));
    /* As many as go with those are there, and what is destroyed comes back. */
    EXPECT_EQ(request_create(greedy[1], 0, "/tree/f0", -1, 49, &theirs), -1);
    EXPECT_EQ(request_destroy(greedy[0], ts_id), 0);
    for (int i = 0; i < 60; ++i) {
        EXPECT_EQ(request_create(greedy[1], 0, "/few", -1, 2, &ts_id), 0);
    }
    for (request_client& client : greedy) {
        request_disconnect(client);
    }
    rig_end(rig);
}
