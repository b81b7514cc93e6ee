#include "wire.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <veloran/lock.h>
#include <veloran/message.h>

namespace {

constexpr size_t HEADER_SIZE = 28;
constexpr int16_t TYPE_OPEN = 0x200;
constexpr int16_t TYPE_PUTGET = 0x203;

bool connect_to(wire_client& client, const std::string& path, int flags) {
    /* A path of any length goes through the folder's descriptor. */
    const size_t slash = path.rfind('/');
    const vel_fd folder(open(path.substr(0, slash).c_str(), O_PATH | O_CLOEXEC));
    const std::string reachable =
        "/proc/self/fd/" + std::to_string(folder.value) + path.substr(slash);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (reachable.size() >= sizeof address.sun_path) {
        return false;
    }
    reachable.copy(address.sun_path, reachable.size());
    client = {};
    client.fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0);
    return client.fd >= 0 &&
           connect(client.fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

} // namespace

bool wire_connect(wire_client& client, const std::string& path) {
    return connect_to(client, path, 0);
}

bool wire_connect_nowait(wire_client& client, const std::string& path) {
    return connect_to(client, path, SOCK_NONBLOCK);
}

void wire_close(wire_client& client) {
    if (client.fd >= 0) {
        close(client.fd);
    }
    client = {};
}

bool wire_send(wire_client& client, const std::string& message) {
    return send(client.fd, message.data(), message.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(message.size());
}

wire_reply wire_receive(wire_client& client) {
    wire_reply reply;
    std::vector<char> packet(MESSAGE_PACKET_SIZE);
    while (true) {
        pollfd readable = {client.fd, POLLIN, 0};
        if (poll(&readable, 1, WIRE_LIMIT) != 1) {
            return reply;
        }
        ssize_t size = recv(client.fd, packet.data(), packet.size(), 0);
        if (size < 0 && errno == ECONNRESET) { /* once; what came before it is still there */
            size = recv(client.fd, packet.data(), packet.size(), 0);
        }
        message_frame frame = {};
        if (size < static_cast<ssize_t>(sizeof frame)) {
            return reply;
        }
        std::memcpy(&frame, packet.data(), sizeof frame);
        reply.data.append(packet.data() + sizeof frame, static_cast<size_t>(size) - sizeof frame);
        if ((frame.flags & MESSAGE_FRAME_MORE) == 0) {
            reply.came = reply.data.size() == frame.length;
            reply.error = (frame.flags & MESSAGE_FRAME_ERROR) != 0;
            reply.status = frame.status;
            return reply;
        }
    }
}

wire_reply wire_call(wire_client& client, const std::string& message) {
    return wire_send(client, message) ? wire_receive(client) : wire_reply{};
}

std::string wire_header(const wire_client& client, int16_t type, int32_t length, int32_t size,
                        uint32_t tag) {
    std::string header(HEADER_SIZE, '\0');
    const auto put = [&](size_t at, const auto& value) {
        std::memcpy(header.data() + at, &value, sizeof value);
    };
    put(0, type);
    put(4, client.service_index);
    put(6, client.connection_index);
    put(8, tag);
    put(12, length);
    put(16, size);
    return header;
}

bool wire_open(wire_client& client, const std::string& service) {
    const std::string name = service + '\0';
    const wire_reply reply = wire_call(
        client, wire_header(client, TYPE_OPEN, static_cast<int32_t>(name.size()), 28) + name);
    if (!reply.came || reply.error || reply.status != 0 || reply.data.size() != HEADER_SIZE) {
        return false;
    }
    std::memcpy(&client.service_index, reply.data.data() + 4, sizeof client.service_index);
    std::memcpy(&client.connection_index, reply.data.data() + 6, sizeof client.connection_index);
    return true;
}

wire_reply wire_putget(wire_client& client, const std::string& request, int32_t capacity) {
    wire_reply reply = wire_call(
        client,
        wire_header(client, TYPE_PUTGET, static_cast<int32_t>(request.size()), capacity) + request);
    reply.data.erase(0, HEADER_SIZE);
    return reply;
}
