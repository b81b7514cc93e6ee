#include "commands.h"

#include <cerrno>
#include <system_error>

#include <poll.h>

#include <nlohmann/json.hpp>

#include "choose.h"
#include "output.h"
#include "text.h"
#include "watch.h"

namespace {

using json = nlohmann::ordered_json;

constexpr int32_t OBJECT_WIDTH = 24; /* columns that keep the lines below each other */
constexpr int32_t ATTRIBUTE_WIDTH = 12;

std::string line_text(const std::string& object, const std::string& name,
                      const std::string& value) {
    return text_pad(text_printable(object), OBJECT_WIDTH, false) + "  " +
           text_pad(text_printable(name), ATTRIBUTE_WIDTH, false) + "  " + text_printable(value) +
           "\n";
}

std::string change_text(const watch_change& change) {
    const std::string object = change.player + "/" + change.object;
    if (change.gone) {
        return line_text(object, "gone", "");
    }
    std::string text;
    for (const watch_attribute& attribute : change.attributes) {
        text +=
            line_text(object, attribute.name, attribute.gone ? "-" : watch_text(attribute.value));
    }
    return text;
}

json change_json(const watch_change& change) {
    json document = {{"player", change.player}, {"object", change.object}};
    if (change.gone) {
        document["gone"] = true;
        return document;
    }
    json set = json::object();
    json withdrawn = json::array();
    for (const watch_attribute& attribute : change.attributes) {
        if (attribute.gone) {
            withdrawn.push_back(attribute.name);
        } else {
            set[attribute.name] = watch_json(attribute.value);
        }
    }
    document["set"] = set;
    document["withdrawn"] = withdrawn;
    return document;
}

bool print(const arguments& what, const std::vector<watch_change>& changes, std::string* why) {
    for (const watch_change& change : changes) {
        if (!(what.json ? output_json(change_json(change)) : output_text(change_text(change)))) {
            *why = "the output cannot be written";
            return false;
        }
    }
    return true;
}

/* The player that is wanted; null and no reason: all of them. */
bool choose(const arguments& what, std::string* player, std::string* why) {
    if (what.player.empty()) {
        return true;
    }
    const std::vector<std::string> players = choose_players();
    const std::string* chosen = choose_player(what.player, players, why);
    if (chosen == nullptr) {
        return false;
    }
    *player = *chosen;
    return true;
}

} // namespace

/* Opens no player, so it takes nothing from anybody and may be ended at any time. */
bool command_watch(const arguments& what, std::string* why) {
    std::string player;
    watch watching;
    if (!choose(what, &player, why) || !watch_open(&watching, player, why)) {
        return false;
    }
    for (;;) {
        std::vector<watch_change> changes;
        const bool there = watch_take(&watching, &changes);
        if (!print(what, changes, why)) {
            return false;
        }
        if (!there) {
            return true;
        }
        pollfd waiting = {watch_fd(watching), POLLIN, 0};
        if (poll(&waiting, 1, -1) < 0 && errno != EINTR) {
            *why = std::system_category().message(errno);
            return false;
        }
    }
}
