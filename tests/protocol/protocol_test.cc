/* Every request, reply and record byte by byte, written by hand from the layouts: the service must
 * answer the request with the reply, and who reads records must find in them what they say. And
 * every example of docs/protocol.md, sent as it is printed; the answers must be the printed ones.
 */
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <tuple>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <lyrane/client.h>
#include <lyrane/packed.h>
#include <veloran/handover.h>

#include "daemon.h"
#include "requests.h"

namespace {

/* --- Bytes as text: "0a" is a byte, "0*14" fourteen zeros, "'abc'" the text itself, ".." any byte;
 * "#" begins a comment up to the end of the line. */

constexpr int ANY_BYTE = -1;

/* The bytes, or ANY_BYTE. */
std::vector<int> read_bytes(const std::string& text) {
    std::vector<int> bytes;
    for (size_t at = 0; at < text.size();) {
        size_t end = at + 2;
        if (text[at] == ' ' || text[at] == '\n') {
            end = at + 1;
        } else if (text[at] == '#') {
            end = text.find('\n', at);
        } else if (text[at] == '\'') {
            end = std::min(text.find('\'', at + 1), text.size() - 1) + 1;
            for (size_t i = at + 1; i + 1 < end; ++i) {
                bytes.push_back(static_cast<unsigned char>(text[i]));
            }
        } else if (text.compare(at, 2, "..") == 0) {
            bytes.push_back(ANY_BYTE);
        } else if (text.compare(at, 2, "0*") == 0) {
            end = text.find_first_not_of("0123456789", at + 2);
            bytes.insert(bytes.end(), std::stoul(text.substr(at + 2)), 0);
        } else {
            bytes.push_back(std::stoi(text.substr(at, 2), nullptr, 16));
        }
        at = std::min(end, text.size());
    }
    return bytes;
}

/* The same where every byte is given. */
std::string bytes_of(const std::string& text) {
    std::string bytes;
    for (const int byte : read_bytes(text)) {
        EXPECT_NE(byte, ANY_BYTE) << text;
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

std::string shown(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
        constexpr char DIGITS[] = "0123456789abcdef";
        text += DIGITS[static_cast<unsigned char>(byte) >> 4];
        text += DIGITS[static_cast<unsigned char>(byte) & 15];
        text += ' ';
    }
    return text;
}

void expect_bytes(const std::string& bytes, const std::vector<int>& written,
                  const std::string& what) {
    std::string wanted;
    for (size_t i = 0; i < written.size(); ++i) {
        const bool any = written[i] == ANY_BYTE && i < bytes.size();
        wanted += any ? bytes[i] : static_cast<char>(written[i]);
    }
    EXPECT_EQ(shown(bytes), shown(wanted)) << what;
}

/* The service that docs/protocol.md describes: one media source "disk" with two tracks in a folder,
 * and nobody connected. */
struct protocol : testing::Test {
    test_daemon daemon;
    fake_client disk;
    void SetUp() override {
        daemon_prepare(daemon);
        daemon.options = {"-vvvvvvv"};
        daemon.plugins.push_back(
            {"disk", "source disk name=\"Hard drive\" caps=0xf045f status=1", {}});
        ASSERT_TRUE(daemon_start(daemon));
        disk = daemon_fake(daemon, "disk");
        fake_tree(disk, "", "/album/a|A|First\n/album/b|A|Second\n");
        fake_do(disk, "meta /album/a title=First artist=Band duration=180000 track=1");
        fake_do(disk, "ext /album/a mood calm");
    }
    void TearDown() override {
        fake_close(disk);
        EXPECT_EQ(daemon_stop(daemon), 0) << daemon_log(daemon);
        daemon_remove(daemon);
    }
    bool connect(wire_client& client) {
        return wire_connect(client, daemon_path(daemon, "/sys/csm/" + daemon.service + "/default"));
    }
};

/* --- Requests and replies --------------------------------------------------------------------- */

struct golden {
    std::string request; /* type and fields; the 14 unused bytes between them are left out */
    std::string reply;
    int32_t status = 0;
};

const std::string ABSENT = " ff ff ff ff ";
const std::string NODE_A = " 02 0*3 0*4 0*4 01 0*3 08 0*3 '/album/a' 05 0*3 'First' ";
const std::string NODE_B = " 02 0*3 0*4 0*4 01 0*3 08 0*3 '/album/b' 06 0*3 'Second' ";
const std::string FOLDER = " 01 0*3 10 27 0*2 01 0*3 02 0*3 02 0*3 '/f' " + ABSENT;
const std::string DATA_A = " 20 bf 02 00 0*4 0*4 0*4 01 0*3 05 0*3 'First' " + ABSENT +
                           " 04 0*3 'Band' " + ABSENT + ABSENT + ABSENT + ABSENT;
const std::string DATA_B =
    " 10 27 0*2 80 02 0*2 e0 01 0*2 02 0*3 09 0*3 01 0*3 't' 0*4 01 0*3 'r' " + ABSENT +
    " 02 0*3 'gg' 01 0*3 'y' 01 0*3 'x' ";
const std::string DISK =
    " 0*4 01 0*3 01 0*3 5f 04 0f 0*5 04 0*3 'disk' 0a 0*3 'Hard drive' " + ABSENT;
const std::string STICK = " 01 0*3 02 0*3 ff ff ff ff 01 00 04 00 02 00 00 80 05 0*3 'stick' "
                          "02 0*3 c3 28 0*4 ";

/* A source whose texts are strange, and metadata of every kind. */
void add_records(fake_client& disk) {
    fake_do(disk, "meta /album/b title=t duration=10000 artwork=\"\" artist=r genre=gg year=y "
                  "extra=x width=640 height=480 disc=2 track=9");
    fake_do(disk, "source stick type=2 caps=0x8000000200040001 status=-1 name=\"\\xc3(\" "
                  "view=\"\" auto=0");
    fake_tree(disk, "stick", "/f|F|-||10000\n");
    EXPECT_EQ(fake_number(disk, "event connected uid=stick"), 1);
}

/* In the order in which the service is asked. */
const std::vector<golden> TABLE = {
    {"00 00 05 0*3 'radio'", "0*4"},
    {"02 00", "0*4 02 0*3" + DISK + STICK},
    {"07 00 0*4 0*4 02 0*3 06 0*3 '/album'", "0*4 02 0*3" + NODE_A + NODE_B},
    {"08 00 0*4 0*4 ff ff ff ff 01 0*3 'A' 02 0*3 'co'", "0*4 01 0*3" + NODE_B},
    {"0a 00 0*4 08 0*3 '/album/a'", "0*4" + DATA_A},
    {"0a 00 0*4 08 0*3 '/album/b'", "0*4" + DATA_B},
    {"0b 00 0*4 08 0*3 '/album/a' 02 0*3 05 0*3 'tempo' 04 0*3 'mood'", "0*4 0*4 04 0*3 'calm'"},
    {"0c 00 0*4 02 0*3 01 0*3 06 0*3 '/album'", "0*4 0*8"},
    {"12 00 0*4", "0*4"},
    {"04 00", "0*4 0*8 02 0*3 0*4"},
    {"05 00", "0*4 0*4 0*8 25 0*3 39 0*3" + NODE_A + DATA_A},
    {"09 00 0*8 01 0*3 07 0*3", "0*4 01 0*3" + NODE_B},
    {"09 00 0*8 01 0*3 ff ff ff 7f", "0*4 01 0*3" + NODE_B},
    {"09 00 0*8 0*4 ff ff ff ff", "0*4 02 0*3" + NODE_A + NODE_B},
    {"09 00 0*8 0*4 0*4", "0*4 0*4"},
    {"09 00 0*8 02 0*3 01 0*3", "0*4 0*4"},
    {"09 00 0*8 ff ff ff ff 01 0*3", "0*4 0*4"},
    {"09 00 0*8 0*4 fe ff ff ff", "0*4 0*4"},
    {"0f 00", "0*4"},
    {"06 00", "0*4 d2 04 00 00"},
    {"11 00", "0*4"},
    {"10 00", "0*4"},
    {"13 00", "0*4"},
    {"14 00", "0*4"},
    {"15 00 50 c3 00 00", "0*4"},
    {"16 00 00 00 c0 bf", "0*4"},
    {"17 00 01 0*3", "0*4"},
    {"18 00 02 0*3", "0*4"},
    {"03 00", "0*4 01 0*3 02 0*3 04 0*3 00 00 c0 bf"},
    {"0d 00", "", ENOTSUP},
    {"07 00 01 0*3 0*4 ff ff ff ff 01 0*3 '/'", "0*4 01 0*3" + FOLDER},
    {"0e 00 0*8", "0*4"},
    {"01 00 05 0*3 'radio'", "0*4"},
};

std::string request_of(const golden& entry) {
    std::string request = bytes_of(entry.request);
    return request.insert(2, 14, '\0');
}

TEST_F(protocol, answers_requests_by_the_layouts) {
    add_records(disk);
    wire_client client;
    ASSERT_TRUE(connect(client) && wire_open(client, daemon.service));
    std::set<char> types;
    for (const golden& entry : TABLE) {
        const std::string request = request_of(entry);
        types.insert(request[0]);
        const wire_reply reply = wire_putget(client, request);
        EXPECT_EQ(reply.status, entry.status) << entry.request;
        EXPECT_EQ(shown(reply.data), shown(bytes_of(entry.reply))) << entry.request;
        if (request[0] == LYR_MSG_CREATE_TRKSESSION) {
            daemon_await_object(daemon, "radio", "trksession", "length", ":n:2");
        } else if (request[0] == LYR_MSG_PLAY) {
            EXPECT_EQ(fake_number(disk, "event position value=1234"), 0);
        }
    }
    EXPECT_EQ(types.size(), 25u);
    wire_close(client);
}

/* Who owns a player is told without regard to case, which player is closed, with regard to it: a
 * close may end the player of somebody else, who then has no part in a new one of that name. */
TEST_F(protocol, refuses_requests_on_a_player_that_others_closed) {
    request_client here;
    request_client there;
    ASSERT_TRUE(request_connect(here, daemon.service));
    ASSERT_TRUE(request_connect(there, daemon.service));
    EXPECT_EQ(request_open(here, "RADIO"), 0);
    uint64_t ts_id = 0;
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
    EXPECT_EQ(fake_do(disk, "sessions"), "");
    EXPECT_EQ(request_open(there, "RADIO"), 0);
    EXPECT_EQ(request_close(here, "RADIO"), -1);
    EXPECT_EQ(request_state(there).result, 0);
    EXPECT_EQ(request_close(there, "RADIO"), 0);
    EXPECT_EQ(request_open(here, "RADIO"), 0);
    EXPECT_EQ(request_close(here, "RADIO"), 0);
    request_disconnect(here);
    request_disconnect(there);
}

TEST_F(protocol, logs_enough_to_send_a_request_again) {
    const std::vector<std::string> requests = {
        bytes_of("00 00 0*14 05 0*3 'radio'"),
        bytes_of("12 00 0*14 09 0*3"), /* a jump without a session */
        bytes_of("07 00 0*14 0*4 0*4 02 0*3 58 02 00 00") + std::string(600, '/'),
        bytes_of("15 00 0*14 50"), /* too short */
        bytes_of("0d 00 0*14"),
    };
    request_client client;
    ASSERT_TRUE(request_connect(client, daemon.service));
    std::vector<std::string> expected; /* in the log, in this order */
    for (const std::string& request : requests) {
        const request_reply reply = request_send(client, request);
        expected.push_back("process " + std::to_string(getpid()) + " of user " +
                           std::to_string(getuid()) + ", player " +
                           (expected.empty() ? "none" : "radio") + ", sends " +
                           std::to_string(request.size()) + " bytes");
        for (size_t byte = 0; byte < request.size(); byte += 256) {
            std::string digits = shown(request.substr(byte, 256));
            std::erase(digits, ' ');
            expected.push_back(": bytes from " + std::to_string(byte) + ": " + digits);
        }
        expected.push_back(": answered with status " + std::to_string(reply.status) + ", result " +
                           std::to_string(reply.status == 0 ? reply.result : 0) + ",");
    }
    const std::string log = daemon_log(daemon);
    size_t at = 0;
    for (const std::string& line : expected) {
        at = log.find(line, at);
        ASSERT_NE(at, std::string::npos) << line << '\n' << log;
        at += line.size();
    }
    request_disconnect(client);
}

/* The texts one behind the other; absent and empty ones both come out as null. */
std::string joined(std::initializer_list<const char*> texts) {
    std::string all;
    for (const char* text : texts) {
        all += (text != nullptr ? text : "null") + std::string(" ");
    }
    return all;
}

/* By the decoders of the client library. */
TEST(protocol_records, are_read_by_the_layouts) {
    const std::string source = bytes_of(STICK);
    lyr_ms* ms = nullptr;
    ASSERT_EQ(unpack_media_source(source.data(), static_cast<int32_t>(source.size()), 1, &ms), 0);
    EXPECT_EQ(std::tuple(ms->id, ms->type, ms->status, ms->capabilities),
              std::tuple(1, LYR_MS_TYPE_USB, -1, UINT64_C(0x8000000200040001)));
    EXPECT_EQ(joined({ms->uid, ms->name, ms->view_name}), "stick \xC3( null ");
    free_lyr_ms(&ms);

    const std::string folder = bytes_of(FOLDER);
    lyr_ms_node* node = nullptr;
    ASSERT_EQ(unpack_media_node(folder.data(), static_cast<int32_t>(folder.size()), 1, &node), 0);
    EXPECT_EQ(std::tuple(node->type, node->count, node->ms_id, node->ms_type),
              std::tuple(LYR_NODE_FOLDER, 10000, 1, LYR_MS_TYPE_USB));
    EXPECT_EQ(joined({node->id, node->name}), "/f null ");
    free_lyr_ms_nodes(&node, 1);

    const std::string tags = bytes_of(DATA_B);
    lyr_ms_node_metadata* b = nullptr;
    ASSERT_EQ(unpack_metadata(tags.data(), static_cast<int32_t>(tags.size()), 1, &b), 0);
    EXPECT_EQ(std::tuple(b->duration, b->width, b->height, b->disc, b->track),
              std::tuple(10000, 640, 480, 2, 9));
    EXPECT_EQ(joined({b->title, b->artwork, b->artist, b->album, b->genre, b->year, b->extra}),
              "t null r null gg y x ");
    const metadata data = {b->title, 0, nullptr, b->artist, nullptr, b->genre,
                           b->year,  0, 0,       0,         0,       b->extra};
    EXPECT_EQ(compute_metadata_size(&data, 1), static_cast<int32_t>(tags.size()));
    free_lyr_ms_node_metadata(&b);
}

/* --- The page --------------------------------------------------------------------------------- */

constexpr size_t FRAME = 16;
constexpr size_t INDICES = 4; /* their offset in the header */

/* One message with its reply, and the event that follows, if any. */
struct exchange {
    std::string example;
    std::vector<int> request;
    std::vector<int> reply;
    std::vector<int> event;
};

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
            for (const int byte : read_bytes(line.substr(1))) {
                bytes->push_back(byte);
            }
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

TEST_F(protocol, says_what_the_page_prints) {
    std::vector<exchange> exchanges = read_page();
    ASSERT_GE(exchanges.size(), 16u);
    std::sort(exchanges.begin(), exchanges.end(), [](const exchange& a, const exchange& b) {
        return a.reply.at(0) < b.reply.at(0); /* the frame's number */
    });
    wire_client client;
    ASSERT_TRUE(connect(client));
    int channel[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, channel), 0);
    for (const exchange& each : exchanges) {
        SCOPED_TRACE(each.example);
        const bool notify = each.request.at(0) == 0x02;
        send_message(client, each.request, notify ? channel[1] : -1);
        const std::string reply = receive(client.fd);
        expect_bytes(reply, each.reply, "reply");
        if (!each.event.empty()) {
            expect_bytes(receive(channel[0]), each.event, "event");
        }
        if (each.example == "handshake") {
            ASSERT_GE(reply.size(), FRAME + 28);
            std::memcpy(&client.service_index, reply.data() + FRAME + INDICES, 2);
            std::memcpy(&client.connection_index, reply.data() + FRAME + INDICES + 2, 2);
        } else if (each.example == "create_trksession") {
            daemon_await_object(daemon, "radio", "trksession", "length", ":n:2");
        }
    }
    close(channel[0]);
    close(channel[1]);
    wire_close(client);
}

} // namespace
