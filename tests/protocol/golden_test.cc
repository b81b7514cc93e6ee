/* Every request, reply and record byte by byte, written by hand from the layouts: the service must
 * answer the request with the reply, who makes requests must make these bytes, and who reads
 * replies and records must find in them what they say. */
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <set>
#include <sstream>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <lyrane/client.h>
#include <veloran/message.h>

#include "notation.h"
#include "record_encode.h"
#include "requests.h"
#include "world.h"

namespace {

struct golden {
    std::string request; /* type and fields; the 14 unused bytes between them are left out */
    std::string reply;
    std::function<bool(request_client&)> ask; /* makes the request, finds what the reply says */
    int32_t status = 0;
};

const std::string ABSENT = " ff ff ff ff ";
const std::string NODE_A = " 02 0*3 0*4 0*4 01 0*3 08 0*3 '/album/a' 05 0*3 'First' ";
const std::string NODE_B = " 02 0*3 0*4 0*4 01 0*3 08 0*3 '/album/b' 06 0*3 'Second' ";
const std::string DATA_A = " 20 bf 02 00 0*4 0*4 0*4 01 0*3 05 0*3 'First' " + ABSENT +
                           " 04 0*3 'Band' " + ABSENT + ABSENT + ABSENT + ABSENT;

uint64_t ts_id;
int32_t number;
std::vector<request_node> nodes;
request_metadata data;
std::vector<std::string> values;

bool are_album(const std::vector<request_node>& found) {
    return found.size() == 2 && found[0].type == LYR_NODE_AUDIO && found[0].count == 0 &&
           found[0].ms_id == 0 && found[0].ms_type == LYR_MS_TYPE_HDD &&
           found[0].id == "/album/a" && found[0].name == "First" && found[1].id == "/album/b" &&
           found[1].name == "Second";
}

bool is_disk(const std::vector<request_source>& found) {
    return found.size() == 1 && found[0].id == 0 && found[0].type == LYR_MS_TYPE_HDD &&
           found[0].status == 1 && found[0].capabilities == 0xf045f && found[0].uid == "disk" &&
           found[0].name == "Hard drive" && found[0].view_name.empty();
}

bool is_first(const request_metadata& found) {
    return found.present && found.duration == 180000 && found.title == "First" &&
           found.artist == "Band";
}

bool is_current(const request_track& found) {
    return found.result == 0 && found.index == 0 && found.ts_id == 0 &&
           found.node.id == "/album/a" && is_first(found.data);
}

bool is_state(const lyr_state_reply& found) {
    return found.result == 0 && found.shuffle_mode == 1 && found.repeat_mode == 2 &&
           found.status == LYR_STATUS_STOPPED && found.playback_rate == -1.5F;
}

std::function<bool(request_client&)> simple(uint16_t type) {
    return [type](request_client& c) { return request_simple(c, type) == 0; };
}

std::function<bool(request_client&)> with_number(uint16_t type, int32_t value) {
    return [type, value](request_client& c) { return request_number(c, type, value) == 0; };
}

/* In the order in which the service is asked. */
const std::vector<golden> TABLE = {
    {"00 00 05 0*3 'radio'", "0*4",
     [](request_client& c) { return request_open(c, "radio") == 0; }},
    {"02 00",
     "0*4 01 0*3 0*4 01 0*3 01 0*3 5f 04 0f 0*5 04 0*3 'disk' 0a 0*3 'Hard drive' " + ABSENT,
     [](request_client& c) { return is_disk(request_sources(c)); }},
    {"07 00 0*4 0*4 02 0*3 06 0*3 '/album'", "0*4 02 0*3" + NODE_A + NODE_B,
     [](request_client& c) {
         return request_browse(c, 0, "/album", 0, 2, nodes) == 0 && are_album(nodes);
     }},
    {"08 00 0*4 0*4 ff ff ff ff 01 0*3 'A' 02 0*3 'co'", "0*4 01 0*3" + NODE_B,
     [](request_client& c) {
         return request_search(c, 0, "A", "co", 0, -1, nodes) == 0 && nodes.size() == 1;
     }},
    {"0a 00 0*4 08 0*3 '/album/a'", "0*4" + DATA_A,
     [](request_client& c) {
         return request_metadata_of(c, 0, "/album/a", data) == 0 && is_first(data);
     }},
    {"0b 00 0*4 08 0*3 '/album/a' 02 0*3 05 0*3 'tempo' 04 0*3 'mood'", "0*4 0*4 04 0*3 'calm'",
     [](request_client& c) {
         return request_extended(c, 0, "/album/a", {"tempo", "mood"}, values) == 0 &&
                values == std::vector<std::string>{"", "calm"};
     }},
    {"0c 00 0*4 02 0*3 01 0*3 06 0*3 '/album'", "0*4 0*8",
     [](request_client& c) {
         return request_create(c, 0, "/album", 2, 1, &ts_id) == 0 && ts_id == 0;
     }},
    {"12 00 0*4", "0*4", with_number(LYR_MSG_JUMP, 0)},
    {"04 00", "0*4 0*8 02 0*3 0*4",
     [](request_client& c) {
         return request_session(c, &ts_id, &number) == 0 && ts_id == 0 && number == 2;
     }},
    {"05 00", "0*4 0*4 0*8 25 0*3 39 0*3" + NODE_A + DATA_A,
     [](request_client& c) { return is_current(request_current(c)); }},
    {"09 00 0*8 01 0*3 07 0*3", "0*4 01 0*3" + NODE_B,
     [](request_client& c) { return request_tracks(c, 0, 1, 7, nodes) == 0 && nodes.size() == 1; }},
    {"0f 00", "0*4", simple(LYR_MSG_PLAY)},
    {"06 00", "0*4 d2 04 00 00",
     [](request_client& c) { return request_position(c, &number) == 0 && number == 1234; }},
    {"11 00", "0*4", simple(LYR_MSG_PAUSE)},
    {"10 00", "0*4", simple(LYR_MSG_STOP)},
    {"13 00", "0*4", simple(LYR_MSG_NEXT)},
    {"14 00", "0*4", simple(LYR_MSG_PREVIOUS)},
    {"15 00 50 c3 00 00", "0*4", with_number(LYR_MSG_SEEK, 50000)},
    {"16 00 00 00 c0 bf", "0*4", [](request_client& c) { return request_speed(c, -1.5F) == 0; }},
    {"17 00 01 0*3", "0*4", with_number(LYR_MSG_SHUFFLE, LYR_SHUFFLE_ON)},
    {"18 00 02 0*3", "0*4", with_number(LYR_MSG_REPEAT, LYR_REPEAT_ONE)},
    {"03 00", "0*4 01 0*3 02 0*3 04 0*3 00 00 c0 bf",
     [](request_client& c) { return is_state(request_state(c)); }},
    {"0d 00", "", simple(LYR_MSG_CREATE_TRKSESSIONV), ENOTSUP},
    {"0e 00 0*8", "0*4", [](request_client& c) { return request_destroy(c, 0) == 0; }},
    {"01 00 05 0*3 'radio'", "0*4",
     [](request_client& c) { return request_close(c, "radio") == 0; }},
};

std::string request_of(const golden& entry) {
    std::string request = notation_bytes(entry.request);
    return request.insert(2, 14, '\0');
}

/* A server that has answered before it is asked. */
struct answered {
    request_client client;
    int server = -1;
};

void answer(answered& pair, int32_t status, const std::string& body) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    pair.client.wire.fd = ends[0];
    pair.server = ends[1];
    const std::string rest = std::string(28, '\0') + body;
    const message_frame frame = {1, status, 0, static_cast<uint32_t>(rest.size())};
    const std::string packet(reinterpret_cast<const char*>(&frame), sizeof frame);
    ASSERT_GT(send(pair.server, (packet + rest).data(), packet.size() + rest.size(), 0), 0);
}

