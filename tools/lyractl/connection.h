/* A connection to the service, and the player that it has opened.
 *
 * Whatever a command opens it closes again, on every way out: a player counts its clients, and a
 * count that is lost stays until the service ends. */
#ifndef LYRACTL_CONNECTION_H
#define LYRACTL_CONNECTION_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <lyrane/client.h>

struct connection {
    msgclient_t* client = nullptr; /* owned */
    std::string service;           /* name under which it was opened */
    std::string player;            /* opened here and to be closed here; empty: none */
    std::string why;               /* the reason of the last failure, for people */
};

struct connection_release {
    void operator()(connection* owned) const noexcept;
};
using connection_owner = std::unique_ptr<connection, connection_release>;

/* What the service answered: the result, and the bytes behind it. */
struct connection_reply {
    int32_t result = -1;
    std::vector<unsigned char> body;
};

/* Opens the service. Null with the reason in *why. */
connection_owner connection_open(const std::string& service, std::string* why);

/* Sends one request: its LYR_MSG_ number and its packed fields. True when there is a reply with a
 * result, whatever that is; else the reason is in `why`. */
bool connection_send(connection* to, uint16_t type, std::string_view fields,
                     connection_reply* reply);

/* Opens a player on this connection, makes it when it does not exist. Closes an earlier one. */
bool connection_enter(connection* to, const std::string& player);

/* Closes the player that was opened; does nothing without one. */
bool connection_leave(connection* to);

/* Gives the opened player up without closing it: it stays until the service ends. */
void connection_abandon(connection* to);

/* Packing of request fields. */
void pack_i32(std::string* fields, int32_t value);
void pack_u64(std::string* fields, uint64_t value);
void pack_text(std::string* fields, std::string_view text); /* u32 length, bytes */

#endif
