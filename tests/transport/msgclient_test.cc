/* The client half. */
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "harness.h"

namespace {

const std::vector<long> POLL_CALLS = {
#ifdef SYS_poll
    SYS_poll,
#endif
    SYS_ppoll,
};

/* Waits until a thread of this process has said its id and sleeps in one of these system calls.
 * False: it has ended. */
bool await_in(const std::atomic<pid_t>& thread, const std::vector<long>& calls) {
    while (thread == 0) {
        std::this_thread::yield();
    }
    const std::string path = "/proc/self/task/" + std::to_string(thread) + "/syscall";
    for (;;) {
        std::ifstream file(path);
        std::string number;
        if (!(file >> number)) {
            return false;
        }
        for (const long call : calls) {
            if (number == std::to_string(call)) {
                return true;
            }
        }
        std::this_thread::yield();
    }
}

int descriptor_count() {
    const std::filesystem::directory_iterator folder("/proc/self/fd");
    return static_cast<int>(std::distance(begin(folder), end(folder)));
}

/* How often a thread has gone to sleep. */
std::string sleeps_of(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/status");
    std::string line;
    while (std::getline(file, line) && line.rfind("voluntary_ctxt_switches", 0) != 0) {
    }
    return line;
}

} // namespace

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
        {"x", "", EINVAL},
    };
    for (const auto& entry : cases) {
        EXPECT_EQ(msgclient_open(entry.name.c_str(), entry.variant.c_str(), 0), nullptr);
        EXPECT_EQ(errno, entry.expected) << entry.name << " " << entry.variant;
    }
    EXPECT_EQ(msgclient_open(nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(msgclient_close(nullptr), 0);
    EXPECT_EQ(msgclient_put(nullptr, 1, "", 0, 0), EINVAL);
}

TEST(MsgClient, AFailedOpenLeavesNothingAndTellsWhy) {
    harness h;
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
    const harness h;
    const scoped_client client;
    std::string request = "e ";
    for (int i = 0; i < 2000; ++i) {
        request += static_cast<char>('a' + i % 26);
    }
    std::string reply(2000, '\0');
    std::vector<iovec> out;
    std::vector<iovec> in;
    for (char& piece : request) {
        out.push_back({&piece, 1});
    }
    for (char& piece : reply) {
        in.push_back({&piece, 1});
    }
    int32_t length = 0;
    EXPECT_EQ(msgclient_putgetv(client, out.data(), 2002, in.data(), 2000, &length, 0), 0);
    EXPECT_EQ(length, 2000);
    EXPECT_EQ(reply, request.substr(2));
    EXPECT_EQ(msgclient_putget(client, "", -1, nullptr, 0, nullptr, 0), EINVAL);
}

TEST(MsgClient, AServerThatGoesAwayIsAnErrorAndNoSignal) {
    signal(SIGPIPE, SIG_DFL);
    harness h;
    const scoped_client client;
    ASSERT_EQ(msgclient_notify_pulse(client, 5), 0);
    std::thread waiter([&] { EXPECT_EQ(msgclient_wait_pulse(client), 0u); });
    harness_stop(&h);
    waiter.join();
    EXPECT_EQ(ask(client, "e x"), error(EPIPE));
    EXPECT_EQ(ask(client, "e x"), error(EPIPE));
    EXPECT_EQ(msgclient_wait_pulse(client), 0u);
}

TEST(MsgClient, LengthsThatLieAreNotPassedOn) {
    harness h;
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
        SCOPED_TRACE(std::to_string(entry.status) + ' ' + std::to_string(entry.size));
        const scoped_client client;
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        dup3(ends[0], client.record->coid,
             O_CLOEXEC); /* another server in the place of the first */
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
        EXPECT_EQ(msgclient_putget(client, "", 0, reply, sizeof reply, &length, 0), entry.expected);
        EXPECT_EQ(length, entry.length);
        close(ends[1]);
    }
}

TEST(MsgClient, ClosingAndRegisteringAgainWakeTheWaiters) {
    harness h;
    const int before = descriptor_count();
    for (int round = 0; round < 20; ++round) {
        msgclient_t* client = msgclient_open(TEST_SERVICE, nullptr, 0);
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
}

TEST(MsgClient, ACloseLeavesTheRecordToCallsThatWaitBehindIt) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    struct sigaction before {};
    sigaction(SIGUSR2, &action, &before);
    harness h;
    msgclient_t* client = msgclient_open(TEST_SERVICE, nullptr, 0);
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
    sigaction(SIGUSR2, &before, nullptr);
}

TEST(MsgClient, ThreadsThatRegisterAtOnceLeaveTheChannelThatIsWaitedOn) {
    const harness h;
    const scoped_client client;
    in_threads(3, [&client](int) {
        for (int i = 0; i < 200; ++i) {
            ASSERT_EQ(msgclient_notify_pulse(client, 5), 0);
        }
    });
    EXPECT_EQ(put(client, 7, "e x"), 0);
    EXPECT_EQ(msgclient_wait_pulse(client), 7u);
}

TEST(MsgClient, ThreadsThatShareARecordGetTheirOwnReplies) {
    const harness h(2);
    const scoped_client client;
    in_threads(4, [&client](int t) {
        for (int i = 0; i < 500; ++i) {
            const std::string text(static_cast<size_t>(t * 50 + i % 50 + 1), 'a' + t);
            ASSERT_EQ(ask(client, "e " + text, text.size()), text);
        }
    });
}

/* A server whose thread has no memory for its context: the client waits until there is some. */
TEST(MsgClient, OpensOnceTheServiceHasMemoryAgain) {
    msgserver* server = msgserver_create(0, 5, MSGSERVER_BY_PATH);
    ASSERT_EQ(msgserver_add(server, "late", nullptr, nullptr, 0, nullptr, nullptr, nullptr), 0);
    ASSERT_EQ(pthread_key_delete(server->context_key), 0); /* without it there is no context */
    std::atomic<pid_t> id{0};
    std::thread loop([&] {
        id = static_cast<pid_t>(syscall(SYS_gettid));
        msgserver_thread_loop(server);
    });
    const bool goes_on = await_in(id, POLL_CALLS);
    EXPECT_TRUE(goes_on);
    pthread_key_t key;
    EXPECT_EQ(pthread_key_create(&key, destructer), 0);
    EXPECT_EQ(key, server->context_key) << "the same one is the first that is free again";
    if (goes_on && key == server->context_key) {
        EXPECT_EQ(msgclient_close(msgclient_open("late", nullptr, 0)), 0);
    }
    msgserver_stop(server);
    loop.join();
    msgserver_destroy(server);
}
