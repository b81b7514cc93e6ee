#include "commands.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "choose.h"
#include "enter.h"
#include "interrupt.h"
#include "output.h"
#include "request.h"
#include "table.h"

namespace {

using json = nlohmann::ordered_json;

constexpr int32_t PAGE = 500; /* children asked for at once */

/* Page after page, until there is nothing more or as much as was wanted. */
bool collect(connection* to, int32_t source, const std::string& folder, const arguments& what,
             std::vector<request_node>* nodes) {
    int32_t offset = what.offset;
    for (;;) {
        const int32_t missing = what.limit - static_cast<int32_t>(nodes->size());
        const int32_t wanted = what.limit < 0 ? PAGE : std::min(PAGE, missing);
        if (wanted == 0) {
            return true;
        }
        if (interrupt_pending()) {
            to->why = "interrupted";
            return false;
        }
        std::vector<request_node> page;
        if (!request_children(to, source, folder, offset, wanted, &page)) {
            return false;
        }
        if (page.empty()) {
            return true;
        }
        offset += static_cast<int32_t>(page.size());
        nodes->insert(nodes->end(), page.begin(), page.end());
    }
}

bool browse(connection* to, const arguments& what, std::vector<request_node>* nodes) {
    std::vector<request_source> sources;
    if (!request_sources(to, &sources)) {
        return false;
    }
    const request_source* source = choose_source(what.source, sources, &to->why);
    std::string folder;
    return source != nullptr && choose_folder(to, source->id, what.folder, &folder) &&
           collect(to, source->id, folder, what, nodes);
}

bool print(const arguments& what, const std::vector<request_node>& nodes) {
    if (what.json) {
        json list = json::array();
        for (const request_node& node : nodes) {
            list.push_back({{"id", node.id},
                            {"name", node.name},
                            {"type", output_node_type(node.type)},
                            {"count", node.count}});
        }
        return output_json(list);
    }
    table shown;
    shown.columns = {{"NAME"}, {"TYPE"}, {"ITEMS", true}, {"ID"}};
    for (const request_node& node : nodes) {
        const bool folder = node.type == LYR_NODE_FOLDER;
        shown.rows.push_back({node.name, output_node_type(node.type),
                              folder ? std::to_string(node.count) : std::string(), node.id});
    }
    return output_text(table_text(shown));
}

} // namespace

bool command_browse(const arguments& what, std::string* why) {
    const connection_owner to = enter_any(what, why);
    if (to == nullptr) {
        return false;
    }
    std::vector<request_node> nodes;
    if (!browse(to.get(), what, &nodes) || !connection_leave(to.get())) {
        *why = to->why;
        return false;
    }
    return print(what, nodes);
}
