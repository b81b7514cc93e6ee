#include "session.h"

#include "interrupt.h"

namespace {

constexpr int32_t PAGE = 500; /* children asked for at once */

bool may_hold_track(const request_node& node) {
    return node.type == LYR_NODE_FOLDER || node.type == LYR_NODE_AUDIO ||
           node.type == LYR_NODE_VIDEO;
}

bool make_at(connection* to, int32_t source, const std::string& folder, int32_t expected,
             int32_t start, request_session* session) {
    uint64_t id = 0;
    if (!request_make_session(to, source, folder, expected, start, &id) ||
        !request_get_session(to, session)) {
        return false;
    }
    if (session->length == 0) {
        to->why = "there is no track in this folder";
    }
    return session->length > 0;
}

/* The service looks for the first track in the child where the session starts, and nowhere else:
 * a child that is an empty folder gives an empty session, whatever else the folder holds. So the
 * children are tried in order until one has a track. */
bool make_at_first(connection* to, int32_t source, const std::string& folder, int32_t expected,
                   request_session* session) {
    std::string why = "there is no track in this folder";
    int32_t offset = 0;
    for (;;) {
        std::vector<request_node> children;
        if (!request_children(to, source, folder, offset, PAGE, &children)) {
            return false;
        }
        for (const request_node& child : children) {
            if (interrupt_pending()) {
                to->why = "interrupted";
                return false;
            }
            if (may_hold_track(child)) {
                if (make_at(to, source, folder, expected, offset, session)) {
                    return true;
                }
                why = to->why;
            }
            offset++;
        }
        if (children.empty()) {
            to->why = why;
            return false;
        }
    }
}

} // namespace

bool session_make(connection* to, int32_t source, const std::string& folder, int32_t expected,
                  int32_t start, request_session* session) {
    if (start == SESSION_START_FIRST) {
        return make_at_first(to, source, folder, expected, session);
    }
    return make_at(to, source, folder, expected, start, session);
}
