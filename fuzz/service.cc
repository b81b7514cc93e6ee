/* A whole service: clients over its socket, the scripted plug-in, the arbiter of the audio focus,
 * the clock. After each step all threads rest, so an input does the same each time; what is
 * published must be what is answered, and at the end nothing may be left.
 *
 * An input: a byte of settings, one of the arbiter, then steps: a byte with the client (bits 0 and
 * 1) and what happens (the others), and what that needs. */
#include <iterator>

#include <lyrane/client.h>

#include "control.h"
#include "focus.h"
#include "player.h"
#include "player_registry.h"
#include "published.h"
#include "script.h"
#include "service_rig.h"
#include "wire.h"

namespace {

constexpr int STEPS = 40;
constexpr int32_t CAPACITY = 65536;

uint64_t last_session;             /* the track session that a reply named last */
std::string players[WIRE_CLIENTS]; /* that each client has open; empty: none */
bool told[WIRE_CLIENTS];           /* its replies may be older than what is published */
bool unsure[WIRE_CLIENTS]; /* its player was opened or closed by a request whose reply waits */
bool plugin_is_plain;      /* nothing has told the plug-in to misbehave */

void take_reply(int client, const std::string& request, const rig_reply& reply) {
    uint16_t type = UINT16_MAX;
    int32_t result = -1;
    memcpy(&type, request.data(), std::min(request.size(), sizeof type));
    memcpy(&result, reply.body.data(), std::min(reply.body.size(), sizeof result));
    if (type == LYR_MSG_OPEN && request.size() >= sizeof(lyr_request) + 4) {
        players[client] = result == 0 ? request.c_str() + sizeof(lyr_request) + 4 : "";
    } else if (type == LYR_MSG_CLOSE && result == 0) {
        players[client].clear();
    } else if ((type == LYR_MSG_CREATE_TRKSESSION || type == LYR_MSG_GET_TRKSESSION_INFO) &&
               reply.body.size() >= sizeof(int32_t) + sizeof last_session) {
        memcpy(&last_session, reply.body.data() + sizeof(int32_t), sizeof last_session);
    }
    /* A track that the plug-in refuses is the current one without being shown. */
    const bool is_shown = plugin_is_plain || type != LYR_MSG_GET_CURRENT_TRACK_INFO;
    if (!told[client] && !unsure[client] && !players[client].empty() && is_shown) {
        require_agreement(players[client], type, reply);
    }
}

/* The client's connection is another one from now on. */
void forget(int client) {
    players[client].clear();
    unsure[client] = false;
}

/* Until nothing moves: what the arbiter says moves the plug-in, and the other way round. */
void rest(void) {
    wire_serve();
    for (int i = 0; i < 2; ++i) {
        rig_await_builds();
        focus_rest();
        rig_calm(1);
        if (!plugin_is_plain) {
            rig_calm(0);
        }
    }
    focus_rest();
}

std::string create_session(int source, const char* node) {
    std::string request = script_header(LYR_MSG_CREATE_TRKSESSION);
    const int32_t numbers[] = {source, -1, 0};
    const auto length = static_cast<uint32_t>(strlen(node));
    request.append(reinterpret_cast<const char*>(numbers), sizeof numbers);
    request.append(reinterpret_cast<const char*>(&length), sizeof length);
    return request + node;
}

/* What most clients do first. */
void begin_to_play(int client, unsigned choice) {
    static constexpr const char* NODES[] = {"/a", "/many", "/deep", "/"};
    static constexpr const char* NAMES[] = {"a", "b", "c", "radio"};
    wire_request(client, script_named(LYR_MSG_OPEN, NAMES[choice & 3]), CAPACITY, false);
    wire_request(client, create_session((choice & 16) != 0 ? 2 : 0, NODES[choice >> 2 & 3]),
                 CAPACITY, false);
    rest();
    wire_request(client, script_header(LYR_MSG_PLAY), CAPACITY, false);
}

void tell_plugin(int plugin, const std::string& command) {
    plugin_is_plain = false;
    (void)rig_command(plugin, command);
}

void ask_arbiter(fuzz_input* input) {
    static constexpr const char* REQUESTS[] = {R"({"command":"take","name":"phone"})",
                                               R"({"command":"give-back","name":"phone"})",
                                               R"({"command":"take","name":"x","kind":"general"})",
                                               R"({"command":"give-back","name":"x"})"};
    static constexpr const char* ORDERS[] = {"play", "pause", "next", "prev"};
    const unsigned choice = input_u8(input);
    if ((choice & 1) == 0) {
        focus_ask(REQUESTS[choice >> 1 & 3]);
    } else {
        focus_ask(std::string(R"({"command":")") + ORDERS[choice >> 1 & 3] + R"(","name":"#)" +
                  std::to_string((choice >> 3 & 7) + 1) + "\"}");
    }
}

/* One player sounds at a time, where an arbiter that is understood says who, and all that play have
 * asked it. */
void require_one_sounds(void) {
    int playing = 0;
    for (int32_t i = 0; i < mmcontrol.players.count; ++i) {
        const auto* one = static_cast<const player*>(mmcontrol.players.items[i]);
        playing += one->status == LYR_STATUS_PLAYING ? 1 : 0;
    }
    require(playing <= 1, "one player sounds");
}

void require_truth(void) {
    for (int i = 0; i < WIRE_CLIENTS; ++i) {
        if (players[i].empty()) {
            continue;
        }
        for (const uint16_t type : {LYR_MSG_GET_CURRENT_STATE, LYR_MSG_GET_TRKSESSION_INFO,
                                    LYR_MSG_GET_CURRENT_TRACK_INFO}) {
            wire_request(i, script_header(type), CAPACITY, false);
        }
    }
    for (int32_t i = 0; i < mmcontrol.players.count; ++i) {
        require_objects(static_cast<const player*>(mmcontrol.players.items[i])->name);
    }
    if (plugin_is_plain && focus_is_orderly()) {
        require_one_sounds();
    }
}

void send_request(fuzz_input* input, int client, unsigned what) {
    const auto type = static_cast<uint16_t>(input_u8(input) % (LYR_MSG_REPEAT + 1));
    const std::string request = script_request(input, type, last_session);
    const bool later = what == 2;
    told[client] = told[client] || later;
    unsure[client] = unsure[client] || (what > 2 && type <= LYR_MSG_CLOSE);
    if (what == 3) {
        wire_put(client, input_u8(input) % 4, request, false);
    } else {
        wire_request(client, request, what == 4 ? input_u8(input) : CAPACITY, later);
    }
}

void step(fuzz_input* input) {
    const unsigned op = input_u8(input);
    const int client = static_cast<int>(op & 3);
    const unsigned what = (op >> 2) % 18;
    switch (what) {
    case 5:
        told[client] = true; /* what is fetched may have changed since */
        wire_get(client, input_u8(input) % 4, input_u8(input) % 2 != 0 ? CAPACITY : 8);
        break;
    case 6:
        wire_notify(client, input_u8(input));
        break;
    case 7:
        begin_to_play(client, input_u8(input));
        break;
    case 8:
        wire_close(client);
        forget(client);
        break;
    case 9:
        wire_leave(client);
        forget(client);
        break;
    case 10:
    case 11:
        tell_plugin(client & 1, script_happening(input));
        break;
    case 12:
        ask_arbiter(input);
        break;
    case 13:
        focus_say(input_u8(input), input_bytes(input, input_u8(input)));
        break;
    case 14:
        focus_go();
        break;
    case 15:
        focus_come();
        focus_tick();
        break;
    case 16:
        focus_mute();
        break;
    case 17:
        require_truth();
        break;
    default:
        send_request(input, client, what);
    }
    if (what != 2) {
        std::fill(std::begin(told), std::end(told), false);
        rest();
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    rig_start();
    wire_start(take_reply);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input = {data, size};
    rig_begin(input_u8(&input));
    const unsigned policy = input_u8(&input);
    focus_begin((policy & 8) == 0, policy);
    last_session = 0;
    plugin_is_plain = true;
    for (int i = 0; i < STEPS && input.left > 0; ++i) {
        step(&input);
    }
    rest();
    require_truth();
    wire_end();
    for (int i = 0; i < WIRE_CLIENTS; ++i) {
        forget(i);
    }
    (void)players_force_close(&mmcontrol);
    focus_end();
    rig_end();
    return 0;
}
