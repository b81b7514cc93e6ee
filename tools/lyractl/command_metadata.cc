// What a media source tells of a node.
#include "commands.h"

#include <nlohmann/json.hpp>

#include "choose.h"
#include "enter.h"
#include "metadata.h"
#include "output.h"

namespace {

using json = nlohmann::ordered_json;

struct description {
    std::string node;
    bool described = false; /* `known` is there */
    request_metadata known;
    std::vector<std::string> values; /* of the keys that were asked for */
};

bool ask(connection* to, const arguments& what, description* got) {
    int32_t source = 0;
    if (!choose_source_id(to, what.source, &source) ||
        !choose_node(to, source, what.text, &got->node)) {
        return false;
    }
    return what.keys.empty() ? request_describe(to, source, got->node, &got->described, &got->known)
                             : request_values(to, source, got->node, what.keys, &got->values);
}

bool print_values(const arguments& what, const description& got) {
    json values = json::object();
    std::vector<std::pair<std::string, std::string>> list;
    for (size_t i = 0; i < what.keys.size(); ++i) {
        values[what.keys[i]] = got.values[i].empty() ? json() : json(got.values[i]);
        list.emplace_back(what.keys[i], got.values[i]);
    }
    return what.json ? output_json({{"id", got.node}, {"values", values}}) : output_list(list);
}

bool print_metadata(const arguments& what, const description& got) {
    if (what.json) {
        return output_json(
            {{"id", got.node}, {"metadata", got.described ? metadata_json(got.known) : json()}});
    }
    return output_list(metadata_list(got.known));
}

} // namespace

bool command_metadata(const arguments& what, std::string* why) {
    const connection_owner to = enter_any(what, why);
    if (to == nullptr) {
        return false;
    }
    description got;
    if (!ask(to.get(), what, &got) || !connection_leave(to.get())) {
        *why = to->why;
        return false;
    }
    return what.keys.empty() ? print_metadata(what, got) : print_values(what, got);
}
