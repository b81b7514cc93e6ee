/* Clients of the service over its socket, all parts played by one thread: what is sent is served at
 * once or with what follows, and every answer must be the one that belongs to its message. */
#ifndef FUZZ_WIRE_H
#define FUZZ_WIRE_H

#include <cstdint>
#include <string>

#include "service_rig.h"

constexpr int WIRE_CLIENTS = 4;

/* Told of each reply to a request, once it has been checked against the request. */
using wire_listener = void (*)(int client, const std::string& request, const rig_reply& reply);

/* Makes the message server of the service, once. */
void wire_start(wire_listener listener);

/* Each connects and opens the service if it has not done so yet, and then sends. With `later` the
 * server is not given time yet. */

/* A request that waits for its reply, for which there are `capacity` bytes. */
void wire_request(int client, const std::string& request, int32_t capacity, bool later);
/* One whose reply is fetched under a tag. */
void wire_put(int client, uint32_t tag, const std::string& request, bool later);
void wire_get(int client, uint32_t tag, int32_t capacity);
/* An event channel, and the number of replies that may wait. */
void wire_notify(int client, int32_t depth);

/* Closes the connection in order, with the socket staying; or the socket without a word. */
void wire_close(int client);
void wire_leave(int client);

/* Lets the server work until it has nothing to do, and takes all replies. */
void wire_serve(void);

/* All clients leave; nothing of them may stay. */
void wire_end(void);

#endif
