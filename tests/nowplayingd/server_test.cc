/* The whole program over its real objects. */
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <veloran/lock.h>
#include <veloran/server_object.h>

#include "gifts.h"
#include "rig.h"

namespace {

const std::string ACQUIRE = "msg::acquire\nid::1";
const std::string RELEASE = "msg::release\nid::1";
const std::string PLAYING = "msg::state\nid::1\ndat::playing";
const std::string GRANTED = "res::acquire\nid::1";
const std::string REFUSED = "res::acquire\nid::1\nerr::revoked";
const std::string REVOKE = "msg::revoke\nid::1";
const std::string PLAY = "msg::track\nid::1\ndat::play";
const std::string NEXT = "msg::track\nid::1\ndat::next";

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

void say(int client, const std::string& text) {
    EXPECT_EQ(server_object_write(client, text.data(), text.size()), 0) << errno;
}

/* Says it again and again, and waits for room if asked to: the error that ended it, or 0. */
int say_until_refused(int client, const std::string& text, bool wait) {
    for (int i = 0; i < 100000; i++) {
        if (server_object_write(client, text.data(), text.size()) == 0) {
            continue;
        }
        if (errno != EAGAIN || !wait) {
            return errno;
        }
        rig_await(client, POLLOUT);
    }
    return 0;
}

/* The next message, or "[end]". */
std::string hear(int client) {
    char* text = nullptr;
    const int64_t length = rig_await(client, POLLIN) ? server_object_read(client, &text) : -1;
    const vel_text owner(text);
    return length < 0 ? "[end]" : std::string(text, static_cast<size_t>(length));
}

/* A client that has registered, or a bare connection when the name is empty. */
int enter(const std::string& name, const std::string& kind = "general") {
    const char* path = "/pps/services/multimedia/mediaplayer/control?wait,delta";
    int client = server_object_open(path);
    while (client < 0 && errno == EAGAIN) { /* so many have come that it does not accept anybody */
        std::this_thread::yield();
        client = server_object_open(path);
    }
    EXPECT_GE(client, 0);
    if (!name.empty()) {
        say(client, "msg::register\nid::1\ndat:json:{\"name\":\"" + name +
                        "\",\"prio\":\"low\",\"audio\":\"" + kind + "\",\"overlay\":\"plain\"}");
    }
    return client;
}

/* Waits until all that a client has said has been heard. */
void settle(int client) {
    say(client, ACQUIRE);
    EXPECT_EQ(hear(client), GRANTED);
}

/* A client that holds the focus and plays. */
int playing_client(const std::string& name) {
    const int client = enter(name);
    settle(client);
    say(client, PLAYING);
    return client;
}

/* Closes the clients and ends the arbiter, which tells the manager. */
void finish(program& process, const std::vector<int>& clients, int signal = SIGTERM) {
    for (const int client : clients) {
        close(client);
    }
    EXPECT_EQ(program_end(process, signal).status, 0);
    EXPECT_EQ(rig_notice(), "STOPPING=1");
}

/* The program fails with this status and says this. */
void expect_failure(const std::vector<std::string>& arguments, int status,
                    const std::string& part) {
    const program_result result = rig_run(arguments);
    EXPECT_EQ(result.status, status) << result.out;
    EXPECT_TRUE(contains(result.out, part)) << result.out;
}

} // namespace

TEST(Program, BeginsAndEnds) {
    program process = rig_start();
    const std::filesystem::path root = getenv("VELORAN_RUN");
    const std::filesystem::path objects = root / "pps/services/multimedia/mediaplayer";
    EXPECT_EQ(status(objects / "control").permissions(), std::filesystem::perms(0666));
    EXPECT_EQ(status(objects / "arbiter").permissions(), std::filesystem::perms(0600));
    expect_failure({}, 1, "another arbiter runs");
    const int client = enter("left");
    finish(process, {});
    EXPECT_EQ(hear(client), "[end]");
    close(client);
    EXPECT_TRUE(std::filesystem::is_empty(objects));

    expect_failure({"ctl", "status"}, 1, "no arbiter is running");
    expect_failure({"ctl", "sing", "a"}, 2, "");
    expect_failure({"ctl", "play"}, 2, "");
    const std::string file = root / "policy.json";
    std::ofstream(file) << "{\"equal\": \"loses\"}";
    expect_failure({"-c", file}, 1, file + ": equal: ");
}

