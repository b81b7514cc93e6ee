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

namespace {

struct raw_message {
    const char* what;
    int16_t type;
    int32_t length;      /* the header's field */
    size_t payload_size; /* what is really sent, of letters 'e' */
    size_t send_size;    /* the whole packet cut to this */
    uint32_t tag;
    int32_t expected; /* error number, 0: served */
};

constexpr size_t WHOLE = SIZE_MAX;

} // namespace

TEST(MsgServer, RefusalsCarryTheErrorOfTheirCase) {
    harness h;
    harness_start(&h);
    message_client client;
    const msg_header opened = raw_open(&client);
    const raw_message cases[] = {
        {"empty packet", CSM_GET, 0, 0, 0, 0, ENOSYS},
        {"27 bytes", CSM_PUTGET, 0, 0, 27, 0, ENOSYS},
        {"type below", 0x1FF, 0, 0, WHOLE, 0, ENOSYS},
        {"type above", 0x206, 0, 0, WHOLE, 0, ENOSYS},
        {"negative type", -1, 0, 0, WHOLE, 0, ENOSYS},
        {"open without a name", CSM_OPEN, 12, 0, WHOLE, 0, ENOENT},
        {"open without the NUL", CSM_OPEN, 12, 12, WHOLE, 0, ENOENT},
        {"more length than payload", CSM_PUTGET, 1000, 0, WHOLE, 0, EIO},
        {"one byte short", CSM_PUTGET, 2000, 1999, WHOLE, 0, EIO},
        {"negative length", CSM_PUTGET, -1, 10, WHOLE, 0, EIO},
        {"the most negative length", CSM_PUT, INT32_MIN, 10, WHOLE, 1, EIO},
        {"the largest length", CSM_PUTGET, INT32_MAX, 10, WHOLE, 0, EMSGSIZE},
        {"one byte too many", CSM_PUTGET, 65537, 65537, WHOLE, 0, EMSGSIZE},
        {"the largest payload", CSM_PUTGET, 65536, 65536, WHOLE, 0, 0},
        {"more payload than length", CSM_PUTGET, 2, 100000, WHOLE, 0, 0},
        {"put before notify", CSM_PUT, 1, 1, WHOLE, 1, EAGAIN},
        {"put before notify, tag 0", CSM_PUT, 1, 1, WHOLE, 0, EAGAIN},
        {"event too short", CSM_NOTIFY, 16, 15, WHOLE, 0, EINVAL},
        {"notify", CSM_NOTIFY, 0, 16, WHOLE, 0, 0},
        {"put with tag 0", CSM_PUT, 1, 1, WHOLE, 0, EINVAL},
        {"get of nothing", CSM_GET, 0, 0, WHOLE, 1, ENOMSG},
        {"close with a length and nothing", CSM_CLOSE, 28, 0, WHOLE, 0, 0},
        {"close again", CSM_CLOSE, 28, 0, WHOLE, 0, ENOENT},
    };
    for (const raw_message& entry : cases) {
        msg_header header = opened;
        header.type = entry.type;
        header.length = entry.length;
        header.tag = entry.tag;
        header.size = 100000;
        const raw_reply reply =
            raw_call(&client, header, std::string(entry.payload_size, 'e'), entry.send_size);
        EXPECT_EQ(reply.error, entry.expected) << entry.what;
        EXPECT_EQ(reply.status, 0) << entry.what;
    }
    message_disconnect(&client);
    harness_stop(&h);
    EXPECT_EQ(h.disconnects.load(), 1) << "a closed connection was disconnected again";
}

