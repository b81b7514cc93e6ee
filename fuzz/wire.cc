#include "wire.h"

#include <cerrno>
#include <deque>
#include <map>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

#include <veloran/handover.h>
#include <veloran/message.h>

#include "control.h"
#include "input.h"
#include "msgserver.h"
#include "reply_check.h"
#include "serve.h"
#include "service.h"

namespace {

constexpr const char* SERVICE = "fuzz.sys";
constexpr int32_t LARGEST = 65536; /* payload */
constexpr int32_t QUEUE = 5;

/* A message that is not answered yet. */
struct sent_message {
    msg_header header;
    std::string request;
};

struct client {
    int fd = -1;
    bool is_open = false;
    int16_t service = -1;
    int16_t connection = -1;
    uint32_t answered = 0;
    std::deque<sent_message> sent;
    std::string data;                                     /* of the reply in hand */
    std::map<uint32_t, std::vector<std::string>> waiting; /* requests by tag, the newest last */
    int events = -1;
};

msgserver* server;
wire_listener listen_to;
client clients[WIRE_CLIENTS];

msg_header header_of(int16_t type, uint32_t tag, int32_t size) {
    msg_header header = {};
    header.type = type;
    header.tag = tag;
    header.size = size;
    return header;
}

void transmit(client* c, msg_header header, const std::string& payload, int descriptor) {
    header.service_index = c->service;
    header.connection_index = c->connection;
    header.length = static_cast<int32_t>(payload.size());
    iovec pieces[] = {{&header, sizeof header},
                      {const_cast<char*>(payload.data()), payload.size()}};
    vel_handover handover;
    msghdr packet = {};
    packet.msg_iov = pieces;
    packet.msg_iovlen = 2;
    vel_handover_attach(&packet, &handover, descriptor);
    if (sendmsg(c->fd, &packet, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
        c->sent.push_back({header, payload});
    }
}

void open_service(client* c) {
    if (c->fd < 0) {
        c->fd = connect_to(SERVICE);
    }
    if (!c->is_open) {
        c->service = -1;
        c->connection = -1;
        transmit(c, header_of(CSM_OPEN, 0, 0), std::string(SERVICE) + '\0', -1);
        wire_serve();
        require(c->is_open, "a client can open the service");
    }
}

void send_message(int number, const msg_header& header, const std::string& payload, int descriptor,
                  bool later) {
    open_service(&clients[number]);
    transmit(&clients[number], header, payload, descriptor);
    if (!later) {
        wire_serve();
    }
}

/* A reply to a request: with its own number when it was waited for, by its tag when it was fetched.
 */
void take_request_reply(client* c, const std::string& request, int32_t status,
                        const std::string& body) {
    const rig_reply reply = {status, body};
    require_reply(request, reply);
    listen_to(static_cast<int>(c - clients), request, reply);
}

void take_fetched(client* c, const sent_message& sent, const message_frame& frame,
                  const std::string& body) {
    std::vector<std::string>* queue = &c->waiting[sent.header.tag];
    if ((frame.flags & MESSAGE_FRAME_ERROR) != 0) {
        require(frame.status == ENOMSG && queue->empty(), "a reply that waits can be fetched");
    } else if (frame.status == CSM_STATUS_QUEUED) {
        require(!queue->empty(), "what is told of waits");
    } else {
        require(!queue->empty(), "what is fetched has waited");
        const std::string request = queue->back();
        queue->pop_back();
        take_request_reply(c, request, frame.status, body);
    }
}

void take_reply(client* c, const sent_message& sent, const message_frame& frame,
                const msg_header& header, const std::string& body) {
    const bool failed = (frame.flags & MESSAGE_FRAME_ERROR) != 0;
    switch (sent.header.type) {
    case CSM_OPEN:
        require(!failed, "everybody may open");
        c->is_open = true;
        c->service = header.service_index;
        c->connection = header.connection_index;
        break;
    case CSM_PUTGET:
        if (!failed && frame.status == CSM_STATUS_QUEUED) {
            c->waiting[sent.header.tag].push_back(sent.request);
        } else if (!failed) {
            require(header.size == static_cast<int32_t>(body.size()), "the length of a body");
            take_request_reply(c, sent.request, frame.status, body);
        } else {
            require(frame.status == ENOMEM || frame.status == ENOENT, "why a request fails");
        }
        break;
    case CSM_PUT:
        if (!failed) {
            c->waiting[sent.header.tag].push_back(sent.request);
        }
        break;
    case CSM_GET:
        take_fetched(c, sent, frame, body);
        break;
    default:
        break;
    }
}

/* Takes one packet; false when there is none. */
bool read_packet(client* c) {
    alignas(message_frame) static char packet[MESSAGE_PACKET_SIZE];
    const ssize_t size = recv(c->fd, packet, sizeof packet, MSG_DONTWAIT);
    if (size < static_cast<ssize_t>(sizeof(message_frame))) {
        require(size < 0 && errno == EAGAIN, "the server keeps its clients");
        return false;
    }
    message_frame frame;
    memcpy(&frame, packet, sizeof frame);
    c->data.append(packet + sizeof frame, static_cast<size_t>(size) - sizeof frame);
    if ((frame.flags & MESSAGE_FRAME_MORE) != 0) {
        return true;
    }
    require(!c->sent.empty() && frame.sequence == ++c->answered && c->data.size() == frame.length,
            "a reply to each message, in order");
    const sent_message sent = c->sent.front();
    c->sent.pop_front();
    msg_header header = {};
    memcpy(&header, c->data.data(), std::min(c->data.size(), sizeof header));
    const std::string body =
        c->data.size() > sizeof header ? c->data.substr(sizeof header) : std::string();
    c->data.clear();
    take_reply(c, sent, frame, header, body);
    return true;
}

bool read_replies(void) {
    bool any = false;
    for (client& c : clients) {
        while (c.fd >= 0 && read_packet(&c)) {
            any = true;
        }
    }
    return any;
}

} // namespace

void wire_start(wire_listener listener) {
    server = msgserver_create(LARGEST, QUEUE, MSGSERVER_BY_PATH);
    require(server != nullptr, "a server");
    server->user_data = &mmcontrol;
    require(msgserver_add(server, SERVICE, nullptr, "perms=666", 0, service_worker, service_connect,
                          service_disconnect) == 0,
            "a service");
    listen_to = listener;
}

void wire_request(int client, const std::string& request, int32_t capacity, bool later) {
    send_message(client, header_of(CSM_PUTGET, 0, capacity), request, -1, later);
}

void wire_put(int client, uint32_t tag, const std::string& request, bool later) {
    send_message(client, header_of(CSM_PUT, tag, 0), request, -1, later);
}

void wire_get(int client, uint32_t tag, int32_t capacity) {
    send_message(client, header_of(CSM_GET, tag, capacity), "", -1, false);
}

void wire_notify(int client, int32_t depth) {
    ::client* c = &clients[client];
    if (c->events >= 0) {
        close(c->events);
    }
    int sending = -1;
    require(message_event_channel(&c->events, &sending) == 0, "an event channel");
    const message_event event = {MESSAGE_EVENT_PULSE, sending, 0, 0, 0};
    const std::string payload(reinterpret_cast<const char*>(&event), sizeof event);
    send_message(client, header_of(CSM_NOTIFY, 0, depth), payload, sending, false);
    close(sending);
}

void wire_close(int client) {
    ::client* c = &clients[client];
    if (c->is_open) {
        wire_serve(); /* what was sent later belongs to the connection that closes */
        transmit(c, header_of(CSM_CLOSE, 0, 0), "", -1);
        c->is_open = false;
        wire_serve();
        c->waiting.clear();
    }
}

void wire_leave(int client) {
    ::client* c = &clients[client];
    if (c->fd >= 0) {
        close(c->fd);
    }
    if (c->events >= 0) {
        close(c->events);
    }
    *c = {};
    wire_serve();
}

void wire_serve(void) {
    do {
        serve_all(server);
    } while (read_replies());
}

void wire_end(void) {
    wire_serve();
    for (int i = 0; i < WIRE_CLIENTS; ++i) {
        require(clients[i].sent.empty(), "every message is answered");
        wire_leave(i);
    }
    require(message_channel_connections(server->dispatch) == 0, "clients that go are gone");
    vel_lock_guard guard(server->lock);
    require(server->queued_bytes == 0, "no reply is left in a queue");
}
