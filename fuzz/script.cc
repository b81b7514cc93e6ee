#include "script.h"

#include <cmath>
#include <iterator>

#include <lyrane/client.h>

#include "service_rig.h"

namespace {

void add(std::string* payload, const void* value, size_t size) {
    payload->append(static_cast<const char*>(value), size);
}

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

void add_name(std::string* payload, const std::string& name) {
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

void add_field(std::string* payload, char kind, fuzz_input* input, uint64_t session) {
    if (kind == 'i' || kind == 's') {
        const int32_t value = kind == 'i' ? number(input) : input_u8(input) % (RIG_SOURCES + 1);
        add(payload, &value, sizeof value);
    } else if (kind == 'q') {
        const uint64_t value = session + input_u8(input) % 2;
        add(payload, &value, sizeof value);
    } else if (kind == 'r') {
        const float value = rate(input);
        add(payload, &value, sizeof value);
    } else if (kind == 't') {
        add_text(payload, text(input));
    } else if (kind == 'k') {
        add_keys(payload, input);
    } else {
        add_name(payload, script_name(input));
    }
}

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

} // namespace

std::string script_name(fuzz_input* input) {
    const size_t byte = input_u8(input);
    return byte < 128 ? NAMES[byte % std::size(NAMES)] : input_bytes(input, byte & 63);
}

std::string script_header(uint16_t type) {
    std::string payload;
    add(&payload, &type, sizeof type);
    payload.append(sizeof(lyr_request) - sizeof type, '\0');
    return payload;
}

std::string script_request(fuzz_input* input, uint16_t type, uint64_t session) {
    std::string payload = script_header(type);
    const char* kinds = type <= LYR_MSG_REPEAT ? FIELDS[type] : "";
    for (const char* kind = kinds; *kind != '\0'; ++kind) {
        add_field(&payload, *kind, input, session);
    }
    return payload;
}

std::string script_named(uint16_t type, const std::string& name) {
    std::string payload = script_header(type);
    add_name(&payload, name);
    return payload;
}

std::string script_happening(fuzz_input* input) {
    const char* format = HAPPENINGS[input_u8(input) % std::size(HAPPENINGS)];
    std::string command;
    for (const char* c = format; *c != '\0'; ++c) {
        command += *c == '#' ? std::to_string(number(input)) : std::string(1, *c);
    }
    return command;
}
