// Commands that act on a player: it is opened, they act, and it is closed again.
#include "commands.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <functional>
#include <system_error>

#include <poll.h>

#include <nlohmann/json.hpp>

#include <veloran/lock.h>

#include "choose.h"
#include "enter.h"
#include "interrupt.h"
#include "output.h"
#include "text.h"

namespace {

using json = nlohmann::ordered_json;

/* The service only says that it did not work; this finds out why as far as can be seen. */
std::string refusal(connection* to, const char* verb, int32_t result) {
    const std::string player = "the player \"" + text_printable(to->player) + "\" ";
    request_session session;
    if (!request_get_session(to, &session)) {
        return to->why;
    }
    if (!session.exists) {
        return player + "has no track session; \"lyractl session\" makes one";
    }
    if (session.length == 0) {
        return player + "has an empty track session";
    }
    std::string text = player + "cannot " + verb + " now (result " + std::to_string(result) + ")";
    if (verb == std::string_view("play") && choose_arbiter_runs()) {
        text += "; perhaps another has the audio focus, see \"nowplayingd ctl status\"";
    }
    return text;
}

using player_request = std::function<bool(connection* to, int32_t* result)>;

bool act(const arguments& what, const char* verb, const player_request& request, std::string* why) {
    const connection_owner to = enter_existing(what, why);
    if (to == nullptr) {
        return false;
    }
    int32_t result = 0;
    if (!request(to.get(), &result)) {
        *why = to->why;
        return false;
    }
    if (result != 0) {
        *why = refusal(to.get(), verb, result);
        return false;
    }
    const std::string player = to->player;
    if (!connection_leave(to.get())) {
        *why = to->why;
        return false;
    }
    return !what.json || output_json({{"player", player}, {"result", result}});
}

/* A command without a number, and one with it. */
bool act_plain(const arguments& what, uint16_t type, const char* verb, std::string* why) {
    return act(
        what, verb,
        [type](connection* to, int32_t* result) { return request_command(to, type, result); }, why);
}

bool act_number(const arguments& what, uint16_t type, int32_t number, const char* verb,
                std::string* why) {
    return act(
        what, verb,
        [type, number](connection* to, int32_t* result) {
            return request_number(to, type, number, result);
        },
        why);
}

bool make_session(connection* to, const arguments& what, request_session* session) {
    int32_t source = 0;
    std::string folder;
    return choose_source_id(to, what.source, &source) &&
           choose_folder(to, source, what.folder, &folder) &&
           session_make(to, source, folder, what.expected, what.start, session);
}

/* Waits for a signal that ends us; fails when the service ends first. */
bool hold_open(connection* to, std::string* why) {
    const vel_fd signals(interrupt_descriptor());
    pollfd waiting[] = {{signals.value, POLLIN, 0}, {to->client->coid, POLLRDHUP, 0}};
    for (;;) {
        if (poll(waiting, 2, -1) < 0 && errno != EINTR) {
            *why = std::system_category().message(errno);
            return false;
        }
        if ((waiting[1].revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0) {
            *why = "the service has ended";
            connection_abandon(to);
            return false;
        }
        for (int number; (number = interrupt_take(signals.value)) != 0;) {
            if (number != SIGWINCH) {
                return true;
            }
        }
    }
}

} // namespace

bool command_play(const arguments& what, std::string* why) {
    return act_plain(what, LYR_MSG_PLAY, "play", why);
}

bool command_pause(const arguments& what, std::string* why) {
    return act_plain(what, LYR_MSG_PAUSE, "pause", why);
}

bool command_stop(const arguments& what, std::string* why) {
    return act_plain(what, LYR_MSG_STOP, "stop", why);
}

bool command_next(const arguments& what, std::string* why) {
    return act_plain(what, LYR_MSG_NEXT, "go to the next track", why);
}

bool command_previous(const arguments& what, std::string* why) {
    return act_plain(what, LYR_MSG_PREVIOUS, "go to the previous track", why);
}

bool command_jump(const arguments& what, std::string* why) {
    return act_number(what, LYR_MSG_JUMP, what.number - 1, "jump to this track", why);
}

/* The service takes a position from the beginning of the track only. */
bool command_seek(const arguments& what, std::string* why) {
    int64_t position = 0;
    bool relative = false;
    if (!text_position(what.text, &position, &relative)) {
        *why = "\"" + text_printable(what.text) + "\" is no position; say 90, 1:30, +10 or -10";
        return false;
    }
    return act(
        what, "seek",
        [position, relative](connection* to, int32_t* result) {
            int32_t now = 0;
            if (relative && !request_position(to, &now)) {
                return false;
            }
            const int64_t target = std::clamp<int64_t>(now + position, 0, INT32_MAX);
            return request_number(to, LYR_MSG_SEEK, static_cast<int32_t>(target), result);
        },
        why);
}

bool command_rate(const arguments& what, std::string* why) {
    return act(
        what, "play at this rate",
        [&what](connection* to, int32_t* result) { return request_rate(to, what.rate, result); },
        why);
}

bool command_shuffle(const arguments& what, std::string* why) {
    return act_number(what, LYR_MSG_SHUFFLE, output_shuffle_mode(what.mode), "shuffle", why);
}

bool command_repeat(const arguments& what, std::string* why) {
    return act_number(what, LYR_MSG_REPEAT, output_repeat_mode(what.mode), "repeat", why);
}

bool command_destroy(const arguments& what, std::string* why) {
    return act(
        what, "destroy its track session",
        [](connection* to, int32_t* result) {
            request_session session;
            if (!request_get_session(to, &session)) {
                return false;
            }
            *result = -1;
            return !session.exists || request_destroy(to, session.id, result);
        },
        why);
}

/* Whether the player goes is seen in the name space: the service answers the same either way. */
bool command_close(const arguments& what, std::string* why) {
    const connection_owner to = enter_existing(what, why);
    if (to == nullptr) {
        return false;
    }
    if (!connection_leave(to.get())) {
        *why = to->why;
        return false;
    }
    const bool gone = !enter_exists(what.player);
    if (!gone) {
        *why = "the player \"" + text_printable(what.player) +
               "\" stays: other clients hold it, or have left without closing it";
        return false;
    }
    return !what.json || output_json({{"player", what.player}, {"closed", true}});
}

bool command_session(const arguments& what, std::string* why) {
    const bool create = what.create && !enter_exists(what.player);
    const connection_owner to = create ? enter_new(what, why) : enter_existing(what, why);
    if (to == nullptr) {
        return false;
    }
    const std::string player = to->player;
    request_session session;
    int32_t result = 0;
    if (!make_session(to.get(), what, &session) ||
        (what.play && !request_command(to.get(), LYR_MSG_PLAY, &result))) {
        *why = to->why;
        return false;
    }
    if (result != 0) {
        *why = refusal(to.get(), "play", result);
        return false;
    }
    if (create) {
        connection_abandon(to.get());
    } else if (!connection_leave(to.get())) {
        *why = to->why;
        return false;
    }
    if (what.json) {
        return output_json(
            {{"player", player}, {"session", {{"id", session.id}, {"length", session.length}}}});
    }
    return output_text("track session " + std::to_string(session.id) + ", " +
                       output_tracks(session.length) + " so far\n");
}

bool command_open(const arguments& what, std::string* why) {
    if (!what.hold && enter_exists(what.player)) {
        /* Opening once more would only use up one of the player's clients. */
        return !what.json || output_json({{"player", what.player}, {"made", false}});
    }
    const connection_owner to = enter_new(what, why);
    if (to == nullptr) {
        return false;
    }
    if (what.json && !output_json({{"player", what.player}, {"made", true}})) {
        return false;
    }
    if (what.hold) {
        return hold_open(to.get(), why);
    }
    connection_abandon(to.get());
    return true;
}