TEST(MsgServer, RepliesEchoTheHeaderOrHaveNone) {
    harness h;
    harness_start(&h);
    message_client client;
    raw_open(&client);
    msg_header header{};
    header.type = CSM_OPEN;
    header.code = 77;
    header.tag = 5;
    header.length = -9;
    header.unused[1] = 0xABCD;
    raw_reply reply = raw_call(&client, header, std::string(TEST_SERVICE) + '\0');
    EXPECT_EQ(reply.received, sizeof header);
    EXPECT_EQ(reply.header.code, 77);
    EXPECT_EQ(reply.header.tag, 5u);
    EXPECT_EQ(reply.header.length, -9);
    EXPECT_EQ(reply.header.unused[1], 0xABCDu);
    EXPECT_EQ(reply.header.connection_index, 1);
    const msg_header second = reply.header;

    header = second;
    header.type = CSM_PUTGET;
    header.length = 5;
    header.size = 10;
    reply = raw_call(&client, header, "e abc");
    EXPECT_EQ(reply.body, "abc");
    msg_header expected = header;
    expected.size = 3;
    EXPECT_EQ(memcmp(&reply.header, &expected, sizeof expected), 0);

    header.type = CSM_NOTIFY;
    header.size = 9;
    EXPECT_EQ(raw_call(&client, header, std::string(16, '\0')).received, 0u);
    header.type = CSM_PUT;
    EXPECT_EQ(raw_call(&client, header, "e abc").received, 0u);
    header.type = CSM_GET;
    reply = raw_call(&client, header, "");
    expected = msg_header{};
    expected.size = 3;
    EXPECT_EQ(reply.body, "abc");
    EXPECT_EQ(memcmp(&reply.header, &expected, sizeof expected), 0);
    header.type = CSM_CLOSE;
    EXPECT_EQ(raw_call(&client, header, "").received, 0u);
    message_disconnect(&client);
    harness_stop(&h);
}

TEST(MsgServer, IndicesOfOthersAndOfTheRefusedNameNothing) {
    harness h;
    harness_start(&h);
    message_client owner;
    message_client stranger;
    const msg_header opened = raw_open(&owner);
    ASSERT_EQ(message_connect(&stranger, "/sys/csm/harness.sys/default"), 0);
    msg_header header = opened;
    header.type = CSM_PUTGET;
    header.length = 3;
    header.size = 100;
    EXPECT_EQ(raw_call(&stranger, header, "e x").error, ENOENT);

    h.refuse = true;
    msg_header open{};
    open.type = CSM_OPEN;
    EXPECT_EQ(raw_call(&stranger, open, std::string(TEST_SERVICE) + '\0').error, EDOM);
    for (int16_t index : {int16_t{0}, int16_t{1}, int16_t{-1}, int16_t{32767}}) {
        header.connection_index = index;
        EXPECT_EQ(raw_call(&stranger, header, "e x").error, ENOENT) << index;
    }
    header.type = CSM_CLOSE;
    header.connection_index = 1;
    EXPECT_EQ(raw_call(&stranger, header, "").error, ENOENT) << "a refused connection was closed";
    EXPECT_EQ(h.disconnects.load(), 0);
    EXPECT_EQ(harness_connections_open(&h), 2) << "what was refused stays until its client goes";
    message_disconnect(&stranger);
    message_disconnect(&owner);
    harness_await_connections(&h, 0);
    EXPECT_EQ(harness_connections_open(&h), 0);
    harness_stop(&h);
    EXPECT_EQ(h.disconnects.load(), 2) << "each record once, the refused one, too";
    EXPECT_EQ(h.hang_ups.load(), 2);
}

TEST(MsgServer, OneClientHasABoundedNumberOfOpens) {
    harness h;
    harness_start(&h);
    message_client client;
    raw_open(&client);
    msg_header open{};
    open.type = CSM_OPEN;
    const std::string name = std::string(TEST_SERVICE) + '\0';
    for (int i = 1; i < MSGSERVER_OPENS_MAX; ++i) {
        ASSERT_EQ(raw_call(&client, open, name).error, 0) << i;
    }
    EXPECT_EQ(raw_call(&client, open, name).error, ENOMEM);
    msg_header close{};
    close.type = CSM_CLOSE;
    close.connection_index = 3;
    EXPECT_EQ(raw_call(&client, close, "").error, 0);
    const raw_reply again = raw_call(&client, open, name);
    EXPECT_EQ(again.error, 0);
    EXPECT_EQ(again.header.connection_index, 3);
    message_disconnect(&client);
    harness_await_disconnects(&h, 1 + MSGSERVER_OPENS_MAX);
    harness_await_connections(&h, 0);
    harness_stop(&h);
}

