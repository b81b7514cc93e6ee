/* The message server against clients that speak raw bytes. */
#include <cerrno>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "harness.h"

TEST(MsgServer, RefusalsCarryTheErrorOfTheirCase) {
    harness h;
    wire_client client = raw_client();
    constexpr size_t WHOLE = SIZE_MAX;
    const struct {
        const char* what;
        int16_t type;
        int32_t length;      /* the header's field */
        size_t payload_size; /* what is really sent, of letters 'e' */
        size_t send_size;    /* the whole packet cut to this */
        uint32_t tag;
        int32_t expected; /* error number, 0: served */
    } cases[] = {
        {"empty packet", CSM_GET, 0, 0, 0, 0, ENOSYS},
        {"27 bytes", CSM_PUTGET, 0, 0, 27, 0, ENOSYS},
        {"type below", 0x1FF, 0, 0, WHOLE, 0, ENOSYS},
        {"type above", 0x206, 0, 0, WHOLE, 0, ENOSYS},
        {"open without a name", CSM_OPEN, 12, 0, WHOLE, 0, ENOENT},
        {"open without the NUL", CSM_OPEN, 12, 12, WHOLE, 0, ENOENT},
        {"one byte short", CSM_PUTGET, 2000, 1999, WHOLE, 0, EIO},
        {"the most negative length", CSM_PUT, INT32_MIN, 10, WHOLE, 1, EIO},
        {"the largest length", CSM_PUTGET, INT32_MAX, 10, WHOLE, 0, EMSGSIZE},
        {"one byte too many", CSM_PUTGET, 65537, 65537, WHOLE, 0, EMSGSIZE},
        {"the largest payload", CSM_PUTGET, 65536, 65536, WHOLE, 0, 0},
        {"more payload than length", CSM_PUTGET, 2, 100000, WHOLE, 0, 0},
        {"put before notify", CSM_PUT, 1, 1, WHOLE, 1, EAGAIN},
        {"event too short", CSM_NOTIFY, 16, 15, WHOLE, 0, EINVAL},
        {"notify", CSM_NOTIFY, 0, 16, WHOLE, 0, 0},
        {"put with tag 0", CSM_PUT, 1, 1, WHOLE, 0, EINVAL},
        {"get of nothing", CSM_GET, 0, 0, WHOLE, 1, ENOMSG},
        {"close with a length and nothing", CSM_CLOSE, 28, 0, WHOLE, 0, 0},
        {"close again", CSM_CLOSE, 28, 0, WHOLE, 0, ENOENT},
    };
    for (const auto& entry : cases) {
        const std::string message =
            wire_header(client, entry.type, entry.length, 100000, entry.tag) +
            std::string(entry.payload_size, 'e');
        const wire_reply reply = wire_call(client, message.substr(0, entry.send_size));
        EXPECT_EQ(reply.error, entry.expected != 0) << entry.what;
        EXPECT_EQ(reply.status, entry.expected) << entry.what;
    }
    wire_close(client);
    harness_stop(&h);
    EXPECT_EQ(h.disconnects.load(), 1) << "a closed connection was disconnected again";
}

TEST(MsgServer, RepliesEchoTheHeaderOrHaveNone) {
    const harness h;
    wire_client client = raw_client();
    msg_header header{CSM_OPEN, 77, 0, 0, 5, -9, 0, {0, 0xABCD}};
    const auto bytes = [&header] {
        return std::string(reinterpret_cast<const char*>(&header), sizeof header);
    };
    std::string reply = wire_call(client, bytes() + TEST_SERVICE + '\0').data;
    header.connection_index = 1;
    EXPECT_EQ(reply, bytes());

    header.type = CSM_PUTGET;
    header.length = 5;
    header.size = 10;
    reply = wire_call(client, bytes() + "e abc").data;
    header.size = 3;
    EXPECT_EQ(reply, bytes() + "abc");

    header.type = CSM_NOTIFY;
    EXPECT_EQ(wire_call(client, bytes() + std::string(16, '\0')).data, "");
    header.type = CSM_PUT;
    EXPECT_EQ(wire_call(client, bytes() + "e abc").data, "");
    header.type = CSM_GET;
    reply = wire_call(client, bytes()).data;
    header.type = CSM_CLOSE;
    EXPECT_EQ(wire_call(client, bytes()).data, "");
    header = {};
    header.size = 3;
    EXPECT_EQ(reply, bytes() + "abc") << "what is fetched has a header of its own";
    wire_close(client);
}

