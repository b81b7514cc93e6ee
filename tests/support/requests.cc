#include "requests.h"

#include <bit>
#include <cstring>

#include <gtest/gtest.h>

namespace {

/* Reads packed fields; past the end everything is 0 and `whole` false. */
struct field_reader {
    const std::string& bytes;
    size_t at = 0;
    bool whole = true;
};

template <typename type>
type read(field_reader& reader) {
    type value = {};
    reader.whole = reader.whole && reader.bytes.size() - reader.at >= sizeof value;
    if (reader.whole) {
        std::memcpy(&value, reader.bytes.data() + reader.at, sizeof value);
        reader.at += sizeof value;
    }
    return value;
}

std::string read_text(field_reader& reader) {
    const int32_t length = read<int32_t>(reader);
    if (length <= 0 || reader.bytes.size() - reader.at < static_cast<size_t>(length)) {
        reader.whole = reader.whole && length <= 0;
        return "";
    }
    reader.at += static_cast<size_t>(length);
    return reader.bytes.substr(reader.at - static_cast<size_t>(length),
                               static_cast<size_t>(length));
}

/* The fields of records are read in the order in which the braces name them. */
request_node read_node(field_reader& reader) {
    return {read<int32_t>(reader), read<int32_t>(reader), read<int32_t>(reader),
            read<int32_t>(reader), read_text(reader),     read_text(reader)};
}

request_source read_source(field_reader& reader) {
    return {read<int32_t>(reader),  read<int32_t>(reader), read<int32_t>(reader),
            read<uint64_t>(reader), read_text(reader),     read_text(reader),
            read_text(reader)};
}

request_metadata read_metadata(field_reader& reader) {
    request_metadata data;
    data.present = true;
    data.duration = read<int32_t>(reader);
    for (int i = 0; i < 4; ++i) {
        read<int32_t>(reader);
    }
    data.title = read_text(reader);
    read_text(reader);
    data.artist = read_text(reader);
    for (int i = 0; i < 4; ++i) {
        read_text(reader);
    }
    return data;
}

/* A reply must be used up exactly. */
void check_end(const field_reader& reader) {
    EXPECT_TRUE(reader.whole && reader.at == reader.bytes.size())
        << reader.at << " of " << reader.bytes.size() << " bytes read";
}

template <typename record>
std::vector<record> read_list(const std::string& body, record (*read_one)(field_reader&)) {
    field_reader reader = {body};
    std::vector<record> list;
    for (int32_t left = read<int32_t>(reader); left > 0 && reader.whole; --left) {
        list.push_back(read_one(reader));
    }
    check_end(reader);
    return list;
}

void add(std::string& payload, int32_t value) {
    request_i32(payload, value);
}
void add(std::string& payload, uint64_t value) {
    request_u64(payload, value);
}
void add(std::string& payload, const std::string& text) {
    request_text(payload, text);
}

/* A payload with these fields. */
template <typename... types>
std::string packed(uint16_t type, const types&... fields) {
    std::string payload = request_begin(type);
    (add(payload, fields), ...);
    return payload;
}

/* Sends a request; `take` reads what a success brings. */
template <typename function>
int32_t ask(request_client& client, const std::string& payload, function take) {
    const request_reply reply = request_send(client, payload);
    if (reply.result == 0) {
        field_reader reader = {reply.body};
        take(reader);
        check_end(reader);
    }
    return reply.result;
}

int32_t ask_nodes(request_client& client, const std::string& payload,
                  std::vector<request_node>& nodes) {
    const request_reply reply = request_send(client, payload);
    nodes.clear();
    if (reply.result == 0) {
        nodes = read_list(reply.body, read_node);
    }
    return reply.result;
}

request_reply send_library(msgclient_t* client, const std::string& payload) {
    request_reply reply;
    std::string buffer(65536, '\0');
    int32_t length = 0;
    reply.status = msgclient_putget(client, payload.data(), static_cast<int32_t>(payload.size()),
                                    buffer.data(), static_cast<int32_t>(buffer.size()), &length, 0);
    if (reply.status == LYR_STATUS_QUEUED) {
        buffer.resize(static_cast<size_t>(length));
        reply.status = msgclient_get(client, 0, buffer.data(), length, &length, 0);
    }
    reply.body = buffer.substr(0, reply.status == 0 ? static_cast<size_t>(length) : 0);
    return reply;
}

} // namespace

