#include "enter.h"

#include <algorithm>

#include <unistd.h>

#include "choose.h"

namespace {

connection_owner enter(const arguments& what, const std::string& player, std::string* why) {
    connection_owner to = connection_open(what.service, why);
    if (to != nullptr && !connection_enter(to.get(), player)) {
        *why = to->why;
        return nullptr;
    }
    return to;
}

} // namespace

bool enter_exists(const std::string& player) {
    const std::vector<std::string> players = choose_players();
    return std::find(players.begin(), players.end(), player) != players.end();
}

connection_owner enter_existing(const arguments& what, std::string* why) {
    /* That the service does not run is the better reason when there is no player either. */
    if (connection_open(what.service, why) == nullptr) {
        return nullptr;
    }
    const std::vector<std::string> players = choose_players();
    const std::string* player = choose_player(what.player, players, why);
    return player == nullptr ? nullptr : enter(what, *player, why);
}

connection_owner enter_new(const arguments& what, std::string* why) {
    return enter(what, what.player, why);
}

connection_owner enter_any(const arguments& what, std::string* why) {
    if (!what.player.empty()) {
        return enter_existing(what, why);
    }
    const std::vector<std::string> players = choose_players();
    return enter(what, players.empty() ? "lyractl-" + std::to_string(getpid()) : players[0], why);
}