TEST(Program, NamesOfAnyKind) {
    program process = rig_start();
    fcntl(process.err, F_SETPIPE_SZ, 4096); /* the log is full soon, and nobody reads it */
    const int first = playing_client("same");
    const int second = playing_client("same");
    EXPECT_EQ(hear(first), REVOKE);
    const program_result both = rig_run({"ctl", "next", "same"});
    EXPECT_EQ(both.status, 1);
    const size_t number = both.out.find('#');
    ASSERT_NE(number, std::string::npos) << both.out;
    const std::string id = both.out.substr(number, both.out.find('\n') - number);
    rig_ctl({"next", id});
    EXPECT_EQ(hear(first), NEXT);

    /* More than fits one answer, with names that are at their longest when they are escaped. */
    std::vector<int> crowd = {first, second};
    std::string dirty;
    for (int i = 0; i < 63; i++) {
        dirty += "\\u001b";
    }
    for (int i = 0; i < 300; i++) {
        crowd.push_back(enter("c" + std::to_string(i) + "." + dirty));
    }
    crowd.push_back(enter("last" + std::string(60000, 'x')));
    settle(crowd.back());
    const std::string status = rig_ctl({"status"});
    EXPECT_EQ(status.find('\x1b'), std::string::npos);
    const std::string json = rig_ctl({"status", "--json"});
    for (int i = 0; i < 300; i++) {
        EXPECT_TRUE(contains(json, "\"c" + std::to_string(i) + ".\\u001b")) << i;
    }
    EXPECT_TRUE(contains(json, "\"last" + std::string(251, 'x') + "\""));
    EXPECT_EQ(rig_run({"ctl", "play", "\xff\n" + std::string(70000, '\x01')}).status, 1);
    finish(process, crowd);
}

TEST(Program, HostileClients) {
    program process = rig_start();
    const int good = playing_client("good");

    const int stranger = enter("");
    say(stranger, PLAYING);
    say(stranger, ACQUIRE);
    EXPECT_EQ(hear(stranger), REFUSED);
    say(stranger, "msg::register\ndat:json:{\"name\":");
    say(stranger, ACQUIRE);
    EXPECT_EQ(hear(stranger), REFUSED);

    const int twice = enter("twice", "unheard of");
    say(twice, "msg::register\ndat:json:{\"name\":\"other\",\"audio\":\"phone\"}");
    std::mt19937 random(1);
    for (int i = 0; i < 40; i++) {
        std::string garbage = i % 2 == 0 ? "" : "msg::register\ndat:json:{";
        for (size_t bytes = random() % 500 + 1; bytes > 0; bytes--) {
            garbage += static_cast<char>(random());
        }
        say(twice, garbage);
    }
    const std::string huge(SERVER_OBJECT_MESSAGE_MAX + 1, '\n');
    EXPECT_EQ(write(twice, huge.data(), huge.size()), static_cast<ssize_t>(huge.size()));
    say(twice, "\n\n" + RELEASE + "\n");

    /* Descriptors: their sender is told, or put out; nobody waits for them to close. */
    const int giver = enter("");
    std::vector<int> gifts = gift_lingering(1);
    kill(process.pid, SIGSTOP); /* so that its close is the last one */
    if (gift_send(giver, "msg::state", gifts) == 0) {
        gift_close(gifts);
    }
    kill(process.pid, SIGCONT);
    close(giver);

    /* A flood is read slowly: it fills its own socket, and nobody else waits. */
    const int flood = enter("flood");
    EXPECT_EQ(say_until_refused(flood, "\n", false), EAGAIN);
    /* One that asks and never reads is dropped when its socket is full. */
    const int deaf = enter("deaf", "phone");
    EXPECT_EQ(say_until_refused(deaf, ACQUIRE, true), ECONNRESET);
    EXPECT_EQ(hear(good), REVOKE);
    EXPECT_EQ(hear(good), PLAY);
    settle(good);
    pollfd more = {good, POLLIN, 0};
    EXPECT_EQ(poll(&more, 1, 0), 0);
    const std::string status = rig_ctl({"status"});
    EXPECT_TRUE(contains(status, "holder:  good")) << status;
    EXPECT_TRUE(contains(status, "unheard of")) << status;
    EXPECT_FALSE(contains(status, "other")) << status;
    finish(process, {stranger, twice, flood, deaf, good}, SIGINT);
}
