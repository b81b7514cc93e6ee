#include "connection.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <system_error>

#include "interrupt.h"
#include "text.h"

namespace {

constexpr size_t REPLY_SIZE = 65536; /* what most replies fit into */
constexpr size_t NAME_MAX_BYTES = 127;

std::string error_text(int32_t error) {
    return std::system_category().message(error);
}

std::string open_failure(const std::string& service, int32_t error) {
    const std::string name = text_printable(service);
    switch (error) {
    case ENOENT:
    case ECONNREFUSED:
        return "the service " + name + " is not running";
    case EACCES:
    case EPERM:
        return "no permission to use the service " + name;
    case ENAMETOOLONG:
    case EINVAL:
        return "\"" + name + "\" is no name of a service";
    case ENOMEM:
    case EMFILE:
        return "the service " + name + " has too many clients";
    default:
        return "the service " + name + " cannot be reached: " + error_text(error);
    }
}

std::string call_failure(int32_t status) {
    switch (status) {
    case EPIPE:
    case ECONNRESET:
    case ENOENT:
        return "the service has ended";
    case EMSGSIZE:
        return "the request is larger than the service takes";
    case ENOMSG:
    case ENOTSUP:
        return "the service does not know this request";
    default:
        return "the service cannot be asked: " + error_text(status);
    }
}

/* A reply that did not fit waits at the service; other clients' replies do not come in between. */
int32_t fetch_queued(msgclient_t* client, std::vector<unsigned char>* bytes, int32_t* length) {
    int32_t status = LYR_STATUS_QUEUED;
    while (status == LYR_STATUS_QUEUED) {
        bytes->resize(static_cast<size_t>(std::max(*length, 0)) + 1);
        status =
            msgclient_get(client, 0, bytes->data(), static_cast<int32_t>(bytes->size()), length, 0);
    }
    return status;
}

/* The name of a player as `open` and `close` take it. */
std::string name_fields(const std::string& name) {
    std::string fields(1, static_cast<char>(name.size()));
    fields.append(3, '\0').append(name);
    return fields;
}

void pack_bytes(std::string* fields, const void* value, size_t size) {
    fields->append(static_cast<const char*>(value), size);
}

} // namespace

void connection_release::operator()(connection* owned) const noexcept {
    /* Nothing can be reported here, and nothing may escape; commands that care leave themselves. */
    try {
        connection_leave(owned);
    } catch (const std::bad_alloc&) {
    }
    msgclient_close(owned->client);
    delete owned;
}

connection_owner connection_open(const std::string& service, std::string* why) {
    connection_owner opened(new connection);
    opened->service = service;
    opened->client = msgclient_open(service.c_str(), nullptr, 0);
    if (opened->client == nullptr) {
        *why = open_failure(service, errno);
        return nullptr;
    }
    return opened;
}

bool connection_send(connection* to, uint16_t type, std::string_view fields,
                     connection_reply* reply) {
    lyr_request head = {};
    head.type = type;
    std::string request;
    pack_bytes(&request, &head, sizeof head);
    request += fields;

    std::vector<unsigned char> bytes(REPLY_SIZE);
    int32_t length = 0;
    int32_t status =
        msgclient_putget(to->client, request.data(), static_cast<int32_t>(request.size()),
                         bytes.data(), static_cast<int32_t>(bytes.size()), &length, 0);
    if (status == LYR_STATUS_QUEUED) {
        status = fetch_queued(to->client, &bytes, &length);
    }
    if (status != 0) {
        to->why = call_failure(status);
        return false;
    }
    if (length < static_cast<int32_t>(sizeof reply->result) ||
        static_cast<size_t>(length) > bytes.size()) {
        to->why = "the service gave an answer that makes no sense";
        return false;
    }
    std::memcpy(&reply->result, bytes.data(), sizeof reply->result);
    reply->body.assign(bytes.begin() + sizeof reply->result, bytes.begin() + length);
    return true;
}

bool connection_enter(connection* to, const std::string& player) {
    if (!connection_leave(to)) {
        return false;
    }
    if (player.empty() || player.size() > NAME_MAX_BYTES) {
        to->why = "a player's name has 1 to " + std::to_string(NAME_MAX_BYTES) + " bytes";
        return false;
    }
    interrupt_hold();
    connection_reply reply;
    if (!connection_send(to, LYR_MSG_OPEN, name_fields(player), &reply)) {
        interrupt_release();
        return false;
    }
    if (reply.result != 0) {
        interrupt_release();
        to->why = "the service does not open the player \"" + text_printable(player) +
                  "\": it has too many clients or players, or the name is not allowed";
        return false;
    }
    to->player = player;
    return true;
}

bool connection_leave(connection* to) {
    if (to->player.empty()) {
        return true;
    }
    const std::string fields = name_fields(to->player);
    to->player.clear();
    connection_reply reply;
    const bool closed = connection_send(to, LYR_MSG_CLOSE, fields, &reply);
    interrupt_release();
    return closed;
}

void connection_abandon(connection* to) {
    to->player.clear();
    interrupt_release();
}

void pack_i32(std::string* fields, int32_t value) {
    pack_bytes(fields, &value, sizeof value);
}

void pack_u64(std::string* fields, uint64_t value) {
    pack_bytes(fields, &value, sizeof value);
}

void pack_text(std::string* fields, std::string_view text) {
    pack_i32(fields, static_cast<int32_t>(text.size()));
    fields->append(text);
}
