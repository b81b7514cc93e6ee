#include "reply_check.h"

#include <cerrno>

#include <lyrane/client.h>

#include "input.h"
#include "recode.h"

namespace {

constexpr size_t HEADER = 16; /* of a request */

int32_t i32_at(const std::string& bytes, size_t at) {
    int32_t value = 0;
    require(at + sizeof value <= bytes.size(), "a reply has all its fields");
    memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

/* A count and that many records. */
void require_list(record_kind kind, const std::string& fields) {
    require_records(kind, fields.substr(sizeof(int32_t)), i32_at(fields, 0));
}

void require_track(const std::string& fields) {
    constexpr size_t head = 20;
    const int32_t n = i32_at(fields, 12);
    const int32_t m = i32_at(fields, 16);
    require(n > 0 && m >= 0 &&
                head + static_cast<size_t>(n) + static_cast<size_t>(m) == fields.size(),
            "the sizes of node and metadata");
    require_records(record_kind::media_node, fields.substr(head, static_cast<size_t>(n)), 1);
    require_records(record_kind::node_metadata, fields.substr(head + static_cast<size_t>(n)),
                    m > 0 ? 1 : 0);
}

/* One value for each key that was asked for. */
void require_values(const std::string& request, const std::string& fields) {
    const int32_t id_length = i32_at(request, HEADER + 4);
    const int32_t keys = i32_at(request, HEADER + 8 + static_cast<size_t>(id_length));
    size_t at = 0;
    for (int32_t i = 0; i < keys; ++i) {
        const auto length = static_cast<size_t>(i32_at(fields, at));
        require(length <= fields.size() - at - sizeof(int32_t), "a value is there");
        at += sizeof(int32_t) + length;
    }
    require(at == fields.size(), "nothing stands behind the values");
}

/* What follows a result of success; of the current track, any result. */
void require_fields(const std::string& request, uint16_t type, const std::string& fields) {
    switch (type) {
    case LYR_MSG_GET_MEDIA_SOURCE:
        require_list(record_kind::media_source, fields);
        break;
    case LYR_MSG_GET_CURRENT_STATE:
        /* A plug-in may report any numbers as its modes. */
        require(fields.size() == sizeof(lyr_state_reply) - sizeof(int32_t), "a state");
        break;
    case LYR_MSG_GET_TRKSESSION_INFO:
        require(fields.size() == 16 && i32_at(fields, 8) >= 0 && i32_at(fields, 12) == 0,
                "a session with its padding");
        break;
    case LYR_MSG_GET_CURRENT_TRACK_INFO:
        require_track(fields);
        break;
    case LYR_MSG_GET_CURRENT_TRACK_POSITION:
        require(fields.size() == sizeof(int32_t), "a position");
        break;
    case LYR_MSG_BROWSE:
    case LYR_MSG_SEARCH:
    case LYR_MSG_GET_TRKSESSION_TRACKS:
        require_list(record_kind::media_node, fields);
        break;
    case LYR_MSG_GET_METADATA:
        require_records(record_kind::node_metadata, fields, fields.empty() ? 0 : 1);
        break;
    case LYR_MSG_GET_EXTENDED_METADATA:
        require_values(request, fields);
        break;
    case LYR_MSG_CREATE_TRKSESSION:
        require(fields.size() == sizeof(uint64_t), "the id of a session");
        break;
    default:
        require(fields.empty(), "a result alone");
    }
}

} // namespace

void require_reply(const std::string& request, const rig_reply& reply) {
    uint16_t type = 0;
    if (request.size() < sizeof type) {
        require(reply.status == 0 && reply.body.size() == sizeof(int32_t) &&
                    i32_at(reply.body, 0) == -1,
                "a request without a type is refused");
        return;
    }
    memcpy(&type, request.data(), sizeof type);
    if (type > LYR_MSG_REPEAT || type == LYR_MSG_CREATE_TRKSESSIONV) {
        require(reply.status == (type > LYR_MSG_REPEAT ? ENOMSG : ENOTSUP) && reply.body.empty(),
                "a request that is not served has a status alone");
        return;
    }
    require(reply.status == 0, "a request that is served has no status");
    const int32_t result = i32_at(reply.body, 0);
    const std::string fields = reply.body.substr(sizeof result);
    const bool may_have_both = type == LYR_MSG_GET_CURRENT_TRACK_INFO && !fields.empty();
    if (result == 0 || may_have_both) {
        require_fields(request, type, fields);
    } else {
        require(fields.empty(), "a failure has nothing behind the result");
    }
}
