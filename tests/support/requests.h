/* The requests of the service's catalogue as functions: each sends one and decodes its reply. A
 * result is the one of the reply body; REQUEST_FAILED when there was no reply with a body. */
#ifndef TEST_REQUESTS_H
#define TEST_REQUESTS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <lyrane/client.h>

#include "wire.h"

constexpr int32_t REQUEST_FAILED = -1000;

/* Either the client library's connection, or a bare one. */
struct request_client {
    msgclient_t* library = nullptr;
    wire_client wire;
};

/* What came back. Texts that are null in the reply are "" here. */
struct request_reply {
    int32_t status = -1; /* of the transport; 0: success */
    int32_t result = REQUEST_FAILED;
    std::string body; /* behind the result */
};

struct request_source {
    int32_t id = 0;
    int32_t type = 0;
    int32_t status = 0;
    uint64_t capabilities = 0;
    std::string uid;
    std::string name;
    std::string view_name;
};

struct request_node {
    int32_t type = 0;
    int32_t count = 0;
    int32_t ms_id = 0;
    int32_t ms_type = 0;
    std::string id;
    std::string name;
};

struct request_metadata {
    bool present = false;
    int32_t duration = 0;
    std::string title;
    std::string artist;
};

struct request_track {
    int32_t result = REQUEST_FAILED;
    int32_t index = -1;
    uint64_t ts_id = 0;
    request_node node;
    request_metadata data;
};

/* Connects to a service of this process's runtime root, or by the socket file. */
bool request_connect(request_client& client, const std::string& service);
bool request_connect_wire(request_client& client, const std::string& path,
                          const std::string& service);
void request_disconnect(request_client& client);

/* A payload: the request header and its fields, each added behind the last. */
std::string request_begin(uint16_t type);
void request_i32(std::string& payload, int32_t value);
void request_u64(std::string& payload, uint64_t value);
void request_text(std::string& payload, const std::string& text); /* u32 length and bytes */
/* The payload of open and close, with any length in its length byte. */
std::string request_name(uint16_t type, const std::string& name, int8_t length);

request_reply request_send(request_client& client, const std::string& payload);

int32_t request_open(request_client& client, const std::string& player);
int32_t request_close(request_client& client, const std::string& player);
/* Requests without fields that answer a result: play, stop, pause, next, previous. */
int32_t request_simple(request_client& client, uint16_t type);
/* Those with one number: jump, seek, shuffle, repeat. */
int32_t request_number(request_client& client, uint16_t type, int32_t value);
int32_t request_speed(request_client& client, float rate);

std::vector<request_source> request_sources(request_client& client);
lyr_state_reply request_state(request_client& client);
int32_t request_create(request_client& client, int32_t ms_id, const std::string& folder,
                       int32_t expected, int32_t start_index, uint64_t* ts_id);
int32_t request_destroy(request_client& client, uint64_t ts_id);
int32_t request_session(request_client& client, uint64_t* ts_id, int32_t* length);
int32_t request_position(request_client& client, int32_t* position);
request_track request_current(request_client& client);
/* The current track once what is at work on the player now is through: a first answer waits for the
 * player, but copies the track before it does. */
request_track request_current_settled(request_client& client);
int32_t request_browse(request_client& client, int32_t ms_id, const std::string& folder,
                       int32_t offset, int32_t limit, std::vector<request_node>& nodes);
int32_t request_search(request_client& client, int32_t ms_id, const std::string& filter,
                       const std::string& text, int32_t offset, int32_t limit,
                       std::vector<request_node>& nodes);
int32_t request_tracks(request_client& client, uint64_t ts_id, int32_t offset, int32_t limit,
                       std::vector<request_node>& nodes);
int32_t request_metadata_of(request_client& client, int32_t ms_id, const std::string& node,
                            request_metadata& data);
int32_t request_extended(request_client& client, int32_t ms_id, const std::string& node,
                         const std::vector<std::string>& keys, std::vector<std::string>& values);

/* The ids of nodes, each with a space behind it. */
std::string request_ids(const std::vector<request_node>& nodes);

#endif
