/* The message server under four clients that send what the input says: connections, messages of
 * any bytes and well-formed ones, descriptors, half-closed ends, replies that nobody reads. One
 * thread plays all parts, so an input does the same each time.
 *
 * What must hold: every packet that the server has taken is answered once and in order, with
 * frames that agree with each other; and when all clients have gone, so have their connections,
 * queues and descriptors. */
#include <cerrno>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <veloran/message.h>

#include "input.h"
#include "msgserver.h"
#include "reply.h"
#include "serve.h"

namespace {

constexpr int CLIENTS = 4;
constexpr int32_t LARGEST = 4096; /* payload */
constexpr int32_t QUEUE = 3;
constexpr int STEPS = 200;
const char* const SERVICES[] = {"fuzz.sys", "closed.sys", "absent.sys"};

struct client {
    int fd = -1;
    uint32_t sent = 0;     /* packets that the socket took */
    uint32_t answered = 0; /* of which the whole reply was read */
    size_t received = 0;   /* bytes of the reply in hand */
    bool is_cut = false;   /* by itself in one direction, or by the server */
    int events = -1;       /* receiving end of the event channel */
};

/* A CSM_PUT that is answered later. */
struct late_reply {
    osb* connection;
    int64_t rcvid;
    uint32_t tag;
};

msgserver* server;
client clients[CLIENTS];
std::vector<late_reply> late;

/* --- The service -------------------------------------------------------------------------------
 */

void reply_pieces(osb* connection, recv_context* context, size_t size, int32_t count) {
    std::vector<char> body(size, 'x');
    std::vector<iovec> pieces(static_cast<size_t>(count), iovec{nullptr, 0});
    pieces.back() = {body.data(), body.size()};
    (void)server->replyv(connection, context, 0, pieces.data(), count);
}

/* The first byte of a request says what becomes of it. */
void worker(osb* connection, recv_context* context, service*) {
    msg_header header;
    memcpy(&header, context->buffer, sizeof header);
    require(header.length <= context->payload_size &&
                header.length <= context->info.msglen - MSG_HEADER_SIZE,
            "the payload came with the message");
    const std::string request(context->payload, context->payload + header.length);
    fuzz_input rest = {reinterpret_cast<const uint8_t*>(request.data()), request.size()};
    switch (input_u8(&rest)) {
    case 'b':
        reply_pieces(connection, context, size_t{input_u16(&rest)} * 4, 3);
        break;
    case 'v':
        reply_pieces(connection, context, input_u8(&rest), 40);
        break;
    case 's':
        (void)server->reply(connection, context, input_u8(&rest), nullptr, 0);
        break;
    case 't':
        (void)server->reply(connection, context, 0, "one", 3);
        require(server->reply(connection, context, 0, "two", 3) == -1, "a second reply is refused");
        break;
    case 'l': /* no reply; what is no CSM_PUT cannot have it later */
        if (header.type == CSM_PUT) {
            late.push_back({connection, context->rcvid, header.tag});
        }
        break;
    default:
        (void)server->reply(connection, context, 0, request.data(),
                            static_cast<int32_t>(request.size()));
    }
}

int32_t welcome(osb*, recv_context*, service*) {
    return 0;
}
int32_t refuse(osb*, recv_context*, service*) {
    return EDOM;
}
void leave(osb*, recv_context*, service*) {}

void answer_late(size_t position) {
    const late_reply entry = late[position];
    late.erase(late.begin() + static_cast<ptrdiff_t>(position));
    const iovec body = {const_cast<char*>("late"), 4};
    (void)server->reply2(entry.connection, entry.rcvid, entry.tag, 3, &body, 1);
}

/* --- Clients -----------------------------------------------------------------------------------
 */

void disconnect(client* c) {
    if (c->fd >= 0) {
        close(c->fd);
    }
    if (c->events >= 0) {
        close(c->events);
    }
    *c = {};
}

/* Takes one packet of a reply; false when there is none. */
bool read_packet(client* c) {
    alignas(message_frame) char packet[MESSAGE_PACKET_SIZE];
    const ssize_t size = recv(c->fd, packet, sizeof packet, MSG_DONTWAIT | MSG_TRUNC);
    if (size <= 0) {
        require(c->is_cut || (size < 0 && errno == EAGAIN), "the server keeps its clients");
        return false;
    }
    require(size >= static_cast<ssize_t>(sizeof(message_frame)) &&
                static_cast<size_t>(size) <= sizeof packet,
            "a packet has a frame and keeps to the bound");
    message_frame frame;
    memcpy(&frame, packet, sizeof frame);
    c->received += static_cast<size_t>(size) - sizeof frame;
    require(frame.sequence == c->answered + 1, "replies come in order");
    require(c->answered < c->sent, "there is one reply to a packet");
    if ((frame.flags & MESSAGE_FRAME_ERROR) != 0) {
        require(frame.flags == MESSAGE_FRAME_ERROR && frame.length == 0 && c->received == 0 &&
                    frame.status > 0,
                "an error reply is an error alone");
    }
    if ((frame.flags & MESSAGE_FRAME_MORE) != 0) {
        require(c->received < frame.length, "a reply that goes on is not complete");
        return true;
    }
    require(c->received == frame.length, "a reply is as long as it says");
    c->received = 0;
    c->answered += 1;
    return true;
}

void read_replies(client* c) {
    while (c->fd >= 0 && read_packet(c)) {
        serve_all(server); /* what did not fit into the socket follows */
    }
}

/* The descriptors that can travel with a message; the caller closes them. */
int descriptor_of_kind(client* c, unsigned kind) {
    int pair[2] = {-1, -1};
    switch (kind % 4) {
    case 0:
        if (c->events >= 0) {
            close(c->events);
        }
        require(message_event_channel(&c->events, &pair[0]) == 0, "an event channel");
        return pair[0];
    case 1:
        require(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair) == 0, "a pair of sockets");
        close(pair[1]);
        return pair[0];
    case 2:
        require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) == 0,
                "a pair of sockets");
        close(pair[1]);
        return pair[0];
    default:
        return open("/dev/null", O_RDWR | O_CLOEXEC);
    }
}