/* The request that came, without its transport header. */
std::string request_sent(answered& pair) {
    std::string message(1000, '\0');
    const ssize_t size = recv(pair.server, message.data(), message.size(), MSG_DONTWAIT);
    request_disconnect(pair.client);
    close(pair.server);
    return size < 28 ? "" : message.substr(28, static_cast<size_t>(size) - 28);
}

} // namespace

TEST(Golden, RequestsAreMadeAndRepliesReadByTheLayouts) {
    for (const golden& entry : TABLE) {
        answered pair;
        answer(pair, entry.status, notation_bytes(entry.reply));
        EXPECT_EQ(entry.ask(pair.client), entry.status == 0) << entry.request;
        EXPECT_EQ(notation_show(request_sent(pair)), notation_show(request_of(entry)));
    }
}

TEST(Golden, TheServiceAnswersByTheLayouts) {
    world world;
    ASSERT_TRUE(world_start(world));
    wire_client client;
    ASSERT_TRUE(world_connect(world, client) && wire_open(client, world.daemon.service));
    std::set<char> types;
    for (const golden& entry : TABLE) {
        const std::string request = request_of(entry);
        types.insert(request[0]);
        const wire_reply reply = wire_putget(client, request);
        EXPECT_EQ(reply.status, entry.status) << entry.request;
        EXPECT_EQ(notation_show(reply.data), notation_show(notation_bytes(entry.reply)))
            << entry.request;
        if (request[0] == LYR_MSG_CREATE_TRKSESSION) {
            daemon_await_object(world.daemon, "radio", "trksession", "length", ":n:2");
        } else if (request[0] == LYR_MSG_PLAY) {
            EXPECT_EQ(fake_number(world.disk, "event position value=1234"), 0);
        }
    }
    EXPECT_EQ(types.size(), 25u);
    wire_close(client);
    world_end(world);
}

