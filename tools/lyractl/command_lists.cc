// Commands that list: what a folder holds, what a search finds, the tracks of a session.
#include "commands.h"

#include <algorithm>
#include <functional>

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

using page_request =
    std::function<bool(int32_t offset, int32_t limit, std::vector<request_node>* page)>;

/* Page after page, until there is nothing more or as much as was wanted. */
bool collect(connection* to, const arguments& what, const page_request& ask,
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
        if (!ask(offset, wanted, &page)) {
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
    int32_t source = 0;
    std::string folder;
    const page_request children = [&](int32_t offset, int32_t limit, auto* page) {
        return request_children(to, source, folder, offset, limit, page);
    };
    return choose_source_id(to, what.source, &source) &&
           choose_folder(to, source, what.folder, &folder) && collect(to, what, children, nodes);
}

bool search(connection* to, const arguments& what, std::vector<request_node>* nodes) {
    int32_t source = 0;
    const page_request found = [&](int32_t offset, int32_t limit, auto* page) {
        return request_search(to, source, what.filter, what.text, offset, limit, page);
    };
    return choose_source_id(to, what.source, &source) && collect(to, what, found, nodes);
}

/* The service refuses an offset at the end of the list, so it is not asked for it. */
bool tracks(connection* to, const arguments& what, std::vector<request_node>* nodes) {
    request_session session;
    const page_request listed = [&](int32_t offset, int32_t limit, auto* page) {
        return offset >= session.length || request_tracks(to, session.id, offset, limit, page);
    };
    if (!request_get_session(to, &session)) {
        return false;
    }
    if (!session.exists) {
        to->why = "the player has no track session; \"lyractl session\" makes one";
        return false;
    }
    return collect(to, what, listed, nodes);
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

static bool list(connection_owner to,
                 bool (*ask)(connection*, const arguments&, std::vector<request_node>*),
                 const arguments& what, std::string* why) {
    if (to == nullptr) {
        return false;
    }
    std::vector<request_node> nodes;
    if (!ask(to.get(), what, &nodes) || !connection_leave(to.get())) {
        *why = to->why;
        return false;
    }
    return print(what, nodes);
}

bool command_browse(const arguments& what, std::string* why) {
    return list(enter_any(what, why), browse, what, why);
}

bool command_search(const arguments& what, std::string* why) {
    return list(enter_any(what, why), search, what, why);
}

bool command_tracks(const arguments& what, std::string* why) {
    return list(enter_existing(what, why), tracks, what, why);
}
