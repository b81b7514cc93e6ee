#include "watch.h"

#include <cerrno>
#include <string_view>
#include <system_error>

#include <fcntl.h>

#include <nlohmann/json.hpp>

#include "text.h"

namespace {

constexpr size_t READ_SIZE = 65536;
constexpr const char* STATE_OBJECT = "state"; /* there as long as its player is */
constexpr const char* PLAYERS_PATH = "/pps/services/lyrane/";

/* "::playing" is encoding "" and text "playing". */
struct value_parts {
    std::string_view encoding;
    std::string_view text;
};

value_parts parts_of(std::string_view value) {
    if (value.empty()) {
        return {};
    }
    value.remove_prefix(1);
    const size_t colon = value.find(':');
    if (colon == std::string_view::npos) {
        return {{}, value};
    }
    return {value.substr(0, colon), value.substr(colon + 1)};
}

/* "radio/state" in a watch of all players, "state" in a watch of one. */
watch_change change_of(const watch& watch, const std::string& name) {
    const size_t slash = watch.player.empty() ? name.rfind('/') : std::string::npos;
    if (slash == std::string::npos) {
        return {watch.player, name, false, {}};
    }
    return {name.substr(0, slash), name.substr(slash + 1), false, {}};
}

void take_lines(watch* watch, std::vector<watch_change>* changes) {
    const char* text = watch->begun.data();
    size_t length = watch->begun.size();
    pps_line line = {};
    bool fresh = true; /* the next attribute begins a change */
    while (pps_next_line(&text, &length, &line) == 1) {
        const std::string name(line.name, line.name_length);
        if (line.kind == '@' || line.kind == '~') {
            watch->name = name;
            changes->push_back(change_of(*watch, name));
            changes->back().gone = line.kind == '~';
            watch->ended = watch->ended || (line.kind == '~' && name == STATE_OBJECT);
            fresh = false;
            continue;
        }
        if (fresh) {
            changes->push_back(change_of(*watch, watch->name));
            fresh = false;
        }
        const bool gone = line.kind == '-';
        changes->back().attributes.push_back(
            {name, gone ? std::string() : std::string(line.value, line.value_length), gone});
    }
    watch->begun.clear();
}

} // namespace

bool watch_open(watch* watch, const std::string& player, std::string* why) {
    const std::string path =
        PLAYERS_PATH + (player.empty() ? ".all?delta,deep" : player + "/.all?delta");
    watch->player = player;
    watch->object.reset(pps_open(path.c_str(), O_RDONLY, 0));
    if (watch->object != nullptr) {
        return true;
    }
    if (errno == ENOENT) {
        *why = player.empty() ? "the service is not running"
                              : "there is no player \"" + text_printable(player) + "\"";
    } else {
        *why = "the players cannot be watched: " + std::system_category().message(errno);
    }
    return false;
}

int watch_fd(const watch& watch) {
    return pps_poll_fd(watch.object.get());
}

bool watch_take(watch* watch, std::vector<watch_change>* changes) {
    std::string buffer(READ_SIZE, '\0');
    for (;;) {
        const ssize_t got = pps_read(watch->object.get(), buffer.data(), buffer.size(), -1);
        if (got <= 0) {
            return got == 0 && !watch->ended;
        }
        watch->begun.append(buffer, 0, static_cast<size_t>(got));
        /* A text longer than the buffer may break off inside a line. */
        if (watch->begun.back() == '\n') {
            take_lines(watch, changes);
        }
    }
}

nlohmann::ordered_json watch_json(const std::string& value) {
    const value_parts parts = parts_of(value);
    if (parts.encoding == "n" || parts.encoding == "json" || parts.encoding == "b") {
        auto parsed = nlohmann::ordered_json::parse(parts.text, nullptr, false);
        if (!parsed.is_discarded()) {
            return parsed;
        }
    }
    return std::string(parts.text);
}

std::string watch_text(const std::string& value) {
    return std::string(parts_of(value).text);
}
