#include "commands.h"

#include <nlohmann/json.hpp>

#include "choose.h"
#include "output.h"
#include "request.h"
#include "table.h"
#include "text.h"

namespace {

using json = nlohmann::ordered_json;

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : ",") + word;
    }
    return text;
}

json describe(const request_source& source) {
    json entry = {{"id", source.id}, {"uid", source.uid}, {"name", source.name}};
    if (!source.view_name.empty()) {
        entry["view_name"] = source.view_name;
    }
    entry["type"] = source.type;
    entry["types"] = output_source_types(source.type);
    entry["status"] = source.status;
    entry["capabilities"] = source.capabilities;
    return entry;
}

} // namespace

bool command_sources(const arguments& what, std::string* why) {
    const connection_owner to = connection_open(what.service, why);
    std::vector<request_source> sources;
    if (to == nullptr) {
        return false;
    }
    if (!request_sources(to.get(), &sources)) {
        *why = to->why;
        return false;
    }
    if (what.json) {
        json list = json::array();
        for (const request_source& source : sources) {
            list.push_back(describe(source));
        }
        return output_json(list);
    }
    table shown;
    shown.columns = {{"ID", true}, {"NAME"}, {"TYPE"}, {"UID"}};
    for (const request_source& source : sources) {
        shown.rows.push_back({std::to_string(source.id), source.name,
                              joined(output_source_types(source.type)), source.uid});
    }
    return output_text(table_text(shown));
}

/* One name a line, for people and scripts; the service is asked for nothing but its presence. */
bool command_players(const arguments& what, std::string* why) {
    if (connection_open(what.service, why) == nullptr) {
        return false;
    }
    const std::vector<std::string> players = choose_players();
    if (what.json) {
        return output_json(players);
    }
    std::string lines;
    for (const std::string& player : players) {
        lines += text_printable(player) + "\n";
    }
    return output_text(lines);
}
