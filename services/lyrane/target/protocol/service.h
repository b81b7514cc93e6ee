/* What the service does with clients: connections, requests, disconnections. Registered with the
 * message server, which calls these on the message-loop thread; its user data is the control
 * block. */
#ifndef LYRANE_SERVICE_H
#define LYRANE_SERVICE_H

#include <cstdint>

#include "msgserver.h"

extern "C" {

/* Counts the client in. Returns 0: everybody may connect. */
int32_t service_connect(osb* connection, recv_context* context, service* service) noexcept;

/* Counts the client out and empties its player slot. The player stays open, its client count as
 * it was: whoever leaves without a close leaves it so. */
void service_disconnect(osb* connection, recv_context* context, service* service) noexcept;

/* Serves one request and makes exactly one reply. */
void service_worker(osb* connection, recv_context* context, service* service) noexcept;

/* The queries that assemble a reply from several records. Each makes one reply and returns 0. */
int32_t handle_get_media_sources(osb* connection, recv_context* context) noexcept;
int32_t handle_get_current_track_info(osb* connection, recv_context* context) noexcept;
int32_t handle_get_metadata(osb* connection, recv_context* context) noexcept;
}

#endif
