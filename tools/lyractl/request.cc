#include "request.h"

#include <cstring>

#include <veloran/lock.h>

namespace {

constexpr const char* NO_SENSE = "the service gave an answer that makes no sense";

std::string text_of(const char* text) {
    return text == nullptr ? std::string() : std::string(text);
}

/* Reads a value at an offset of the reply's body; false when the body ends before it does. */
bool read_value(const connection_reply& reply, size_t offset, void* value, size_t size) {
    if (offset + size > reply.body.size()) {
        return false;
    }
    std::memcpy(value, reply.body.data() + offset, size);
    return true;
}

bool no_sense(connection* to) {
    to->why = NO_SENSE;
    return false;
}

/* Sends, and takes every result but 0 for a failure with this reason. */
bool send_expecting_success(connection* to, uint16_t type, const std::string& fields,
                            connection_reply* reply, const char* why) {
    if (!connection_send(to, type, fields, reply)) {
        return false;
    }
    if (reply->result != 0) {
        to->why = why;
        return false;
    }
    return true;
}

request_node node_of(const lyr_ms_node& node) {
    return {text_of(node.id), text_of(node.name), node.type, node.count, node.ms_id};
}

/* Strings of one record of an array; the array is freed by its owner. */
request_source take_source(lyr_ms* record) {
    request_source source = {
        record->id,   text_of(record->uid), text_of(record->name), text_of(record->view_name),
        record->type, record->status,       record->capabilities};
    std::free(record->uid);
    std::free(record->name);
    std::free(record->view_name);
    return source;
}

bool decode_nodes(const void* bytes, size_t size, int32_t count, std::vector<request_node>* nodes) {
    lyr_ms_node* records = nullptr;
    if (unpack_media_node(bytes, static_cast<int32_t>(size), count, &records) != 0) {
        return false;
    }
    for (int32_t i = 0; i < count; i++) {
        nodes->push_back(node_of(records[i]));
    }
    free_lyr_ms_nodes(&records, count);
    return true;
}

bool decode_metadata(const void* bytes, size_t size, request_metadata* metadata) {
    lyr_ms_node_metadata* record = nullptr;
    if (unpack_metadata(bytes, static_cast<int32_t>(size), 1, &record) != 0) {
        return false;
    }
    *metadata = {text_of(record->title), text_of(record->artist),
                 text_of(record->album), text_of(record->genre),
                 text_of(record->year),  text_of(record->artwork),
                 record->duration,       record->disc,
                 record->track};
    free_lyr_ms_node_metadata(&record);
    return true;
}

} // namespace

bool request_sources(connection* to, std::vector<request_source>* sources) {
    connection_reply reply;
    if (!send_expecting_success(to, LYR_MSG_GET_MEDIA_SOURCE, {}, &reply,
                                "the service does not list its media sources")) {
        return false;
    }
    int32_t count = 0;
    if (!read_value(reply, 0, &count, sizeof count)) {
        return no_sense(to);
    }
    if (count == 0) {
        return true;
    }
    lyr_ms* records = nullptr;
    if (unpack_media_source(reply.body.data() + sizeof count,
                            static_cast<int32_t>(reply.body.size() - sizeof count), count,
                            &records) != 0) {
        return no_sense(to);
    }
    const std::unique_ptr<lyr_ms, vel_free> owner(records);
    for (int32_t i = 0; i < count; i++) {
        sources->push_back(take_source(&records[i]));
    }
    return true;
}

/* A request that answers a count and that many nodes. */
static bool ask_nodes(connection* to, uint16_t type, const std::string& fields, const char* why,
                      std::vector<request_node>* nodes) {
    connection_reply reply;
    if (!send_expecting_success(to, type, fields, &reply, why)) {
        return false;
    }
    int32_t count = 0;
    if (!read_value(reply, 0, &count, sizeof count)) {
        return no_sense(to);
    }
    const size_t size = reply.body.size() - sizeof count;
    if (count != 0 && !decode_nodes(reply.body.data() + sizeof count, size, count, nodes)) {
        return no_sense(to);
    }
    return true;
}

bool request_children(connection* to, int32_t source, const std::string& folder, int32_t offset,
                      int32_t limit, std::vector<request_node>* children) {
    std::string fields;
    pack_i32(&fields, source);
    pack_i32(&fields, offset);
    pack_i32(&fields, limit);
    pack_text(&fields, folder);
    return ask_nodes(to, LYR_MSG_BROWSE, fields, "the media source does not list this folder",
                     children);
}

bool request_search(connection* to, int32_t source, const std::string& filter,
                    const std::string& text, int32_t offset, int32_t limit,
                    std::vector<request_node>* found) {
    std::string fields;
    pack_i32(&fields, source);
    pack_i32(&fields, offset);
    pack_i32(&fields, limit);
    pack_text(&fields, filter);
    pack_text(&fields, text);
    return ask_nodes(to, LYR_MSG_SEARCH, fields, "the media source cannot be searched", found);
}

bool request_tracks(connection* to, uint64_t session, int32_t offset, int32_t limit,
                    std::vector<request_node>* tracks) {
    std::string fields;
    pack_u64(&fields, session);
    pack_i32(&fields, offset);
    pack_i32(&fields, limit);
    return ask_nodes(to, LYR_MSG_GET_TRKSESSION_TRACKS, fields,
                     "the service does not list the tracks", tracks);
}

