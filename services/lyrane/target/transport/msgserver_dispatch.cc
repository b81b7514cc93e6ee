/* Dispatch: what the calling thread received goes to where it belongs. */
#include <cerrno>
#include <cstring>

#include "msglog.h"
#include "msgserver_requests.h"
#include "reply.h"

namespace {

const msg_header* header_of(const recv_context* context) {
    return reinterpret_cast<const msg_header*>(context->buffer);
}

bool is_transport_message(const recv_context* context) {
    return context->info.msglen >= MSG_HEADER_SIZE && header_of(context)->type >= CSM_OPEN &&
           header_of(context)->type <= CSM_GET;
}

/* The open connection that the header names, when it belongs to this client. */
osb* connection_of(const service* owner, const msg_header* header, int32_t scoid) {
    auto* connection = static_cast<osb*>(_array_get(&owner->connections, header->connection_index));
    return connection != nullptr && connection->scoid == scoid && connection->closed == 0 &&
                   connection->refused == 0
               ? connection
               : nullptr;
}

/* Finds the connection of a message and takes a reference for the time of its dispatch, and for a
 * synchronous request another one for the reply that is due. */
osb* hold_connection(msgserver* server, recv_context* context) {
    vel_lock_guard guard(server->lock);
    const service* owner = lookup(server, nullptr, context->info.scoid);
    if (owner == nullptr) {
        return nullptr;
    }
    osb* connection = connection_of(owner, header_of(context), context->info.scoid);
    connection->in_use += header_of(context)->type == CSM_PUTGET ? 2 : 1;
    return connection;
}

void serve(osb* connection, recv_context* context) {
    switch (header_of(context)->type) {
    case CSM_CLOSE:
        msgserver_close(connection, context);
        break;
    case CSM_NOTIFY:
        msgserver_notify(connection, context);
        break;
    case CSM_PUTGET:
        msgserver_putget(connection, context);
        break;
    case CSM_PUT:
        msgserver_put(connection, context);
        break;
    default:
        reply_fetch(connection, context);
        break;
    }
}

service* lookup_by_name(msgserver* server, const char* name, recv_context* context)
    VEL_REQUIRES(server->lock) {
    auto* header = reinterpret_cast<msg_header*>(context->buffer);
    for (int32_t i = 0; i < server->services.count; ++i) {
        auto* candidate = static_cast<service*>(_array_get(&server->services, i));
        if (candidate == nullptr || strcmp(candidate->name, name) != 0) {
            continue;
        }
        header->service_index = static_cast<int16_t>(i);
        header->connection_index = 0;
        return msgserver_capable(server, candidate, context) ? candidate : nullptr;
    }
    return nullptr;
}

void dispatch(msgserver* server, recv_context* context) {
    if (context->rcvid == 0) {
        if (context->info.pulse == MESSAGE_PULSE_DISCONNECT && context->info.user != nullptr) {
            msgserver_client_gone(server, context);
        }
        return;
    }
    if (!is_transport_message(context)) {
        (void)message_error(server->dispatch, context->rcvid, ENOSYS);
        return;
    }
    if (header_of(context)->type == CSM_OPEN) {
        msgserver_open(server, context);
        return;
    }
    osb* connection = hold_connection(server, context);
    if (connection == nullptr) {
        (void)message_error(server->dispatch, context->rcvid, ENOENT);
        return;
    }
    serve(connection, context);
    _msgserver_lock_then_decr_inuse_and_release_osb_if_closed(connection);
}

} // namespace

extern "C" {

service* lookup(msgserver* server, const char* name, int32_t scoid) noexcept {
    recv_context* context = msgserver_context(server);
    if (scoid == -1) {
        return lookup_by_name(server, name, context);
    }
    const msg_header* header = header_of(context);
    auto* owner = static_cast<service*>(_array_get(&server->services, header->service_index));
    return owner != nullptr && connection_of(owner, header, scoid) != nullptr ? owner : nullptr;
}

int32_t msgserver_dispatch(msgserver* server) noexcept {
    recv_context* context = msgserver_context(server);
    if (context == nullptr || context->rcvid == -1) {
        return -1;
    }
    const bool is_client = context->info.pulse != MESSAGE_PULSE_WAKE;
    msglog_set_client(is_client ? int64_t{context->info.uid} : MSGLOG_NO_CLIENT);
    dispatch(server, context);
    msglog_set_client(MSGLOG_NO_CLIENT);
    return 0;
}
}