TEST(MsgServer, PayloadsUpToALimitThatIsNoWholeStep) {
    harness h;
    harness_start(&h, 1, 1500);
    msgclient_t* client = harness_open();
    for (const size_t size :
         {size_t{1023}, size_t{1024}, size_t{1025}, size_t{1400}, size_t{1500}}) {
        std::string request = "e " + std::string(size - 2, 'x');
        request.back() = 'y';
        EXPECT_EQ(ask(client, request), request.substr(2)) << size;
    }
    EXPECT_EQ(ask(client, std::string(1501, 'e')), "error " + std::to_string(EMSGSIZE));
    EXPECT_EQ(ask(client, "e still here"), "still here");
    msgclient_close(client);
    harness_stop(&h);
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
        {"perms=777", 4711, 4711, false, 0},
    };
    for (const auto& entry : cases) {
        harness h;
        harness_start(&h, 1, 65536, entry.options);
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
        harness_stop(&h);
    }
}

TEST(MsgServer, NamesAndOptionsThatCannotBe) {
    msgserver* server = msgserver_create(0, 5, MSGSERVER_BY_PATH);
    const struct {
        const char* name;
        const char* variant;
        const char* options;
        int expected;
    } cases[] = {
        {"a/b", nullptr, nullptr, EINVAL},        {"..", nullptr, nullptr, EINVAL},
        {"", nullptr, nullptr, EINVAL},           {"a", "../b", nullptr, EINVAL},
        {"a", nullptr, "perms=9", EINVAL},        {"a", nullptr, "uid=-1", EINVAL},
        {"a", nullptr, "gid=4294967296", EINVAL},
    };
    for (const auto& entry : cases) {
        EXPECT_EQ(msgserver_add(server, entry.name, entry.variant, entry.options, 0, nullptr,
                                nullptr, nullptr),
                  -1);
        EXPECT_EQ(errno, entry.expected) << entry.name << " " << entry.options;
    }
    /* A claim keeps others out and lets its owner in. */
    EXPECT_EQ(msgserver_claim("mine", nullptr), 0);
    EXPECT_EQ(msgserver_claim("mine", nullptr), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(msgserver_add(server, "mine", nullptr, nullptr, 0, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(msgserver_claim("mine", nullptr), -1);
    msgserver_withdraw(server);
    EXPECT_EQ(msgserver_add(server, "mine", nullptr, nullptr, 0, nullptr, nullptr, nullptr), 1);
    msgserver_destroy(server);
}

TEST(MsgServer, StopEndsEveryThreadWheneverItComes) {
    for (int round = 0; round < 50; ++round) {
        harness h;
        harness_start(&h, 4);
        harness_stop(&h);
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

TEST(MsgServer, TheLoopOutlastsAWantOfMemoryForItsContext) {
    msgserver* server = msgserver_create(0, 5, MSGSERVER_BY_PATH);
    ASSERT_EQ(msgserver_add(server, "late", nullptr, nullptr, 0, nullptr, nullptr, nullptr), 0);
    /* Without the key no thread can have one. */
    ASSERT_EQ(pthread_key_delete(server->context_key), 0);
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
    harness h;
    harness_start(&h);
    msgclient_t* client = harness_open();
    ASSERT_EQ(msgclient_notify_pulse(client, 5), 0); /* the server has a copy of its channel */
    EXPECT_EQ(inheritable_descriptors(), before);
    msgclient_close(client);
    harness_stop(&h);
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
    ASSERT_EQ(
        msgserver_add(server, "guarded", nullptr, "play,browse", 0, nullptr, nullptr, nullptr), 0);
    ASSERT_EQ(msgserver_add(server, "open", nullptr, nullptr, 0, nullptr, nullptr, nullptr), 1);
    std::thread loop(msgserver_thread_loop, server);
    /* Granted, one missing, a short answer, one missing (what came late grants nothing), granted on
     * the connection that was made anew, service gone. */
    for (const int expected : {0, ENOENT, ENOENT, ENOENT, 0, ENOENT}) {
        msgclient_t* client = msgclient_open("guarded", nullptr, 0);
        EXPECT_EQ(client != nullptr ? 0 : errno, expected);
        msgclient_close(client);
    }
    msgclient_t* client = msgclient_open("open", nullptr, 0);
    EXPECT_NE(client, nullptr);
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