bool request_connect(request_client& client, const std::string& service) {
    client.library = msgclient_open(service.c_str(), nullptr, 0);
    return client.library != nullptr;
}

bool request_connect_wire(request_client& client, const std::string& path,
                          const std::string& service) {
    return wire_connect(client.wire, path) && wire_open(client.wire, service);
}

void request_disconnect(request_client& client) {
    msgclient_close(client.library);
    client.library = nullptr;
    wire_close(client.wire);
}

std::string request_begin(uint16_t type) {
    std::string payload(16, '\0');
    std::memcpy(payload.data(), &type, sizeof type);
    return payload;
}

void request_i32(std::string& payload, int32_t value) {
    payload.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void request_u64(std::string& payload, uint64_t value) {
    payload.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void request_text(std::string& payload, const std::string& text) {
    request_i32(payload, static_cast<int32_t>(text.size()));
    payload += text;
}

std::string request_name(uint16_t type, const std::string& name, int8_t length) {
    std::string payload = request_begin(type);
    payload.append(reinterpret_cast<const char*>(&length), 1);
    payload.append(3, '\0');
    return payload + name;
}

request_reply request_send(request_client& client, const std::string& payload) {
    request_reply reply;
    if (client.library != nullptr) {
        reply = send_library(client.library, payload);
    } else {
        const wire_reply raw = wire_putget(client.wire, payload, 16 << 20);
        reply.status = raw.came ? raw.status : -1;
        reply.body = raw.data;
    }
    if (reply.status == 0 && reply.body.size() >= sizeof reply.result) {
        std::memcpy(&reply.result, reply.body.data(), sizeof reply.result);
        reply.body.erase(0, sizeof reply.result);
    }
    return reply;
}

int32_t request_open(request_client& client, const std::string& player) {
    const int8_t length = static_cast<int8_t>(player.size());
    return request_send(client, request_name(LYR_MSG_OPEN, player, length)).result;
}

int32_t request_close(request_client& client, const std::string& player) {
    const int8_t length = static_cast<int8_t>(player.size());
    return request_send(client, request_name(LYR_MSG_CLOSE, player, length)).result;
}

int32_t request_simple(request_client& client, uint16_t type) {
    return request_send(client, request_begin(type)).result;
}

int32_t request_number(request_client& client, uint16_t type, int32_t value) {
    return request_send(client, packed(type, value)).result;
}

int32_t request_speed(request_client& client, float rate) {
    return request_number(client, LYR_MSG_SET_SPEED, std::bit_cast<int32_t>(rate));
}

std::vector<request_source> request_sources(request_client& client) {
    const request_reply reply = request_send(client, request_begin(LYR_MSG_GET_MEDIA_SOURCE));
    return reply.result != 0 ? std::vector<request_source>() : read_list(reply.body, read_source);
}

lyr_state_reply request_state(request_client& client) {
    lyr_state_reply state = {0, -1, -1, -1, 0};
    state.result = ask(client, request_begin(LYR_MSG_GET_CURRENT_STATE), [&](field_reader& reader) {
        state.shuffle_mode = read<int32_t>(reader);
        state.repeat_mode = read<int32_t>(reader);
        state.status = read<int32_t>(reader);
        state.playback_rate = read<float>(reader);
    });
    return state;
}

int32_t request_create(request_client& client, int32_t ms_id, const std::string& folder,
                       int32_t expected, int32_t start_index, uint64_t* ts_id) {
    return ask(client, packed(LYR_MSG_CREATE_TRKSESSION, ms_id, expected, start_index, folder),
               [&](field_reader& reader) { *ts_id = read<uint64_t>(reader); });
}

int32_t request_destroy(request_client& client, uint64_t ts_id) {
    return request_send(client, packed(LYR_MSG_DESTROY_TRKSESSION, ts_id)).result;
}

int32_t request_session(request_client& client, uint64_t* ts_id, int32_t* length) {
    return ask(client, request_begin(LYR_MSG_GET_TRKSESSION_INFO), [&](field_reader& reader) {
        *ts_id = read<uint64_t>(reader);
        *length = read<int32_t>(reader);
        read<int32_t>(reader);
    });
}

int32_t request_position(request_client& client, int32_t* position) {
    return ask(client, request_begin(LYR_MSG_GET_CURRENT_TRACK_POSITION),
               [&](field_reader& reader) { *position = read<int32_t>(reader); });
}

request_track request_current(request_client& client) {
    const request_reply reply = request_send(client, request_begin(LYR_MSG_GET_CURRENT_TRACK_INFO));
    request_track track;
    track.result = reply.result;
    if (reply.body.empty()) {
        return track;
    }
    field_reader reader = {reply.body};
    track.index = read<int32_t>(reader);
    track.ts_id = read<uint64_t>(reader);
    const int32_t node_size = read<int32_t>(reader);
    const int32_t data_size = read<int32_t>(reader);
    const size_t start = reader.at;
    if (node_size > 0) {
        track.node = read_node(reader);
    }
    EXPECT_EQ(reader.at - start, static_cast<size_t>(node_size));
    if (data_size > 0) {
        track.data = read_metadata(reader);
    }
    EXPECT_EQ(reader.at - start, static_cast<size_t>(node_size + data_size));
    check_end(reader);
    return track;
}

request_track request_current_settled(request_client& client) {
    (void)request_current(client);
    return request_current(client);
}

int32_t request_browse(request_client& client, int32_t ms_id, const std::string& folder,
                       int32_t offset, int32_t limit, std::vector<request_node>& nodes) {
    return ask_nodes(client, packed(LYR_MSG_BROWSE, ms_id, offset, limit, folder), nodes);
}

int32_t request_search(request_client& client, int32_t ms_id, const std::string& filter,
                       const std::string& text, int32_t offset, int32_t limit,
                       std::vector<request_node>& nodes) {
    return ask_nodes(client, packed(LYR_MSG_SEARCH, ms_id, offset, limit, filter, text), nodes);
}

int32_t request_tracks(request_client& client, uint64_t ts_id, int32_t offset, int32_t limit,
                       std::vector<request_node>& nodes) {
    return ask_nodes(client, packed(LYR_MSG_GET_TRKSESSION_TRACKS, ts_id, offset, limit), nodes);
}

int32_t request_metadata_of(request_client& client, int32_t ms_id, const std::string& node,
                            request_metadata& data) {
    const request_reply reply = request_send(client, packed(LYR_MSG_GET_METADATA, ms_id, node));
    data = {};
    if (!reply.body.empty()) {
        field_reader reader = {reply.body};
        data = read_metadata(reader);
        check_end(reader);
    }
    return reply.result;
}

int32_t request_extended(request_client& client, int32_t ms_id, const std::string& node,
                         const std::vector<std::string>& keys, std::vector<std::string>& values) {
    std::string payload =
        packed(LYR_MSG_GET_EXTENDED_METADATA, ms_id, node, static_cast<int32_t>(keys.size()));
    for (const std::string& key : keys) {
        request_text(payload, key);
    }
    values.clear();
    return ask(client, payload, [&](field_reader& reader) {
        while (values.size() < keys.size()) {
            values.push_back(read_text(reader));
        }
    });
}

std::string request_ids(const std::vector<request_node>& nodes) {
    std::string text;
    for (const request_node& node : nodes) {
        text += node.id + ' ';
    }
    return text;
}
