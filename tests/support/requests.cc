#include "requests.h"

#include <cstring>

#include <gtest/gtest.h>

namespace {

/* Reads packed fields; past the end everything is 0 and `whole` false. */
struct field_reader {
    const std::string& bytes;
    size_t at = 0;
    bool whole = true;
};

void read_bytes(field_reader& reader, void* value, size_t size) {
    std::memset(value, 0, size);
    if (reader.bytes.size() - reader.at < size) {
        reader.whole = false;
        return;
    }
    std::memcpy(value, reader.bytes.data() + reader.at, size);
    reader.at += size;
}

int32_t read_i32(field_reader& reader) {
    int32_t value = 0;
    read_bytes(reader, &value, sizeof value);
    return value;
}

uint64_t read_u64(field_reader& reader) {
    uint64_t value = 0;
    read_bytes(reader, &value, sizeof value);
    return value;
}

std::string read_text(field_reader& reader) {
    const int32_t length = read_i32(reader);
    if (length <= 0 || reader.bytes.size() - reader.at < static_cast<size_t>(length)) {
        reader.whole = reader.whole && length <= 0;
        return "";
    }
    reader.at += static_cast<size_t>(length);
    return reader.bytes.substr(reader.at - static_cast<size_t>(length),
                               static_cast<size_t>(length));
}

request_node read_node(field_reader& reader) {
    request_node node;
    node.type = read_i32(reader);
    node.count = read_i32(reader);
    node.ms_id = read_i32(reader);
    node.ms_type = read_i32(reader);
    node.id = read_text(reader);
    node.name = read_text(reader);
    return node;
}

request_metadata read_metadata(field_reader& reader) {
    request_metadata data;
    data.present = true;
    data.duration = read_i32(reader);
    for (int i = 0; i < 4; ++i) {
        read_i32(reader);
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

int32_t nodes_of(const request_reply& reply, std::vector<request_node>& nodes) {
    nodes.clear();
    if (reply.result != 0) {
        return reply.result;
    }
    field_reader reader = {reply.body};
    const int32_t count = read_i32(reader);
    for (int32_t i = 0; i < count && reader.whole; ++i) {
        nodes.push_back(read_node(reader));
    }
    check_end(reader);
    return 0;
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
    std::string payload = request_begin(type);
    request_i32(payload, value);
    return request_send(client, payload).result;
}

int32_t request_speed(request_client& client, float rate) {
    int32_t bits = 0;
    std::memcpy(&bits, &rate, sizeof bits);
    return request_number(client, LYR_MSG_SET_SPEED, bits);
}

std::vector<request_source> request_sources(request_client& client) {
    const request_reply reply = request_send(client, request_begin(LYR_MSG_GET_MEDIA_SOURCE));
    std::vector<request_source> sources;
    if (reply.status != 0) {
        return sources;
    }
    field_reader reader = {reply.body};
    const int32_t count = read_i32(reader);
    for (int32_t i = 0; i < count && reader.whole; ++i) {
        request_source& source = sources.emplace_back();
        source.id = read_i32(reader);
        source.type = read_i32(reader);
        source.status = read_i32(reader);
        source.capabilities = read_u64(reader);
        source.uid = read_text(reader);
        source.name = read_text(reader);
        source.view_name = read_text(reader);
    }
    check_end(reader);
    return sources;
}

lyr_state_reply request_state(request_client& client) {
    const request_reply reply = request_send(client, request_begin(LYR_MSG_GET_CURRENT_STATE));
    lyr_state_reply state = {reply.result, -1, -1, -1, 0};
    if (reply.result == 0) {
        field_reader reader = {reply.body};
        state.shuffle_mode = read_i32(reader);
        state.repeat_mode = read_i32(reader);
        state.status = read_i32(reader);
        read_bytes(reader, &state.playback_rate, sizeof state.playback_rate);
        check_end(reader);
    }
    return state;
}

int32_t request_create(request_client& client, int32_t ms_id, const std::string& folder,
                       int32_t expected, int32_t start_index, uint64_t* ts_id) {
    std::string payload = request_begin(LYR_MSG_CREATE_TRKSESSION);
    request_i32(payload, ms_id);
    request_i32(payload, expected);
    request_i32(payload, start_index);
    request_text(payload, folder);
    const request_reply reply = request_send(client, payload);
    if (reply.result == 0) {
        field_reader reader = {reply.body};
        *ts_id = read_u64(reader);
        check_end(reader);
    }
    return reply.result;
}

int32_t request_destroy(request_client& client, uint64_t ts_id) {
    std::string payload = request_begin(LYR_MSG_DESTROY_TRKSESSION);
    request_u64(payload, ts_id);
    return request_send(client, payload).result;
}

int32_t request_session(request_client& client, uint64_t* ts_id, int32_t* length) {
    const request_reply reply = request_send(client, request_begin(LYR_MSG_GET_TRKSESSION_INFO));
    if (reply.result == 0) {
        field_reader reader = {reply.body};
        *ts_id = read_u64(reader);
        *length = read_i32(reader);
        read_i32(reader);
        check_end(reader);
    }
    return reply.result;
}

int32_t request_position(request_client& client, int32_t* position) {
    const request_reply reply =
        request_send(client, request_begin(LYR_MSG_GET_CURRENT_TRACK_POSITION));
    if (reply.result == 0) {
        field_reader reader = {reply.body};
        *position = read_i32(reader);
        check_end(reader);
    }
    return reply.result;
}

request_track request_current(request_client& client) {
    const request_reply reply = request_send(client, request_begin(LYR_MSG_GET_CURRENT_TRACK_INFO));
    request_track track;
    track.result = reply.result;
    if (reply.body.empty()) {
        return track;
    }
    field_reader reader = {reply.body};
    track.index = read_i32(reader);
    track.ts_id = read_u64(reader);
    const int32_t node_size = read_i32(reader);
    const int32_t data_size = read_i32(reader);
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
    std::string payload = request_begin(LYR_MSG_BROWSE);
    request_i32(payload, ms_id);
    request_i32(payload, offset);
    request_i32(payload, limit);
    request_text(payload, folder);
    return nodes_of(request_send(client, payload), nodes);
}

int32_t request_search(request_client& client, int32_t ms_id, const std::string& filter,
                       const std::string& text, int32_t offset, int32_t limit,
                       std::vector<request_node>& nodes) {
    std::string payload = request_begin(LYR_MSG_SEARCH);
    request_i32(payload, ms_id);
    request_i32(payload, offset);
    request_i32(payload, limit);
    request_text(payload, filter);
    request_text(payload, text);
    return nodes_of(request_send(client, payload), nodes);
}

int32_t request_tracks(request_client& client, uint64_t ts_id, int32_t offset, int32_t limit,
                       std::vector<request_node>& nodes) {
    std::string payload = request_begin(LYR_MSG_GET_TRKSESSION_TRACKS);
    request_u64(payload, ts_id);
    request_i32(payload, offset);
    request_i32(payload, limit);
    return nodes_of(request_send(client, payload), nodes);
}

int32_t request_metadata_of(request_client& client, int32_t ms_id, const std::string& node,
                            request_metadata& data) {
    std::string payload = request_begin(LYR_MSG_GET_METADATA);
    request_i32(payload, ms_id);
    request_text(payload, node);
    const request_reply reply = request_send(client, payload);
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
    std::string payload = request_begin(LYR_MSG_GET_EXTENDED_METADATA);
    request_i32(payload, ms_id);
    request_text(payload, node);
    request_i32(payload, static_cast<int32_t>(keys.size()));
    for (const std::string& key : keys) {
        request_text(payload, key);
    }
    const request_reply reply = request_send(client, payload);
    values.clear();
    field_reader reader = {reply.body};
    for (size_t i = 0; reply.result == 0 && i < keys.size(); ++i) {
        values.push_back(read_text(reader));
    }
    check_end(reader);
    return reply.result;
}

std::string request_ids(const std::vector<request_node>& nodes) {
    std::string text;
    for (const request_node& node : nodes) {
        text += node.id + ' ';
    }
    return text;
}