/* With `twice` the descriptor stands in the message two times, for which the server ends the
 * connection. */
void send_packet(client* c, const std::string& bytes, int descriptor, bool twice) {
    iovec area = {const_cast<char*>(bytes.data()), bytes.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(2 * sizeof(int))] = {};
    msghdr packet = {};
    packet.msg_iov = &area;
    packet.msg_iovlen = 1;
    if (descriptor >= 0) {
        const int both[2] = {descriptor, descriptor};
        const size_t size = twice ? sizeof both : sizeof *both;
        packet.msg_control = control;
        packet.msg_controllen = CMSG_SPACE(size);
        cmsghdr* part = CMSG_FIRSTHDR(&packet);
        part->cmsg_level = SOL_SOCKET;
        part->cmsg_type = SCM_RIGHTS;
        part->cmsg_len = CMSG_LEN(size);
        memcpy(CMSG_DATA(part), both, size);
    }
    if (sendmsg(c->fd, &packet, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
        c->sent += 1;
        c->is_cut = c->is_cut || (descriptor >= 0 && twice);
    }
}

/* A message that is one: the type, the indices, the tag and the sizes come from a byte each. */
std::string make_message(fuzz_input* input) {
    static constexpr int32_t sizes[] = {0, 1, 28, 200, 65536, INT32_MAX, -1, INT32_MIN};
    static constexpr int32_t excess[] = {0, 0, 0, 1, -1, INT32_MAX, INT32_MIN, LARGEST};
    msg_header header = {};
    header.type = static_cast<int16_t>(CSM_OPEN + input_u8(input) % 8);
    const unsigned indices = input_u8(input);
    header.service_index = static_cast<int16_t>(static_cast<int>(indices & 3) - 1);
    header.connection_index = static_cast<int16_t>(static_cast<int>(indices >> 2 & 15) - 1);
    header.tag = input_u8(input) % 8;
    const unsigned numbers = input_u8(input);
    header.size = sizes[numbers & 7];
    size_t length = input_u8(input);
    if (length >= 0xF0) {
        length = (length & 15) << 10 | input_u8(input);
    }
    std::string payload = input_bytes(input, length);
    if (header.type == CSM_OPEN && payload.size() == 1) {
        payload = SERVICES[static_cast<unsigned char>(payload[0]) % 3] + std::string(1, '\0');
    }
    header.length = static_cast<int32_t>(static_cast<uint32_t>(payload.size()) +
                                         static_cast<uint32_t>(excess[numbers >> 3 & 7]));
    return std::string(reinterpret_cast<const char*>(&header), sizeof header) + payload;
}

/* --- One input ---------------------------------------------------------------------------------
 */

void send_step(fuzz_input* input, client* c, bool made, unsigned flags) {
    const bool with_descriptor = (flags & 4) != 0;
    const unsigned kind = with_descriptor ? input_u8(input) : 0;
    const std::string bytes = made ? make_message(input) : input_bytes(input, input_u16(input));
    if (c->fd < 0) {
        c->fd = connect_to(SERVICES[0]);
    }
    const int descriptor = with_descriptor ? descriptor_of_kind(c, kind) : -1;
    send_packet(c, bytes, descriptor, (kind & 4) != 0);
    if (descriptor >= 0) {
        close(descriptor);
    }
    if ((flags & 1) == 0) {
        serve_all(server);
    }
    if ((flags & 3) == 0) {
        read_replies(c);
    }
}

void step(fuzz_input* input) {
    const unsigned op = input_u8(input);
    client* c = &clients[op >> 3 & 3];
    const unsigned flags = op >> 5;
    switch (op & 7) {
    case 0:
        disconnect(c);
        break;
    case 1:
        send_step(input, c, false, flags);
        break;
    case 5:
        read_replies(c);
        break;
    case 6:
        if (c->fd >= 0) {
            (void)shutdown(c->fd, (flags & 1) != 0 ? SHUT_WR : SHUT_RD);
            c->is_cut = true;
        }
        break;
    case 7:
        if (!late.empty()) {
            answer_late(flags % late.size());
        }
        break;
    default:
        send_step(input, c, true, flags);
    }
}

/* The lowest descriptor that is free. */
int next_descriptor(void) {
    const int fd = dup(0);
    close(fd);
    return fd;
}

/* Shows every connection record. */
void for_each_connection(void (*look)(const osb*)) {
    vel_lock_guard guard(server->lock);
    for (int32_t i = 0; i < server->services.count; ++i) {
        auto* one = static_cast<service*>(_array_get(&server->services, i));
        for (int32_t k = 0; one != nullptr && k < one->connections.count; ++k) {
            const auto* connection = static_cast<const osb*>(_array_get(&one->connections, k));
            if (connection != nullptr) {
                look(connection);
            }
        }
    }
}

void require_counts(const osb* connection) {
    int32_t owed = 0;
    for (const late_reply& entry : late) {
        owed += entry.connection == connection ? 1 : 0;
    }
    int32_t queued = 0;
    for (const reply_entry* entry = connection->queue; entry != nullptr; entry = entry->next) {
        ++queued;
    }
    require(connection->puts_owed == owed, "the replies that are owed are counted");
    require(connection->queue_length == queued, "the replies in the queue are counted");
}

void require_idle(void) {
    vel_lock_guard guard(server->lock);
    require(server->queued_bytes == 0, "no reply is left in a queue");
    for (int32_t i = 0; i < server->services.count; ++i) {
        const auto* one = static_cast<const service*>(_array_get(&server->services, i));
        require(one == nullptr || one->connections_open == 0, "no connection is open");
    }
}

void finish(void) {
    serve_all(server);
    for_each_connection(require_counts);
    for (client& c : clients) {
        read_replies(&c);
        require(c.is_cut || c.answered == c.sent, "every packet is answered");
        disconnect(&c);
    }
    serve_all(server);
    while (!late.empty()) {
        answer_late(0);
    }
    require(message_channel_connections(server->dispatch) == 0, "clients that go are gone");
    for_each_connection([](const osb*) { require(false, "no connection record is left"); });
    require_idle();
    destructer(msgserver_context(server)); /* the next input begins with a small payload area */
    (void)pthread_setspecific(server->context_key, nullptr);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    (void)fuzz_root();
    server = msgserver_create(LARGEST, QUEUE, MSGSERVER_BY_PATH);
    require(server != nullptr, "a server");
    const char* const options = "perms=666";
    require(msgserver_add(server, SERVICES[0], nullptr, options, 0, worker, welcome, leave) == 0 &&
                msgserver_add(server, SERVICES[1], nullptr, options, 0, worker, refuse, leave) == 1,
            "two services");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const int descriptors = next_descriptor();
    fuzz_input input = {data, size};
    for (int i = 0; i < STEPS && input.left > 0; ++i) {
        step(&input);
    }
    finish();
    require(next_descriptor() == descriptors, "no descriptor is left open");
    return 0;
}