/* A close takes the name as it was sent, so it may end the player of somebody else. */
TEST(Golden, APlayerThatOthersClosedAnswersNothing) {
    world world;
    ASSERT_TRUE(world_start(world));
    request_client here;
    request_client there;
    ASSERT_TRUE(request_connect(here, world.daemon.service));
    ASSERT_TRUE(request_connect(there, world.daemon.service));
    EXPECT_EQ(request_open(here, "RADIO"), 0);
    EXPECT_EQ(request_create(here, 0, "/album", 2, 0, &ts_id), 0);
    EXPECT_EQ(request_open(there, "radio"), 0);
    EXPECT_EQ(request_close(there, "RADIO"), 0);
    for (const golden& entry : TABLE) {
        const std::string request = request_of(entry);
        const int type = request[0];
        if (type > LYR_MSG_GET_MEDIA_SOURCE && type != LYR_MSG_CREATE_TRKSESSIONV) {
            const request_reply reply = request_send(here, request);
            EXPECT_EQ(reply.result, -1) << type;
            EXPECT_EQ(reply.body, "") << type;
        }
    }
    request_disconnect(here);
    request_disconnect(there);
    world_end(world);
}

namespace {

struct logged_request {
    std::string bytes;
    int32_t status = -1;
    int32_t result = -1;
};

/* What the log of one connection says was sent, and what was answered. */
std::vector<logged_request> read_log(const std::string& log) {
    std::vector<logged_request> found;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        const size_t bytes = line.find(": bytes from ");
        const size_t answer = line.find(": answered with status ");
        if (line.find(", sends ") != std::string::npos) {
            found.emplace_back();
        } else if (bytes != std::string::npos) {
            const std::string digits = line.substr(line.rfind(' ') + 1);
            for (size_t i = 0; i < digits.size(); i += 2) {
                found.back().bytes +=
                    static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
            }
        } else if (answer != std::string::npos) {
            sscanf(line.c_str() + answer, ": answered with status %d, result %d",
                   &found.back().status, &found.back().result);
        }
    }
    return found;
}

} // namespace

TEST(Golden, TheLogIsEnoughToSendARequestAgain) {
    world world;
    world.daemon.options = {"-v", "-v", "-v", "-v", "-v", "-v", "-v"};
    ASSERT_TRUE(world_start(world));
    const std::vector<std::string> requests = {
        notation_bytes("00 00 0*14 05 0*3 'radio'"),
        notation_bytes("12 00 0*14 09 0*3"), /* a jump without a session */
        notation_bytes("07 00 0*14 0*4 0*4 02 0*3 58 02 00 00") + std::string(600, '/'),
        notation_bytes("15 00 0*14 50"), /* too short */
        notation_bytes("0d 00 0*14"),
    };
    request_client client;
    ASSERT_TRUE(request_connect(client, world.daemon.service));
    std::vector<request_reply> replies;
    for (const std::string& request : requests) {
        replies.push_back(request_send(client, request));
    }
    const std::vector<logged_request> log = read_log(daemon_log(world.daemon));
    ASSERT_EQ(log.size(), requests.size()) << daemon_log(world.daemon);
    for (size_t i = 0; i < log.size(); ++i) {
        EXPECT_EQ(notation_show(log[i].bytes), notation_show(requests[i]));
        EXPECT_EQ(log[i].status, replies[i].status) << i;
        EXPECT_EQ(log[i].result, replies[i].status == 0 ? replies[i].result : 0) << i;
    }
    const std::string who = "process " + std::to_string(getpid()) + " of user " +
                            std::to_string(getuid()) + ", player radio, sends 20 bytes";
    EXPECT_NE(daemon_log(world.daemon).find(who), std::string::npos) << daemon_log(world.daemon);
    request_disconnect(client);
    world_end(world);
}

/* --- Records ------------------------------------------------------------------------------------
 */

namespace {

char* text(const char* bytes) {
    return const_cast<char*>(bytes);
}

/* What an encoder made of two records. */
std::string packed(void (*pack)(const void* records, void* buffer, int32_t* size), int32_t computed,
                   const void* records) {
    std::string buffer(static_cast<size_t>(computed), '?');
    int32_t size = -1;
    pack(records, buffer.data(), &size);
    EXPECT_EQ(size, computed);
    return notation_show(buffer);
}

/* Absent and empty texts both come out as null. */
void expect_texts(std::initializer_list<const char*> found,
                  std::initializer_list<const char*> expected) {
    EXPECT_TRUE(std::equal(found.begin(), found.end(), expected.begin(), expected.end(),
                           [](const char* a, const char* b) {
                               return a == nullptr || b == nullptr ? a == b : strcmp(a, b) == 0;
                           }));
}

} // namespace

