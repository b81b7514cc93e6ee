/* The whole program over its real objects. */
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <veloran/server_object.h>

#include "rig.h"

using namespace std::string_literals;

namespace {

const std::string ACQUIRE = "msg::acquire\nid::1";
const std::string RELEASE = "msg::release\nid::1";
const std::string PLAYING = "msg::state\nid::1\ndat::playing";
const std::string STOPPED = "msg::state\nid::1\ndat::stopped";
const std::string GRANTED = "res::acquire\nid::1";
const std::string REFUSED = "res::acquire\nid::1\nerr::revoked";
const std::string REVOKE = "msg::revoke\nid::1";
const std::string PLAY = "msg::track\nid::1\ndat::play";
const std::string NEXT = "msg::track\nid::1\ndat::next";

std::string objects() {
    return rig_root() + "/pps/services/multimedia/mediaplayer";
}

mode_t mode_of(const std::string& file) {
    struct stat entry = {};
    EXPECT_EQ(stat(file.c_str(), &entry), 0);
    return entry.st_mode & 0777;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

/* A client that holds the focus and plays. */
int playing_client(const std::string& name) {
    const int client = rig_client(name);
    rig_say(client, ACQUIRE);
    EXPECT_EQ(rig_hear(client), GRANTED);
    rig_say(client, PLAYING);
    return client;
}

/* Waits until all that a client has said has been heard. */
void settle(int client) {
    rig_say(client, ACQUIRE);
    EXPECT_EQ(rig_hear(client), GRANTED);
}

} // namespace

TEST(Program, BeginsAndEnds) {
    program process = rig_start();
    EXPECT_EQ(mode_of(objects() + "/control"), 0666U);
    EXPECT_EQ(mode_of(objects() + "/arbiter"), 0600U);
    const program_result second = rig_run({});
    EXPECT_EQ(second.status, 1);
    EXPECT_TRUE(contains(second.out, "another arbiter runs")) << second.out;
    const int client = rig_client("left");
    EXPECT_EQ(rig_end(process, SIGTERM), 0);
    EXPECT_EQ(rig_notice(), "STOPPING=1");
    EXPECT_EQ(rig_hear(client), "[end]");
    close(client);
    EXPECT_TRUE(std::filesystem::is_empty(objects()));

    const program_result absent = rig_run({"ctl", "status"});
    EXPECT_EQ(absent.status, 1);
    EXPECT_TRUE(contains(absent.out, "no arbiter is running")) << absent.out;
    for (const std::vector<std::string>& wrong :
         {std::vector<std::string>{"ctl"}, {"ctl", "play"}, {"ctl", "sing", "a"}, {"--what"}}) {
        EXPECT_EQ(rig_run(wrong).status, 2);
    }
    const std::string file = rig_root() + "/policy.json";
    std::ofstream(file) << "{\"equal\": \"loses\"}";
    const program_result refused = rig_run({"-c", file});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(contains(refused.out, file + ": equal: ")) << refused.out;
}

TEST(Program, PlayersAPhoneAndAPerson) {
    program process = rig_start();
    const int a = playing_client("Anna");
    const int b = playing_client("Bert");
    EXPECT_EQ(rig_hear(a), REVOKE);
    settle(b);
    rig_ctl({"take", "phone"});
    EXPECT_EQ(rig_hear(b), REVOKE);
    rig_say(a, ACQUIRE);
    EXPECT_EQ(rig_hear(a), REFUSED);
    const program_result refused = rig_run({"ctl", "play", "Anna"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(contains(refused.out, "outranks Anna")) << refused.out;
    const std::string status = rig_ctl({"status"});
    EXPECT_TRUE(contains(status, "holder:  phone (#")) << status;
    EXPECT_TRUE(contains(status, "waiting: Bert (#")) << status;
    EXPECT_LT(status.find("Bert"), status.find("Anna")) << "the last one comes first";

    rig_ctl({"give-back", "phone"});
    EXPECT_EQ(rig_hear(b), PLAY);
    rig_say(b, PLAYING);
    rig_ctl({"next", "Bert"});
    EXPECT_EQ(rig_hear(b), NEXT);
    rig_say(b, STOPPED);
    rig_say(b, RELEASE);
    EXPECT_EQ(rig_hear(a), PLAY);
    rig_say(a, PLAYING);
    settle(a);

    /* The arbiter ends; whoever plays then comes back and says so. */
    EXPECT_EQ(rig_end(process, SIGKILL), 128 + SIGKILL);
    EXPECT_EQ(rig_hear(a), "[end]");
    close(a);
    close(b);
    program again = rig_start();
    const int c = playing_client("Anna");
    const int d = rig_client("Bert");
    rig_say(d, PLAYING);
    EXPECT_EQ(rig_hear(c), REVOKE);
    close(d);
    EXPECT_EQ(rig_hear(c), PLAY);
    close(c);
    EXPECT_EQ(rig_end(again, SIGINT), 0);
    EXPECT_EQ(rig_notice(), "STOPPING=1");
}

TEST(Program, NamesOfAnyKind) {
    program process = rig_start();
    fcntl(process.err, F_SETPIPE_SZ, 4096); /* the log is full soon, and nobody reads it */
    const int first = playing_client("same");
    const int second = playing_client("same");
    EXPECT_EQ(rig_hear(first), REVOKE);
    const program_result both = rig_run({"ctl", "next", "same"});
    EXPECT_EQ(both.status, 1);
    const size_t number = both.out.find('#');
    ASSERT_NE(number, std::string::npos) << both.out;
    const std::string id = both.out.substr(number, both.out.find('\n') - number);
    rig_ctl({"next", id});
    EXPECT_EQ(rig_hear(first), NEXT);

    /* More than fits one answer, with names that are at their longest when they are escaped. */
    std::vector<int> crowd;
    std::string dirty;
    for (int i = 0; i < 63; i++) {
        dirty += "\\u001b";
    }
    for (int i = 0; i < 300; i++) {
        crowd.push_back(rig_client("c" + std::to_string(i) + "." + dirty));
    }
    const int last = rig_client("last" + std::string(60000, 'x'));
    rig_say(last, ACQUIRE);
    EXPECT_EQ(rig_hear(last), GRANTED);
    const std::string status = rig_ctl({"status"});
    EXPECT_EQ(status.find('\x1b'), std::string::npos);
    const std::string json = rig_ctl({"status", "--json"});
    for (int i = 0; i < 300; i++) {
        EXPECT_TRUE(contains(json, "\"c" + std::to_string(i) + ".\\u001b")) << i;
    }
    EXPECT_TRUE(contains(json, "\"last" + std::string(251, 'x') + "\""));
    EXPECT_EQ(rig_run({"ctl", "play", "\xff\n" + std::string(70000, '\x01')}).status, 1);
    for (const int client : crowd) {
        close(client);
    }
    close(first);
    close(second);
    close(last);
    EXPECT_EQ(rig_end(process, SIGTERM), 0);
    EXPECT_EQ(rig_notice(), "STOPPING=1");
}

TEST(Program, HostileClients) {
    program process = rig_start();
    const int good = playing_client("good");

    const int stranger = rig_client("");
    rig_say(stranger, PLAYING);
    rig_say(stranger, ACQUIRE);
    EXPECT_EQ(rig_hear(stranger), REFUSED);
    rig_say(stranger, "msg::register\ndat:json:{\"name\":");
    rig_say(stranger, ACQUIRE);
    EXPECT_EQ(rig_hear(stranger), REFUSED);

    const int twice = rig_client("twice", "unheard of");
    rig_say(twice, "msg::register\ndat:json:{\"name\":\"other\",\"audio\":\"phone\"}");
    std::mt19937 random(1);
    for (int i = 0; i < 40; i++) {
        std::string garbage = i % 2 == 0 ? "" : "msg::register\ndat:json:{";
        for (size_t bytes = random() % 500 + 1; bytes > 0; bytes--) {
            garbage += static_cast<char>(random());
        }
        rig_say(twice, garbage);
    }
    const std::string huge(SERVER_OBJECT_MESSAGE_MAX + 1, '\n');
    EXPECT_EQ(write(twice, huge.data(), huge.size()), static_cast<ssize_t>(huge.size()));
    rig_say(twice, "\n\n" + RELEASE + "\n");

    /* A flood is read slowly: it fills its own socket, and nobody else waits. */
    const int flood = rig_client("flood");
    EXPECT_EQ(rig_say_until_refused(flood, "\n", 100000, false), EAGAIN);
    /* One that asks and never reads is dropped when its socket is full. */
    const int deaf = rig_client("deaf", "phone");
    EXPECT_EQ(rig_say_until_refused(deaf, ACQUIRE, 100000, true), ECONNRESET);
    EXPECT_EQ(rig_hear(good), REVOKE);
    EXPECT_EQ(rig_hear(good), PLAY);
    settle(good);
    EXPECT_TRUE(rig_silent(good));
    const std::string status = rig_ctl({"status"});
    EXPECT_TRUE(contains(status, "holder:  good")) << status;
    EXPECT_TRUE(contains(status, "unheard of")) << status;
    EXPECT_FALSE(contains(status, "other")) << status;
    for (const int client : {stranger, twice, flood, deaf, good}) {
        close(client);
    }
    EXPECT_EQ(rig_end(process, SIGTERM), 0);
    EXPECT_EQ(rig_notice(), "STOPPING=1");
}