bool request_make_session(connection* to, int32_t source, const std::string& folder,
                          int32_t expected, int32_t start, uint64_t* id) {
    std::string fields;
    pack_i32(&fields, source);
    pack_i32(&fields, expected);
    pack_i32(&fields, start);
    pack_text(&fields, folder);
    connection_reply reply;
    if (!send_expecting_success(to, LYR_MSG_CREATE_TRKSESSION, fields, &reply,
                                "the service cannot make a track session of this folder")) {
        return false;
    }
    return read_value(reply, 0, id, sizeof *id) || no_sense(to);
}

bool request_get_session(connection* to, request_session* session) {
    connection_reply reply;
    if (!connection_send(to, LYR_MSG_GET_TRKSESSION_INFO, {}, &reply)) {
        return false;
    }
    *session = {};
    if (reply.result != 0) {
        return true;
    }
    session->exists = true;
    if (!read_value(reply, 0, &session->id, sizeof session->id) ||
        !read_value(reply, sizeof session->id, &session->length, sizeof session->length)) {
        return no_sense(to);
    }
    return true;
}

bool request_state(connection* to, lyr_state_reply* state) {
    connection_reply reply;
    if (!send_expecting_success(to, LYR_MSG_GET_CURRENT_STATE, {}, &reply,
                                "the service does not tell the player's state")) {
        return false;
    }
    const size_t head = sizeof state->result;
    state->result = 0;
    auto* rest = reinterpret_cast<unsigned char*>(state) + head;
    return read_value(reply, 0, rest, sizeof *state - head) || no_sense(to);
}

bool request_position(connection* to, int32_t* position) {
    connection_reply reply;
    return send_expecting_success(to, LYR_MSG_GET_CURRENT_TRACK_POSITION, {}, &reply,
                                  "the player has no track session") &&
           (read_value(reply, 0, position, sizeof *position) || no_sense(to));
}

bool request_current(connection* to, request_track* track) {
    connection_reply reply;
    if (!connection_send(to, LYR_MSG_GET_CURRENT_TRACK_INFO, {}, &reply)) {
        return false;
    }
    /* With a failed metadata query the result says so, and the track is there all the same. */
    uint32_t sizes[2] = {};
    if (!read_value(reply, 12, sizes, sizeof sizes)) {
        to->why = "the player has no current track";
        return false;
    }
    read_value(reply, 0, &track->index, sizeof track->index);
    read_value(reply, 4, &track->session, sizeof track->session);
    const unsigned char* packed = reply.body.data() + 20;
    const size_t size = reply.body.size() - 20;
    std::vector<request_node> nodes;
    if (sizes[0] > size || sizes[1] > size - sizes[0]) {
        return no_sense(to);
    }
    if (sizes[0] == 0) {
        to->why = "the player has no current track";
        return false;
    }
    if (!decode_nodes(packed, sizes[0], 1, &nodes)) {
        return no_sense(to);
    }
    track->node = nodes[0];
    track->described =
        sizes[1] > 0 && decode_metadata(packed + sizes[0], sizes[1], &track->metadata);
    return true;
}

bool request_describe(connection* to, int32_t source, const std::string& node, bool* described,
                      request_metadata* known) {
    std::string fields;
    pack_i32(&fields, source);
    pack_text(&fields, node);
    connection_reply reply;
    if (!send_expecting_success(to, LYR_MSG_GET_METADATA, fields, &reply,
                                "the media source does not describe this")) {
        return false;
    }
    *described = !reply.body.empty();
    return !*described || decode_metadata(reply.body.data(), reply.body.size(), known) ||
           no_sense(to);
}

bool request_values(connection* to, int32_t source, const std::string& node,
                    const std::vector<std::string>& keys, std::vector<std::string>* values) {
    std::string fields;
    pack_i32(&fields, source);
    pack_text(&fields, node);
    pack_i32(&fields, static_cast<int32_t>(keys.size()));
    for (const std::string& key : keys) {
        pack_text(&fields, key);
    }
    connection_reply reply;
    if (!send_expecting_success(to, LYR_MSG_GET_EXTENDED_METADATA, fields, &reply,
                                "the media source does not tell values of this")) {
        return false;
    }
    size_t at = 0;
    while (values->size() < keys.size()) {
        uint32_t length = 0;
        if (!read_value(reply, at, &length, sizeof length) ||
            length > reply.body.size() - at - sizeof length) {
            return no_sense(to);
        }
        at += sizeof length;
        values->emplace_back(reinterpret_cast<const char*>(reply.body.data()) + at, length);
        at += length;
    }
    return true;
}

static bool command(connection* to, uint16_t type, const std::string& fields, int32_t* result) {
    connection_reply reply;
    if (!connection_send(to, type, fields, &reply)) {
        return false;
    }
    *result = reply.result;
    return true;
}

bool request_command(connection* to, uint16_t type, int32_t* result) {
    return command(to, type, {}, result);
}

bool request_number(connection* to, uint16_t type, int32_t number, int32_t* result) {
    std::string fields;
    pack_i32(&fields, number);
    return command(to, type, fields, result);
}

bool request_rate(connection* to, float rate, int32_t* result) {
    int32_t bits = 0;
    static_assert(sizeof bits == sizeof rate);
    std::memcpy(&bits, &rate, sizeof bits);
    return request_number(to, LYR_MSG_SET_SPEED, bits, result);
}

bool request_destroy(connection* to, uint64_t session, int32_t* result) {
    std::string fields;
    pack_u64(&fields, session);
    return command(to, LYR_MSG_DESTROY_TRKSESSION, fields, result);
}
