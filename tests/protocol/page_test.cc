/* Every example of docs/protocol.md, sent as it is printed; the answers must be the printed ones.
 */
#include <algorithm>
#include <cstring>
#include <fstream>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <veloran/handover.h>

#include "notation.h"
#include "world.h"

namespace {

constexpr size_t FRAME = 16;
constexpr size_t INDICES = 4; /* their offset in the header */

/* One message with its reply, and the event that follows, if any. */
struct exchange {
    std::string example;
    std::vector<int> request;
    std::vector<int> reply;
    std::vector<int> event;
};

void append(std::vector<int>& bytes, const std::string& line) {
    const std::vector<int> more = notation_read(line);
    bytes.insert(bytes.end(), more.begin(), more.end());
}

/* In a block "```hex NAME" a line that begins with '>' starts a request, '<' its reply, '!' its
 * event; others go on with it. */
std::vector<exchange> read_page() {
    std::ifstream page(PROTOCOL_PAGE);
    std::vector<exchange> exchanges;
    std::string example;
    std::vector<int>* bytes = nullptr;
    for (std::string line; std::getline(page, line);) {
        if (line.compare(0, 3, "```") == 0) {
            example = line.compare(0, 7, "```hex ") == 0 ? line.substr(7) : "";
        } else if (!example.empty()) {
            if (line[0] == '>') {
                exchanges.push_back({example, {}, {}, {}});
            }
            exchange& last = exchanges.back();
            bytes = line[0] == '>'   ? &last.request
                    : line[0] == '<' ? &last.reply
                    : line[0] == '!' ? &last.event
                                     : bytes;
            append(*bytes, line.substr(1));
        }
    }
    return exchanges;
}

std::string receive(int fd) {
    std::string packet(65536, '\0');
    pollfd readable = {fd, POLLIN, 0};
    const ssize_t size =
        poll(&readable, 1, WIRE_LIMIT) == 1 ? recv(fd, packet.data(), packet.size(), 0) : 0;
    packet.resize(static_cast<size_t>(std::max<ssize_t>(size, 0)));
    return packet;
}

/* Sends a message with the client's indices, and a descriptor unless it is -1. */
void send_message(const wire_client& client, const std::vector<int>& written, int descriptor) {
    std::string message(written.begin(), written.end());
    if (written.size() > INDICES && written[INDICES] == ANY_BYTE) {
        std::memcpy(message.data() + INDICES, &client.service_index, 2);
        std::memcpy(message.data() + INDICES + 2, &client.connection_index, 2);
    }
    iovec piece = {message.data(), message.size()};
    msghdr packet = {};
    packet.msg_iov = &piece;
    packet.msg_iovlen = 1;
    vel_handover handover;
    vel_handover_attach(&packet, &handover, descriptor);
    EXPECT_EQ(sendmsg(client.fd, &packet, MSG_NOSIGNAL), static_cast<ssize_t>(message.size()));
}

} // namespace

TEST(Page, ExamplesAreWhatTheServiceSays) {
    std::vector<exchange> exchanges = read_page();
    ASSERT_GE(exchanges.size(), 16u);
    std::sort(exchanges.begin(), exchanges.end(), [](const exchange& a, const exchange& b) {
        return a.reply.at(0) < b.reply.at(0); /* the frame's number */
    });
    world world;
    ASSERT_TRUE(world_start(world));
    wire_client client;
    ASSERT_TRUE(world_connect(world, client));
    int channel[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, channel), 0);
    for (const exchange& each : exchanges) {
        SCOPED_TRACE(each.example);
        const bool notify = each.request.at(0) == 0x02;
        send_message(client, each.request, notify ? channel[1] : -1);
        const std::string reply = receive(client.fd);
        notation_expect(reply, each.reply, "reply");
        if (!each.event.empty()) {
            notation_expect(receive(channel[0]), each.event, "event");
        }
        if (each.example == "handshake") {
            ASSERT_GE(reply.size(), FRAME + 28);
            std::memcpy(&client.service_index, reply.data() + FRAME + INDICES, 2);
            std::memcpy(&client.connection_index, reply.data() + FRAME + INDICES + 2, 2);
        } else if (each.example == "create_trksession") {
            daemon_await_object(world.daemon, "radio", "trksession", "length", ":n:2");
        }
    }
    close(channel[0]);
    close(channel[1]);
    wire_close(client);
    world_end(world);
}
