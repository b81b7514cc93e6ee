// Commands that tell what a player does, as the service answers it.
#include "commands.h"

#include <nlohmann/json.hpp>

#include "enter.h"
#include "metadata.h"
#include "output.h"
#include "request.h"
#include "text.h"

namespace {

using json = nlohmann::ordered_json;

json describe_session(const request_session& session) {
    if (!session.exists) {
        return nullptr;
    }
    return {{"id", session.id}, {"length", session.length}};
}

std::string session_words(const request_session& session) {
    if (!session.exists) {
        return "none";
    }
    return std::to_string(session.id) + ", " + output_tracks(session.length);
}

struct answer {
    lyr_state_reply state = {};
    request_session session;
    int32_t position = 0; /* ms; with a track session */
    request_track track;
};

bool ask_state(connection* to, answer* got) {
    return request_state(to, &got->state) && request_get_session(to, &got->session) &&
           (!got->session.exists || request_position(to, &got->position));
}

bool print_state(const arguments& what, const std::string& player, const answer& got) {
    const lyr_state_reply& state = got.state;
    if (what.json) {
        json document = {{"player", player},
                         {"status", output_status(state.status)},
                         {"rate", state.playback_rate},
                         {"shuffle", output_shuffle(state.shuffle_mode)},
                         {"repeat", output_repeat(state.repeat_mode)},
                         {"session", describe_session(got.session)}};
        document["position"] = got.session.exists ? json(got.position) : json();
        return output_json(document);
    }
    return output_list({{"player", player},
                        {"status", output_status(state.status)},
                        {"rate", json(state.playback_rate).dump()},
                        {"shuffle", output_shuffle(state.shuffle_mode)},
                        {"repeat", output_repeat(state.repeat_mode)},
                        {"session", session_words(got.session)},
                        {"position", got.session.exists ? text_clock(got.position) : ""}});
}

bool print_now(const arguments& what, const std::string& player, const answer& got) {
    const request_track& track = got.track;
    const request_metadata& known = track.metadata;
    const std::string status = output_status(got.state.status);
    if (what.json) {
        return output_json(
            {{"player", player},
             {"status", status},
             {"session", describe_session(got.session)},
             {"index", track.index},
             {"id", track.node.id},
             {"name", track.node.name},
             {"position", got.position},
             {"metadata", track.described ? metadata_json(track.metadata) : json()}});
    }
    const std::string end = known.duration > 0 ? " / " + text_clock(known.duration) : "";
    return output_list(
        {{"title", known.title.empty() ? track.node.name : known.title},
         {"artist", known.artist},
         {"album", known.album},
         {"track", std::to_string(track.index + 1) + " of " + std::to_string(got.session.length)},
         {"position", text_clock(got.position) + end},
         {"status", status}});
}

} // namespace

bool command_state(const arguments& what, std::string* why) {
    const connection_owner to = enter_existing(what, why);
    if (to == nullptr) {
        return false;
    }
    const std::string player = to->player;
    answer got;
    if (!ask_state(to.get(), &got) || !connection_leave(to.get())) {
        *why = to->why;
        return false;
    }
    return print_state(what, player, got);
}

bool command_now(const arguments& what, std::string* why) {
    const connection_owner to = enter_existing(what, why);
    if (to == nullptr) {
        return false;
    }
    const std::string player = to->player;
    answer got;
    if (!ask_state(to.get(), &got) || !request_current(to.get(), &got.track) ||
        !connection_leave(to.get())) {
        *why = to->why;
        return false;
    }
    return print_now(what, player, got);
}
