/* What the dispatch does for each message type. The context holds the message; each function
 * answers it. */
#ifndef LYRANE_MSGSERVER_REQUESTS_H
#define LYRANE_MSGSERVER_REQUESTS_H

#include "msgserver.h"

extern "C" {

/* CSM_OPEN. */
void msgserver_open(msgserver* server, recv_context* context) noexcept VEL_EXCLUDES(server->lock);

/* The other types, on a connection of theirs that the caller holds a reference of (two for
 * CSM_PUTGET: the reply gives up the second). */
void msgserver_close(osb* connection, recv_context* context) noexcept;
void msgserver_notify(osb* connection, recv_context* context) noexcept;
void msgserver_putget(osb* connection, recv_context* context) noexcept;
void msgserver_put(osb* connection, recv_context* context) noexcept;

/* A client has gone: disconnects what it left open. */
void msgserver_client_gone(msgserver* server, recv_context* context) noexcept
    VEL_EXCLUDES(server->lock);

/* A connection to the capability service, the caller's, or -1. Never waits. */
int32_t msgserver_open_capability_service(void) noexcept;

/* Has the client of the context's message every capability that the service asks for? Waits for the
 * capability service, not for ever; connects to it anew when an earlier check got no answer. */
bool msgserver_capable(msgserver* server, const service* wanted,
                       const recv_context* context) noexcept VEL_REQUIRES(server->lock);
}

#endif
