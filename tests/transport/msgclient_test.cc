/* The client half. */
#include <cerrno>
#include <cstring>
#include <fstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "harness.h"

TEST(MsgClient, NamesAreCheckedBeforeAnythingIsSent) {
    const std::string longest(31, 'n');
    const struct {
        std::string name;
        std::string variant;
        int expected;
    } cases[] = {
        {longest, "default", ENOENT},
        {longest + "n", "default", ENAMETOOLONG},
        {longest, std::string(33, 'v'), ENOENT},
        {longest, std::string(34, 'v'), ENAMETOOLONG},
        {"../x", "default", EINVAL},
        {"x", "a/b", EINVAL},
        {"", "default", EINVAL},
    };
    for (const auto& entry : cases) {
        EXPECT_EQ(msgclient_open(entry.name.c_str(), entry.variant.c_str(), 0), nullptr);
        EXPECT_EQ(errno, entry.expected) << entry.name << " " << entry.variant;
    }
    EXPECT_EQ(msgclient_open(nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(msgclient_close(nullptr), 0);
    EXPECT_EQ(msgclient_put(nullptr, 1, "", 0, 0), EINVAL);
}

TEST(MsgClient, TheLongestNameOpensByPathAndByNameSpace) {
    const std::string name(31, 'n');
    for (const uint32_t flags : {MSGSERVER_BY_PATH, MSGSERVER_NO_CAPABILITIES}) {
        msgserver* server = msgserver_create(0, 5, flags);
        ASSERT_EQ(
            msgserver_add(server, name.c_str(), nullptr, nullptr, 0, nullptr, nullptr, nullptr), 0);
        std::thread loop(msgserver_thread_loop, server);
        msgclient_t* client = msgclient_open(name.c_str(), nullptr, 0);
        ASSERT_NE(client, nullptr) << strerror(errno);
        EXPECT_EQ(client->by_path, flags == MSGSERVER_BY_PATH ? 1 : 0);
        EXPECT_EQ(client->name, name);
        EXPECT_EQ(client->notify_chid, -1);
        msgclient_close(client);
        msgserver_stop(server);
        loop.join();
        msgserver_destroy(server);
    }
}

TEST(MsgClient, AFailedOpenLeavesNothingAndTellsWhy) {
    harness h;
    harness_start(&h);
    h.refuse = true;
    const int before = descriptor_count();
    EXPECT_EQ(msgclient_open(TEST_SERVICE, nullptr, 0), nullptr);
    EXPECT_EQ(errno, EDOM);
    harness_stop(&h);
    EXPECT_EQ(msgclient_open(TEST_SERVICE, nullptr, 0), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LE(descriptor_count(), before);
}

TEST(MsgClient, VectorsOfManyPieces) {
    harness h;
    harness_start(&h);
    msgclient_t* client = harness_open();
    std::string request = "e ";
    for (int i = 0; i < 500; ++i) {
        request += static_cast<char>('a' + i % 26);
    }
    std::string reply(500, '\0');
    std::vector<iovec> out;
    std::vector<iovec> in;
    for (size_t i = 0; i < request.size(); ++i) {
        out.push_back({&request[i], 1});
    }
    for (size_t i = 0; i < reply.size(); ++i) {
        in.push_back({&reply[i], 1});
    }
    int32_t length = 0;
    EXPECT_EQ(msgclient_putgetv(client, out.data(), static_cast<int32_t>(out.size()), in.data(),
                                static_cast<int32_t>(in.size()), &length, 0),
              0);
    EXPECT_EQ(length, 500);
    EXPECT_EQ(reply, request.substr(2));
    out.resize(1001);
    EXPECT_EQ(msgclient_putv(client, 1, out.data(), 1001, 0), EINVAL);
    EXPECT_EQ(msgclient_putget(client, "", -1, nullptr, 0, nullptr, 0), EINVAL);
    msgclient_close(client);
    harness_stop(&h);
}

TEST(MsgClient, AServerThatGoesAwayIsAnErrorAndNoSignal) {
    signal(SIGPIPE, SIG_DFL);
    harness h;
    harness_start(&h);
    msgclient_t* client = harness_open();
    ASSERT_EQ(msgclient_notify_pulse(client, 5), 0);
    std::thread waiter([&] { EXPECT_EQ(msgclient_wait_pulse(client), 0u); });
    harness_stop(&h);
    waiter.join();
    EXPECT_EQ(ask(client, "e x"), "error " + std::to_string(EPIPE));
    EXPECT_EQ(ask(client, "e x"), "error " + std::to_string(EPIPE));
    EXPECT_EQ(msgclient_wait_pulse(client), 0u);
    EXPECT_EQ(msgclient_close(client), 0);
}

TEST(MsgClient, LengthsThatLieAreNotPassedOn) {
    harness h;
    harness_start(&h);
    const struct {
        int32_t status;
        int32_t size; /* what the header says */
        size_t body;  /* what comes */
        int32_t expected;
        int32_t length;
    } cases[] = {
        {0, 4, 4, 0, 4},       {3, 8, 8, 3, 8},         {0, 8, 4, EPROTO, 8},
        {0, 9, 8, EPROTO, 8},  {0, -1, 0, EPROTO, 8},   {0, 0, 4, EPROTO, 8},
        {240, 99, 0, 240, 99}, {240, 99, 4, EPROTO, 8}, {240, -9, 0, EPROTO, 8},
    };
    for (const auto& entry : cases) {
        msgclient_t* client = harness_open();
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        dup3(ends[0], client->coid, O_CLOEXEC); /* another server in the place of the first */
        close(ends[0]);
        msg_header header{};
        header.size = entry.size;
        const message_frame frame{2, entry.status, 0,
                                  static_cast<uint32_t>(sizeof header + entry.body)};
        char body[8] = {};
        const iovec pieces[] = {{const_cast<message_frame*>(&frame), sizeof frame},
                                {&header, sizeof header},
                                {body, entry.body}};
        EXPECT_GT(writev(ends[1], pieces, 3), 0);
        char reply[8];
        int32_t length = -1;
        EXPECT_EQ(msgclient_putget(client, "", 0, reply, sizeof reply, &length, 0), entry.expected)
            << entry.status << ' ' << entry.size;
        EXPECT_EQ(length, entry.length) << entry.status << ' ' << entry.size;
        close(ends[1]);
        msgclient_close(client);
    }
    harness_stop(&h);
}

TEST(MsgClient, ClosingAndRegisteringAgainWakeTheWaiters) {
    harness h;
    harness_start(&h);
    const int before = descriptor_count();
    for (int round = 0; round < 20; ++round) {
        msgclient_t* client = harness_open();
        ASSERT_EQ(msgclient_notify_pulse(client, 5), 0);
        std::atomic<pid_t> ids[3] = {};
        std::vector<std::thread> waiters;
        for (std::atomic<pid_t>& id : ids) {
            waiters.emplace_back([client, &id] {
                id = static_cast<pid_t>(syscall(SYS_gettid));
                EXPECT_EQ(msgclient_wait_pulse(client), 0u);
            });
        }
        for (std::atomic<pid_t>& id : ids) {
            EXPECT_TRUE(await_in(id, POLL_CALLS));
        }
        if (round % 2 == 0) {
            ASSERT_EQ(msgclient_notify_pulse(client, 5), 0);
        }
        msgclient_close(client);
        for (std::thread& waiter : waiters) {
            waiter.join();
        }
    }
    while (descriptor_count() > before) {
        std::this_thread::yield(); /* the server has not seen the last end yet */
    }
    harness_stop(&h);
}

static void ignore_signal(int) {}

/* How often a thread has gone to sleep. */
static std::string sleeps_of(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/status");
    std::string line;
    while (std::getline(file, line) && line.rfind("voluntary_ctxt_switches", 0) != 0) {
    }
    return line;
}

TEST(MsgClient, ACloseLeavesTheRecordToCallsThatWaitBehindIt) {
    struct sigaction action {};
    action.sa_handler = ignore_signal;
    struct sigaction before {};
    sigaction(SIGUSR2, &action, &before);
    harness h;
    harness_start(&h);
    msgclient_t* client = harness_open();
    std::atomic<pid_t> ids[3] = {};
    std::vector<std::thread> threads;
    const auto start = [&](int i, const char* text) {
        threads.emplace_back([&ids, client, i, text] {
            ids[i] = static_cast<pid_t>(syscall(SYS_gettid));
            if (text == nullptr) {
                EXPECT_EQ(msgclient_close(client), 0);
            } else {
                EXPECT_EQ(ask(client, std::string("e ") + text), text);
            }
        });
    };
    {
        vel_lock_guard guard(h.server->lock); /* nothing is answered */
        start(0, "first");
        EXPECT_TRUE(await_in(ids[0], {SYS_recvmsg, SYS_recvfrom}));
        start(1, "second");
        EXPECT_TRUE(await_in(ids[1], {SYS_futex}));
        start(2, nullptr);
        EXPECT_TRUE(await_in(ids[2], {SYS_futex}));
        /* A signal sends the second to the end of the queue for the lock, behind the close. */
        const std::string sleeps = sleeps_of(ids[1]);
        pthread_kill(threads[1].native_handle(), SIGUSR2);
        while (sleeps_of(ids[1]) == sleeps) {
            std::this_thread::yield();
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    harness_stop(&h);
    sigaction(SIGUSR2, &before, nullptr);
}

TEST(MsgClient, ThreadsThatRegisterAtOnceLeaveTheChannelThatIsWaitedOn) {
    harness h;
    harness_start(&h);
    msgclient_t* client = harness_open();
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([client] {
            for (int i = 0; i < 200; ++i) {
                ASSERT_EQ(msgclient_notify_pulse(client, 5), 0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(msgclient_put(client, 7, "e x", 3, 0), 0);
    EXPECT_EQ(msgclient_wait_pulse(client), 7u);
    msgclient_close(client);
    harness_stop(&h);
}

TEST(MsgClient, ThreadsThatShareARecordGetTheirOwnReplies) {
    harness h;
    harness_start(&h, 2);
    msgclient_t* client = harness_open();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([client, t] {
            for (int i = 0; i < 500; ++i) {
                const std::string text(static_cast<size_t>(t * 50 + i % 50 + 1), 'a' + t);
                ASSERT_EQ(ask(client, "e " + text, text.size()), text);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    msgclient_close(client);
    harness_stop(&h);
}
