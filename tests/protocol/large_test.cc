/* Replies far beyond one packet: a list of a million tracks, records and values of a megabyte; read
 * at once, fetched after status 240, and fetched after an asynchronous request. */
#include <cstring>

#include <gtest/gtest.h>

#include "requests.h"
#include "world.h"

namespace {

constexpr int16_t NOTIFY = 0x202;
constexpr int16_t PUTGET = 0x203;
constexpr int16_t PUT = 0x204;
constexpr int16_t GET = 0x205;
constexpr int32_t HEADER_SIZE = 28;
constexpr int32_t TRACKS = 1000000;
constexpr size_t MEGABYTE = 1000000;

/* A reply's body, its header checked and taken off. */
std::string body_of(const wire_reply& reply, int32_t status) {
    EXPECT_TRUE(reply.came && !reply.error && reply.status == status) << reply.status;
    int32_t size = -1;
    if (reply.data.size() < HEADER_SIZE) {
        return "";
    }
    std::memcpy(&size, reply.data.data() + 16, sizeof size);
    const std::string body = reply.data.substr(HEADER_SIZE);
    EXPECT_EQ(body.size(), status == LYR_STATUS_QUEUED ? 0 : static_cast<size_t>(size));
    return body;
}

std::string send(wire_client& client, int16_t type, const std::string& request, int32_t capacity,
                 uint32_t tag, int32_t status) {
    const auto length = static_cast<int32_t>(request.size());
    return body_of(wire_call(client, wire_header(client, type, length, capacity, tag) + request),
                   status);
}

/* The reply to a request, which must be the same on every way. */
std::string reply_to(wire_client& client, const std::string& request) {
    const std::string direct = send(client, PUTGET, request, INT32_MAX, 0, 0);
    send(client, PUTGET, request, 65536, 0, LYR_STATUS_QUEUED);
    const auto size = static_cast<int32_t>(direct.size());
    send(client, GET, "", size - 1, 0, LYR_STATUS_QUEUED);
    EXPECT_TRUE(send(client, GET, "", size, 0, 0) == direct);
    send(client, PUT, request, INT32_MAX, 9, 0);
    EXPECT_TRUE(send(client, GET, "", size, 9, 0) == direct);
    EXPECT_EQ(direct.compare(0, 4, std::string(4, '\0')), 0);
    return direct;
}

std::string request_of_node(uint16_t type, const std::string& node) {
    std::string request = request_begin(type);
    request_i32(request, 0);
    request_text(request, node);
    return request;
}

bool ends_with(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

void expect_tracks(const std::string& reply) {
    int32_t count = 0;
    std::memcpy(&count, reply.data() + 4, sizeof count);
    ASSERT_EQ(count, TRACKS);
    lyr_ms_node* nodes = nullptr;
    ASSERT_EQ(
        unpack_media_node(reply.data() + 8, static_cast<int32_t>(reply.size() - 8), count, &nodes),
        0);
    for (int32_t i = 0; i < count; ++i) {
        const std::string expected = "/many/t" + std::to_string(i);
        if (expected != nodes[i].id) {
            ADD_FAILURE() << expected << " is " << nodes[i].id;
            break;
        }
    }
    free_lyr_ms_nodes(&nodes, count);
}

} // namespace

TEST(Large, RepliesOfAnySizeComeWhole) {
    world world;
    ASSERT_TRUE(world_start(world));
    const std::string text(MEGABYTE, 'x');
    fake_tree(world.disk, "", "/many|tracks:" + std::to_string(TRACKS) + '\n');
    std::string answer;
    EXPECT_EQ(fake_execute(world.disk, "meta /many/t0 extra=" + text, answer), 0) << answer;
    EXPECT_EQ(fake_execute(world.disk, "ext /many/t0 big " + text, answer), 0) << answer;
    wire_client client;
    ASSERT_TRUE(world_connect(world, client) && wire_open(client, world.daemon.service));
    send(client, NOTIFY, std::string(16, '\0'), 1, 0, 0);
    send(client, PUTGET, request_name(LYR_MSG_OPEN, "radio", 5), 4, 0, 0);
    std::string create = request_begin(LYR_MSG_CREATE_TRKSESSION);
    request_i32(create, 0);
    request_i32(create, -1);
    request_i32(create, 0);
    request_text(create, "/many");
    send(client, PUTGET, create, 12, 0, 0);

    EXPECT_TRUE(
        ends_with(reply_to(client, request_of_node(LYR_MSG_GET_METADATA, "/many/t0")), text));
    EXPECT_TRUE(ends_with(reply_to(client, request_begin(LYR_MSG_GET_CURRENT_TRACK_INFO)), text));
    std::string extended = request_of_node(LYR_MSG_GET_EXTENDED_METADATA, "/many/t0");
    request_i32(extended, 1);
    request_text(extended, "big");
    EXPECT_TRUE(ends_with(reply_to(client, extended), text));
    EXPECT_EQ(fake_execute(world.disk, "source big view=" + text, answer), 0) << answer;
    EXPECT_EQ(fake_number(world.disk, "event connected uid=big"), 1);
    EXPECT_TRUE(ends_with(reply_to(client, request_begin(LYR_MSG_GET_MEDIA_SOURCE)), text));

    ASSERT_TRUE(daemon_await_object(world.daemon, "radio", "trksession", "length",
                                    ":n:" + std::to_string(TRACKS)));
    std::string tracks = request_begin(LYR_MSG_GET_TRKSESSION_TRACKS);
    request_u64(tracks, 0);
    request_i32(tracks, 0);
    request_i32(tracks, -1);
    expect_tracks(reply_to(client, tracks));
    wire_close(client);
    world_end(world);
}
