/* Clients that do what clients must not. */
#include <fcntl.h>
#include <unistd.h>

#include "rig.h"
#include "soak.h"

namespace {

constexpr int16_t PUTGET = 0x203;
constexpr int64_t DEAF_OPENS = 24; /* of a player, in a life; one that is not closed counts on */
constexpr int CONNECTS = 150;      /* at once; all of a process are refused above 512 */

std::string random_bytes(std::mt19937& random, size_t most) {
    std::string bytes(random() % (most + 1), '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

std::string request_of(const wire_client& client, const std::string& payload) {
    return wire_header(client, PUTGET, static_cast<int32_t>(payload.size()), 65536) + payload;
}

/* The id of a source that no model counts on. */
int32_t spare_source(soak& soak) {
    request_client client;
    int32_t id = -1;
    if (request_connect(client, soak.daemon.service)) {
        for (const request_source& source : request_sources(client)) {
            id = source.uid == "spare" ? source.id : id;
        }
    }
    request_disconnect(client);
    return id;
}

std::string browse_payload(int32_t source) {
    std::string browse = request_begin(LYR_MSG_BROWSE);
    request_i32(browse, source);
    request_i32(browse, 0);
    request_i32(browse, -1);
    request_text(browse, "/f3");
    return browse;
}

bool connect_open(soak& soak, wire_client& client) {
    const bool is_open =
        wire_connect(client, rig_socket(soak.daemon)) && wire_open(client, soak.daemon.service);
    if (!is_open) {
        soak_differ(soak, "a wire client cannot connect");
    }
    return is_open;
}

void send_garbage(soak& soak, std::mt19937& random) {
    wire_client client;
    if (connect_open(soak, client)) {
        fcntl(client.fd, F_SETFL, O_NONBLOCK);
        for (int i = 0; i < 20; ++i) {
            std::string message = random_bytes(random, 400);
            if (random() % 2 ==
                0) { /* a request of any type with anything in it, or a part of it */
                std::string payload = request_begin(static_cast<uint16_t>(random() % 26));
                /* Not one that leaves a player open under a random name. */
                payload[0] = payload[0] == LYR_MSG_OPEN ? char{99} : payload[0];
                message = request_of(client, payload + message);
                message.resize(random() % 4 == 0 ? random() % message.size() : message.size());
            }
            (void)wire_send(client, message);
            soak_add(soak, SOAK_GARBAGE);
        }
    }
    wire_close(client);
}

void connect_in_crowds(soak& soak) {
    std::vector<wire_client> crowd(CONNECTS);
    for (wire_client& client : crowd) {
        (void)wire_connect_nowait(client, rig_socket(soak.daemon));
        soak_add(soak, SOAK_CONNECTS);
    }
    for (wire_client& client : crowd) {
        wire_close(client);
    }
    wire_client last; /* is served when the crowd has been let in and has gone */
    (void)connect_open(soak, last);
    wire_close(last);
}

/* Asks until nothing more is taken, and listens late or never. */
void stop_reading(soak& soak, std::mt19937& random, int32_t source) {
    wire_client client;
    const bool comes_back = random() % 2 == 0;
    if (connect_open(soak, client)) {
        std::string payload = request_begin(LYR_MSG_GET_MEDIA_SOURCE);
        if (comes_back || soak.deaf_opens.fetch_add(1) < DEAF_OPENS) {
            const std::string name = comes_back ? "slow" + std::to_string(random() % 2) : "deaf";
            payload = request_name(LYR_MSG_OPEN, name, static_cast<int8_t>(name.size()));
            (void)wire_call(client, request_of(client, payload));
            const std::string browse = browse_payload(source);
            const int flags = fcntl(client.fd, F_GETFL);
            fcntl(client.fd, F_SETFL, flags | O_NONBLOCK);
            int sent = 0;
            while (sent < 2000 && wire_send(client, request_of(client, browse))) {
                ++sent;
            }
            usleep(20000);
            fcntl(client.fd, F_SETFL, flags);
            while (comes_back && sent-- > 0 && wire_receive(client).came) {
            }
            payload[0] = LYR_MSG_CLOSE;
        } else {
            fcntl(client.fd, F_SETFL, O_NONBLOCK);
            while (wire_send(client, request_of(client, payload))) {
            }
            usleep(20000);
        }
        if (comes_back && !wire_call(client, request_of(client, payload)).came) {
            soak_differ(soak, "a slow client is not served any more");
        }
        soak_add(soak, comes_back ? SOAK_SLOW : SOAK_DEAF);
    }
    wire_close(client);
}

/* Goes away with its request in work. */
void die_asking(soak& soak) {
    wire_client client;
    if (connect_open(soak, client)) {
        (void)wire_send(client, request_of(client, request_begin(LYR_MSG_GET_MEDIA_SOURCE)));
    }
    wire_close(client);
}

} // namespace

void soak_hostile_client(soak& soak, unsigned number) {
    std::mt19937 random(soak.seed * 100 + 50 + number);
    const int32_t source = spare_source(soak);
    while (soak_turn(soak)) {
        soak_pause(soak, random, 80000);
        switch (random() % 4) {
        case 0:
            send_garbage(soak, random);
            break;
        case 1:
            connect_in_crowds(soak);
            break;
        case 2:
            stop_reading(soak, random, source);
            break;
        default:
            die_asking(soak);
            break;
        }
    }
}
