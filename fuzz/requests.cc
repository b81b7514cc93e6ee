/* The request dispatch with live players behind it: two connections share players whose media the
 * scripted plug-in serves, misbehaving when the input says so. Every request has one reply, of the
 * layout that belongs to it; after each input nothing is left.
 *
 * An input: a byte of settings, then steps. The first byte of a step says what it is: bits 0 to 4
 * a request number, bit 5 the connection or the plug-in, bits 6 and 7 the form: 0 fields as they
 * are, 1 fields made from a byte or two each, 2 a payload as it is, 3 something that is no request.
 */
#include <cmath>
#include <iterator>

#include <lyrane/client.h>

#include "input.h"
#include "reply_check.h"

namespace {

constexpr int STEPS = 60;

uint64_t last_session; /* the track session that a reply named last */
bool has_player[RIG_CONNECTIONS];

void add(std::string* payload, const void* value, size_t size) {
    payload->append(static_cast<const char*>(value), size);
}

/* --- Requests whose fields are well-formed -----------------------------------------------------
 */

/* The places in the tables below are part of the inputs that are kept: new entries go to the end.
 *
 * Of each request: i number, s media source, t text, k keys, o name, q session, r rate. */
constexpr const char* FIELDS[LYR_MSG_REPEAT + 1] = {
    "o", "o", "", "", "", "",  "", "siit", "siitt", "qii", "st", "stk", "siit",
    "",  "q", "", "", "", "i", "", "",     "i",     "r",   "i",  "i"};

constexpr const char* TEXTS[] = {
    "/",     "/a", "/a/1.mp3", "/a/b", "/a/film",  "/many",        "/many/t5", "/deep", "/empty",
    "/gone", "",   "/a/other", "key",  "\xFF\xFE", "/odd\xFF\x01", "mp3",      "t",     "/z"};
constexpr const char* NAMES[] = {"a",  "A",   "radio", "RADIO",       "b \xFF",
                                 "..", "a/b", "",      "x?nopersist", "c"};

int32_t number(fuzz_input* input) {
    static constexpr int32_t edges[] = {-1, -2, INT32_MAX, INT32_MAX - 1, INT32_MIN, 65536, 1000};
    const int byte = input_u8(input);
    return byte < 240 ? byte / 2 : edges[static_cast<size_t>(byte) % std::size(edges)];
}

float rate(fuzz_input* input) {
    static const float edges[] = {0, -1, 1, 2, 3.4e38F, 1e-40F, HUGE_VALF, -HUGE_VALF, NAN};
    return edges[input_u8(input) % std::size(edges)];
}

std::string text(fuzz_input* input) {
    const size_t byte = input_u8(input);
    return byte < 128 ? TEXTS[byte % std::size(TEXTS)] : input_bytes(input, byte & 31);
}

void add_text(std::string* payload, const std::string& value) {
    const auto length = static_cast<uint32_t>(value.size());
    add(payload, &length, sizeof length);
    payload->append(value);
}

void add_name(std::string* payload, fuzz_input* input) {
    const size_t byte = input_u8(input);
    const std::string name =
        byte < 128 ? NAMES[byte % std::size(NAMES)] : input_bytes(input, byte & 63);
    payload->push_back(static_cast<char>(name.size()));
    payload->append(3, '\0');
    payload->append(name);
}

void add_keys(std::string* payload, fuzz_input* input) {
    const uint32_t count = input_u8(input) % 4;
    add(payload, &count, sizeof count);
    for (uint32_t i = 0; i < count; ++i) {
        add_text(payload, text(input));
    }
}

void add_field(std::string* payload, char kind, fuzz_input* input) {
    if (kind == 'i' || kind == 's') {
        const int32_t value = kind == 'i' ? number(input) : input_u8(input) % (RIG_SOURCES + 1);
        add(payload, &value, sizeof value);
    } else if (kind == 'q') {
        const uint64_t value = last_session + input_u8(input) % 2;
        add(payload, &value, sizeof value);
    } else if (kind == 'r') {
        const float value = rate(input);
        add(payload, &value, sizeof value);
    } else if (kind == 't') {
        add_text(payload, text(input));
    } else if (kind == 'k') {
        add_keys(payload, input);
    } else {
        add_name(payload, input);
    }
}

std::string header_of(uint16_t type) {
    std::string payload;
    add(&payload, &type, sizeof type);
    payload.append(sizeof(lyr_request) - sizeof type, '\0');
    return payload;
}

std::string well_formed(uint16_t type, fuzz_input* input) {
    std::string payload = header_of(type);
    const char* kinds = type <= LYR_MSG_REPEAT ? FIELDS[type] : "";
    for (const char* kind = kinds; *kind != '\0'; ++kind) {
        add_field(&payload, *kind, input);
    }
    return payload;
}

std::string as_it_is(uint16_t type, fuzz_input* input, bool with_header) {
    size_t length = input_u8(input);
    if (length == 0xFF) {
        length = input_u16(input);
    }
    return (with_header ? header_of(type) : std::string()) + input_bytes(input, length);
}

/* --- What happens beside the requests ----------------------------------------------------------
 */

/* Commands for the plug-in; # stands for a number of the input. */
constexpr const char* HAPPENINGS[] = {
    "event finished",
    "event position value=#",
    "event changed",
    "event changed node=/a/2.mp3",
    "event changed node=/gone",
    "event error value=#",
    "event browse_error value=#",
    "event state status=#",
    "event state shuffle=#",
    "event state repeat=1",
    "event state repeat=2 shuffle=1",
    "event state rate=#",
    "event finished session=0x# data=0x#",
    "event disconnected uid=u0",
    "event disconnected uid=u2",
    "event connected uid=u0",
    "event connected uid=u2",
    "event status uid=u0 value=#",
    "event caps uid=u0 value=#",
    "event disconnected id=#",
    "device on",
    "device off",
    "unrule",
    "rule attach result=-1 times=#",
    "rule attach id=/a/2.mp3 result=-1",
    "rule play result=# times=1",
    "rule stop result=-1 times=1",
    "rule pause result=# times=1",
    "rule seek result=# times=1",
    "rule rate result=-1 times=1",
    "rule shuffle result=-1 times=1",
    "rule next result=# times=2",
    "rule play.create null=1 times=1",
    "rule browse.create null=1 times=1",
    "rule browse result=-1 times=1 skip=#",
    "rule browse page=1",
    "rule browse page=7",
    "rule browse over=#",
    "rule browse count=# times=1",
    "rule browse nullid=1 times=2",
    "rule browse rewind=1 times=3",
    "rule search result=# times=1",
    "rule search count=# times=1",
    "rule search over=# times=1",
    "rule metadata result=# times=1",
    "rule extended result=# times=1",
    "rule attach inside=\"finished\" times=1",
    "rule play after=\"error value=1\" times=1",
    "rule browse inside=\"disconnected uid=u0\" times=1",
    "null browse",
    "null metadata",
    "null play",
    "null attach",
    "null play_api",
    "null browse_api",
};

void happen(fuzz_input* input, int plugin) {
    const char* format = HAPPENINGS[input_u8(input) % std::size(HAPPENINGS)];
    std::string command;
    for (const char* c = format; *c != '\0'; ++c) {
        command += *c == '#' ? std::to_string(number(input)) : std::string(1, *c);
    }
    rig_command(plugin, command);
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
        happen(input, connection);
        return;
    }
    /* Otherwise a request again, whose session is built while the next ones are served. */
    const std::string payload =
        form == 0   ? as_it_is(type, input, true)
        : form == 2 ? as_it_is(type, input, false)
                    : well_formed(form == 3 ? LYR_MSG_CREATE_TRKSESSION : type, input);
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
    last_session = 0;
    std::fill(std::begin(has_player), std::end(has_player), false);
    for (int i = 0; i < STEPS && input.left > 0; ++i) {
        step(&input);
    }
    rig_end();
    return 0;
}