TEST(MsgServer, IndicesOfOthersAndOfTheRefusedNameNothing) {
    harness h;
    wire_client owner = raw_client(); /* with the indices 0 and 0 */
    wire_client stranger = raw_client(false);
    const auto refusal = [&stranger](int16_t type) {
        return wire_call(stranger, wire_header(stranger, type, 3, 100) + "e x").status;
    };
    EXPECT_EQ(refusal(CSM_PUTGET), ENOENT);
    h.refuse = true;
    EXPECT_FALSE(wire_open(stranger, TEST_SERVICE));
    for (int16_t index : {int16_t{0}, int16_t{-1}, int16_t{32767}, int16_t{1}}) {
        stranger.connection_index = index;
        EXPECT_EQ(refusal(CSM_PUTGET), ENOENT) << index;
    }
    EXPECT_EQ(refusal(CSM_CLOSE), ENOENT) << "a refused connection was closed";
    EXPECT_EQ(h.disconnects.load(), 0);
    harness_await_connections(&h, 2); /* what was refused stays until its client goes */
    wire_close(stranger);
    wire_close(owner);
    harness_await_connections(&h, 0);
    harness_stop(&h);
    EXPECT_EQ(h.disconnects.load(), 2) << "each record once, the refused one, too";
    EXPECT_EQ(h.hang_ups.load(), 2);
}

TEST(MsgServer, OneClientHasABoundedNumberOfOpens) {
    harness h;
    wire_client client = raw_client();
    for (int i = 1; i < MSGSERVER_OPENS_MAX; ++i) {
        ASSERT_TRUE(wire_open(client, TEST_SERVICE)) << i;
    }
    EXPECT_FALSE(wire_open(client, TEST_SERVICE));
    client.connection_index = 3;
    EXPECT_FALSE(wire_call(client, wire_header(client, CSM_CLOSE, 0, 0)).error);
    EXPECT_TRUE(wire_open(client, TEST_SERVICE));
    EXPECT_EQ(client.connection_index, 3);
    wire_close(client);
    harness_await_disconnects(&h, 1 + MSGSERVER_OPENS_MAX);
    harness_await_connections(&h, 0);
}

TEST(MsgServer, PayloadsUpToALimitThatIsNoWholeStep) {
    const harness h(1, 1500);
    const scoped_client client;
    for (const size_t size : {size_t{1024}, size_t{1025}, size_t{1500}}) {
        const std::string text = std::string(size - 3, 'x') + 'y';
        EXPECT_EQ(ask(client, "e " + text), text) << size;
    }
    EXPECT_EQ(ask(client, std::string(1501, 'e')), error(EMSGSIZE));
    EXPECT_EQ(ask(client, "e still here"), "still here");
}

TEST(MsgServer, PipelinedRequestsAreAnsweredInOrderAndOneAtATime) {
    harness h(4);
    wire_client client = raw_client();
    constexpr size_t REQUESTS = 40;
    /* By turns short, and of several packets. */
    const auto size = [](size_t i) { return i % 2 == 0 ? i : 150000 + i; };
    for (size_t i = 0; i < REQUESTS; ++i) {
        const std::string request = "b " + std::to_string(size(i));
        const auto length = static_cast<int32_t>(request.size());
        ASSERT_TRUE(
            wire_send(client, wire_header(client, CSM_PUTGET, length, INT32_MAX) + request));
    }
    for (size_t i = 0; i < REQUESTS; ++i) {
        ASSERT_EQ(wire_receive(client).data.size(), sizeof(msg_header) + size(i));
    }
    wire_close(client);
    harness_await_disconnects(&h, 1);
    harness_stop(&h);
    EXPECT_FALSE(h.overlaps) << "two requests of one socket ran side by side";
}

TEST(MsgServer, AccessIsDecidedByTheOptions) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs to be several users";
    }
    const struct {
        const char* options;
        uid_t uid;
        gid_t gid;
        bool supplementary;
        int expected;
    } cases[] = {
        {"perms=666", 4711, 4711, false, 0},
        {"perms=600", 4711, 4711, false, EACCES},
        {"perms=622", 4711, 4711, false, EACCES}, /* may connect, may not read */
        {"perms=600,uid=4711", 4711, 4712, false, 0},
        {"uid=4712,perms=660,gid=4713", 4711, 4713, false, 0},
        {"uid=4712,perms=660,gid=4713", 4711, 4711, true, 0},
        {"uid=4712,perms=660,gid=4713", 4711, 4711, false, EACCES},
    };
    for (const auto& entry : cases) {
        const harness h(1, 65536, entry.options);
        const pid_t child = fork();
        if (child == 0) {
            const gid_t extra = 4713;
            std::filesystem::permissions(getenv("VELORAN_RUN"), std::filesystem::perms(0755));
            if (setgroups(entry.supplementary ? 1 : 0, &extra) != 0 ||
                setresgid(entry.gid, entry.gid, entry.gid) != 0 ||
                setresuid(entry.uid, entry.uid, entry.uid) != 0) {
                _exit(255);
            }
            msgclient_t* client = msgclient_open(TEST_SERVICE, nullptr, 0);
            _exit(client != nullptr ? 0 : errno);
        }
        int status;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(WEXITSTATUS(status), entry.expected) << entry.options;
    }
}