TEST(Golden, MediaSources) {
    const std::string record = notation_bytes(
        "05 0*3 02 0*3 ff ff ff ff 01 00 04 00 02 00 00 80 03 0*3 'uid' 0*4 02 0*3 c3 28");
    mediasource source = {};
    source.id = 5;
    source.type = LYR_MS_TYPE_USB;
    source.status = -1;
    source.capabilities = UINT64_C(0x8000000200040001);
    source.uid = text("uid");
    source.name = text("");
    source.view_name = text("\xC3\x28");
    const mediasource two[] = {source, source};
    EXPECT_EQ(packed(
                  [](const void* records, void* buffer, int32_t* size) {
                      pack_media_source(static_cast<const mediasource*>(records), 2, buffer, size);
                  },
                  compute_media_source_size(two, 2), two),
              notation_show(record + record));
    lyr_ms* found = nullptr;
    ASSERT_EQ(unpack_media_source(record.data(), static_cast<int32_t>(record.size()), 1, &found),
              0);
    EXPECT_EQ(found->id, 5);
    EXPECT_EQ(found->type, LYR_MS_TYPE_USB);
    EXPECT_EQ(found->status, -1);
    EXPECT_EQ(found->capabilities, source.capabilities);
    expect_texts({found->uid, found->name, found->view_name}, {"uid", nullptr, "\xC3\x28"});
    free_lyr_ms(&found);
}

TEST(Golden, MediaNodes) {
    const std::string record =
        notation_bytes("01 0*3 10 27 00 00 07 0*3 00 01 00 00 01 0*3 '/' ff ff ff ff");
    medianode node = {text("/"), nullptr, text("url"),      LYR_NODE_FOLDER,
                      10000,     7,       LYR_MS_TYPE_DLNA, text("uid")};
    const medianode two[] = {node, node};
    EXPECT_EQ(packed(
                  [](const void* records, void* buffer, int32_t* size) {
                      pack_media_node(static_cast<const medianode*>(records), 2, buffer, size);
                  },
                  compute_media_node_size(two, 2), two),
              notation_show(record + record));
    lyr_ms_node* found = nullptr;
    ASSERT_EQ(unpack_media_node(record.data(), static_cast<int32_t>(record.size()), 1, &found), 0);
    EXPECT_EQ(found->type, LYR_NODE_FOLDER);
    EXPECT_EQ(found->count, 10000);
    EXPECT_EQ(found->ms_id, 7);
    EXPECT_EQ(found->ms_type, LYR_MS_TYPE_DLNA);
    expect_texts({found->id, found->name}, {"/", nullptr});
    free_lyr_ms_nodes(&found, 1);
}

TEST(Golden, Metadata) {
    const std::string record =
        notation_bytes("10 27 00 00 80 02 00 00 e0 01 00 00 02 0*3 09 0*3 "
                       "01 0*3 't' 0*4 01 0*3 'r' ff ff ff ff 02 0*3 'gg' 01 0*3 'y' 01 0*3 'x'");
    const metadata record_of = {text("t"), 10000, text(""), text("r"), nullptr, text("gg"),
                                text("y"), 640,   480,      2,         9,       text("x")};
    const metadata two[] = {record_of, record_of};
    EXPECT_EQ(packed(
                  [](const void* records, void* buffer, int32_t* size) {
                      pack_metadata(static_cast<const metadata*>(records), 2, buffer, size);
                  },
                  compute_metadata_size(two, 2), two),
              notation_show(record + record));
    lyr_ms_node_metadata* found = nullptr;
    ASSERT_EQ(unpack_metadata(record.data(), static_cast<int32_t>(record.size()), 1, &found), 0);
    EXPECT_EQ(found->duration, 10000);
    EXPECT_EQ(found->width, 640);
    EXPECT_EQ(found->height, 480);
    EXPECT_EQ(found->disc, 2);
    EXPECT_EQ(found->track, 9);
    expect_texts({found->title, found->artwork, found->artist, found->album, found->genre,
                  found->year, found->extra},
                 {"t", nullptr, "r", nullptr, "gg", "y", "x"});
    free_lyr_ms_node_metadata(&found);
}

/* Absent and null: nothing is written. */
TEST(Golden, NoRecords) {
    int32_t size = -1;
    pack_media_node(nullptr, 3, nullptr, &size);
    EXPECT_EQ(size, 0);
    EXPECT_EQ(compute_media_node_size(nullptr, 3), 0);
    EXPECT_EQ(compute_metadata_size(nullptr, 1), 0);
}
