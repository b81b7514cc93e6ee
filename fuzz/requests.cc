/* The request dispatch with live players behind it: two connections share players whose media the
 * scripted plug-in serves, misbehaving when the input says so. Every request has one reply, of the
 * layout that belongs to it; after each input nothing is left.
 *
 * An input: a byte of settings, then steps. The first byte of a step says what it is: bits 0 to 4
 * a request number, bit 5 the connection or the plug-in, bits 6 and 7 the form: 0 fields as they
 * are, 1 fields made from a byte or two each, 2 a payload as it is, 3 something that is no request.
 */
#include <iterator>

#include <lyrane/client.h>

#include "input.h"
#include "reply_check.h"
#include "script.h"
#include "service_rig.h"

namespace {

constexpr int STEPS = 60;

uint64_t last_session; /* the track session that a reply named last */
bool has_player[RIG_CONNECTIONS];

std::string as_it_is(uint16_t type, fuzz_input* input, bool with_header) {
    size_t length = input_u8(input);
    if (length == 0xFF) {
        length = input_u16(input);
    }
    return (with_header ? script_header(type) : std::string()) + input_bytes(input, length);
}

/* --- Steps -------------------------------------------------------------------------------------
 */

bool name_is_whole(const std::string& payload) {
    constexpr size_t name = sizeof(lyr_request) + 4;
    return payload.size() >= name && static_cast<signed char>(payload[name - 4]) >= 0 &&
           static_cast<size_t>(payload[name - 4]) <= payload.size() - name;
}

/* Keeps track of what later requests build on, and compares it with this reply. */
void follow(int connection, const std::string& payload, const rig_reply& reply) {
    uint16_t type = UINT16_MAX;
    int32_t result = -1;
    memcpy(&type, payload.data(), std::min(payload.size(), sizeof type));
    memcpy(&result, reply.body.data(), std::min(reply.body.size(), sizeof result));
    bool* has = &has_player[connection];
    if (type > LYR_MSG_GET_MEDIA_SOURCE && type <= LYR_MSG_REPEAT && !*has) {
        require(result == -1, "without a player there is nothing to ask");
    }
    if (type == LYR_MSG_OPEN && name_is_whole(payload)) {
        *has = result == 0; /* one that is refused lets go of the earlier player, too */
    } else if (type == LYR_MSG_CLOSE && result == 0) {
        *has = false;
    }
    if ((type == LYR_MSG_CREATE_TRKSESSION || type == LYR_MSG_GET_TRKSESSION_INFO) &&
        reply.body.size() >= sizeof(int32_t) + sizeof last_session) {
        memcpy(&last_session, reply.body.data() + sizeof(int32_t), sizeof last_session);
    }
}

void step(fuzz_input* input) {
    const unsigned op = input_u8(input);
    const unsigned form = op >> 6;
    const auto type = static_cast<uint16_t>(op & 31);
    const int connection = static_cast<int>(op >> 5 & 1);
    if (form == 3 && type == 31) {
        rig_reconnect(connection);
        has_player[connection] = false;
        return;
    }
    if (form == 3 && type < 24) {
        rig_command(connection, script_happening(input));
        return;
    }
    /* Otherwise a request again, whose session is built while the next ones are served. */
    const std::string payload =
        form == 0 ? as_it_is(type, input, true)
        : form == 2
            ? as_it_is(type, input, false)
            : script_request(input, form == 3 ? LYR_MSG_CREATE_TRKSESSION : type, last_session);
    const rig_reply reply = rig_request(connection, payload, form != 3);
    require_reply(payload, reply);
    follow(connection, payload, reply);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    rig_start();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input = {data, size};
    rig_begin(input_u8(&input));
    rig_connect();
    last_session = 0;
    std::fill(std::begin(has_player), std::end(has_player), false);
    for (int i = 0; i < STEPS && input.left > 0; ++i) {
        step(&input);
    }
    rig_end();
    return 0;
}