TEST(MsgServer, NamesAndOptionsThatCannotBe) {
    msgserver* server = msgserver_create(0, 5, MSGSERVER_BY_PATH);
    const struct {
        const char* name;
        const char* variant;
        const char* options;
    } cases[] = {
        {"a/b", nullptr, nullptr},        {"..", nullptr, nullptr},  {"", nullptr, nullptr},
        {"a", "../b", nullptr},           {"a", nullptr, "perms=9"}, {"a", nullptr, "uid=-1"},
        {"a", nullptr, "gid=4294967296"},
    };
    for (const auto& entry : cases) {
        EXPECT_EQ(msgserver_add(server, entry.name, entry.variant, entry.options, 0, nullptr,
                                nullptr, nullptr),
                  -1);
        EXPECT_EQ(errno, EINVAL) << entry.name << " " << entry.options;
    }
    msgserver_destroy(server);
}

TEST(MsgServer, StopEndsEveryThreadWheneverItComes) {
    for (int round = 0; round < 50; ++round) {
        const harness h(4);
    }
    /* Before the loop begins, and where there is nothing to receive from any more. */
    msgserver* server = msgserver_create(0, 5, MSGSERVER_BY_PATH);
    msgserver_stop(server);
    EXPECT_EQ(msgserver_thread_loop(server), 0);
    msgserver_destroy(server);
    server = msgserver_create(0, 5, MSGSERVER_BY_PATH);
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    ASSERT_EQ(dup3(null, server->chid, O_CLOEXEC), server->chid);
    EXPECT_EQ(msgserver_thread_loop(server), 0) << "a receive that fails for good must not spin";
    close(null);
    msgserver_destroy(server);
}

/* Descriptors that a program started from here would get. */
static std::vector<int> inheritable_descriptors() {
    std::vector<int> found;
    for (int fd = 0; fd < 1024; ++fd) {
        const int flags = fcntl(fd, F_GETFD);
        if (flags >= 0 && (flags & FD_CLOEXEC) == 0) {
            found.push_back(fd);
        }
    }
    return found;
}

TEST(MsgServer, NoDescriptorIsInheritedByAProgramThatIsStarted) {
    const std::vector<int> before = inheritable_descriptors();
    const harness h;
    const scoped_client client;
    ASSERT_EQ(msgclient_notify_pulse(client, 5), 0); /* the server has a copy of its channel */
    EXPECT_EQ(inheritable_descriptors(), before);
}

constexpr int32_t SHORT_ANSWER = -1;

/* Answers each check with the next number, and keeps what it was asked. A short answer is followed
 * by one that grants two. */
static void run_capability_service(int listener, const std::vector<int32_t>& answers,
                                   std::vector<std::string>* asked) {
    int fd = accept(listener, nullptr, nullptr);
    for (int32_t granted : answers) {
        char text[256];
        ssize_t length = recv(fd, text, sizeof text, 0);
        if (length <= 0) {
            close(fd);
            fd = accept(listener, nullptr, nullptr);
            length = recv(fd, text, sizeof text, 0);
        }
        asked->emplace_back(text, static_cast<size_t>(std::max<ssize_t>(length, 0)));
        if (granted == SHORT_ANSWER) {
            send(fd, &granted, 1, MSG_NOSIGNAL);
            granted = 2;
        }
        send(fd, &granted, sizeof granted, MSG_NOSIGNAL);
    }
    close(fd);
}

TEST(MsgServer, TheCapabilityServiceDecidesInTheNameSpace) {
    EXPECT_EQ(msgserver_create(0, 5, 0), nullptr);
    EXPECT_EQ(errno, EPERM);

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::filesystem::create_directories(std::string(getenv("VELORAN_RUN")) + "/dev");
    snprintf(address.sun_path, sizeof address.sun_path, "%s/dev/authman", getenv("VELORAN_RUN"));
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    std::vector<std::string> asked;
    std::thread authman([&] {
        run_capability_service(listener, {2, 1, SHORT_ANSWER, 1, 2}, &asked);
    });

    msgserver* server = msgserver_create(0, 5, 0);
    ASSERT_NE(server, nullptr);
    const std::string longest(31, 'n');
    ASSERT_EQ(msgserver_add(server, longest.c_str(), nullptr, "play,browse", 0, nullptr, nullptr,
                            nullptr),
              0);
    ASSERT_EQ(msgserver_add(server, "open", nullptr, nullptr, 0, nullptr, nullptr, nullptr), 1);
    std::thread loop(msgserver_thread_loop, server);
    /* Granted, one missing, a short answer, one missing (what came late grants nothing), granted on
     * the connection that was made anew, service gone. */
    for (const int expected : {0, ENOENT, ENOENT, ENOENT, 0, ENOENT}) {
        msgclient_t* client = msgclient_open(longest.c_str(), nullptr, 0);
        EXPECT_EQ(client != nullptr ? 0 : errno, expected);
        msgclient_close(client);
    }
    msgclient_t* client = msgclient_open("open", nullptr, 0);
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(client->by_path, 0);
    msgclient_close(client);
    authman.join();
    const std::string check =
        "chkcap " + std::to_string(geteuid()) + "," + std::to_string(getegid()) + ",play,browse";
    EXPECT_EQ(asked, std::vector<std::string>(5, check));
    msgserver_stop(server);
    loop.join();
    msgserver_destroy(server);
    close(listener);
    unlink(address.sun_path);
}
