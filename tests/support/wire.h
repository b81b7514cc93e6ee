/* A client made of nothing but a socket: what the client library would never send, and a look at
 * the replies as they are. Waits at most WIRE_LIMIT for a reply. */
#ifndef TEST_WIRE_H
#define TEST_WIRE_H

#include <cstdint>
#include <string>

constexpr int WIRE_LIMIT = 120000; /* ms */

struct wire_client {
    int fd = -1;
    int16_t service_index = 0;
    int16_t connection_index = 0;
};

/* A reply as it came, its pieces joined. */
struct wire_reply {
    bool came = false; /* false: end of the connection, or the limit */
    bool error = false;
    int32_t status = 0; /* or the error number */
    std::string data;   /* transport header and body, for what has one */
};

/* Connects to the socket file of a service. */
bool wire_connect(wire_client& client, const std::string& path);
/* The same without waiting for a server whose backlog is full. */
bool wire_connect_nowait(wire_client& client, const std::string& path);
void wire_close(wire_client& client);

/* Sends bytes as one message; false when the connection does not take it. */
bool wire_send(wire_client& client, const std::string& message);
wire_reply wire_receive(wire_client& client);
wire_reply wire_call(wire_client& client, const std::string& message);

/* A transport header with the client's indices. */
std::string wire_header(const wire_client& client, int16_t type, int32_t length, int32_t size,
                        uint32_t tag = 0);

/* Opens the service's name; keeps the indices. */
bool wire_open(wire_client& client, const std::string& service);
/* A synchronous request with room for `capacity` bytes of reply. */
wire_reply wire_putget(wire_client& client, const std::string& request, int32_t capacity = 65536);

#endif
