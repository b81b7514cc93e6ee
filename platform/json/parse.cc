/* Builds the decoder's tree from the JSON library's events.
 *
 * The library's own document type either sorts members or looks each name up by comparing it with
 * all before it, and says nothing of members given twice; so the tree is our own. Values are kept
 * on a stack until their container ends; then the container's children move to `links`, and of
 * members of one name the last value takes the first's place. */
#include "json_tree.h"

#include <algorithm>
#include <limits>
#include <unordered_map>

#include <nlohmann/json.hpp>

namespace {

struct open_container {
    uint32_t node;
    size_t stack_base; /* its children stand on the stack from here */
};

struct build_state {
    json_tree* tree;
    std::string_view text;
    std::vector<uint32_t> stack;      /* values whose container is still open */
    std::vector<open_container> open; /* from the outermost in */
    std::string name;                 /* of the member whose value comes next */
};

} // namespace

/* The path of a member of the innermost open container, for people. */
static std::string member_path(const build_state* state, const std::string& name) {
    std::string path;
    for (const open_container& container : state->open) {
        const std::string& part = state->tree->nodes[container.node].name;
        if (!part.empty()) {
            path += part + ".";
        }
    }
    return path + name;
}

/* A new value with its name, on the stack. */
static json_node* add_node(build_state* state, int32_t type) {
    json_tree* tree = state->tree;
    state->stack.push_back(static_cast<uint32_t>(tree->nodes.size()));
    json_node& node = tree->nodes.emplace_back();
    node.type = type;
    node.name.swap(state->name);
    state->name.clear();
    return &node;
}

static void set_position(json_tree* tree, std::string_view text, size_t position) {
    const std::string_view before = text.substr(0, std::min(position, text.size()));
    const size_t line_start = before.rfind('\n') + 1; /* 0 when there is none */
    tree->line = static_cast<int32_t>(1 + std::count(before.begin(), before.end(), '\n'));
    tree->column = static_cast<int32_t>(before.size() - line_start + 1);
}

/* Where the container begins that is one too deep. The parser does not say where it is, but what it
 * has taken so far is well-formed, so brackets outside strings can be counted. */
static size_t too_deep_at(std::string_view text) {
    int32_t depth = 0;
    bool in_string = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (in_string) {
            i += c == '\\' ? 1 : 0;
            in_string = c != '"';
            continue;
        }
        in_string = c == '"';
        depth += c == '[' || c == '{' ? 1 : c == ']' || c == '}' ? -1 : 0;
        if (depth > PPS_JSON_DEPTH_MAX) {
            return i;
        }
    }
    return text.size();
}

static bool begin_container(build_state* state, int32_t type) {
    if (state->open.size() == static_cast<size_t>(PPS_JSON_DEPTH_MAX)) {
        state->tree->error = PPS_JSON_DEPTH;
        state->tree->reason = "nested too deeply";
        set_position(state->tree, state->text, too_deep_at(state->text));
        return false;
    }
    add_node(state, type);
    state->open.push_back({state->stack.back(), state->stack.size()});
    return true;
}

/* Moves the children of an object to the links, dropping values that a later one replaces. */
static void link_members(build_state* state, const open_container& container) {
    json_tree* tree = state->tree;
    std::unordered_map<std::string_view, size_t> places; /* into links; views of the nodes' names */
    for (size_t i = container.stack_base; i < state->stack.size(); ++i) {
        const uint32_t child = state->stack[i];
        const std::string& name = tree->nodes[child].name;
        const auto [place, is_new] = places.try_emplace(name, tree->links.size());
        if (is_new) {
            tree->links.push_back(child);
        } else {
            tree->links[place->second] = child;
            tree->duplicates.push_back(member_path(state, name));
        }
    }
}

static bool end_container(build_state* state) {
    json_tree* tree = state->tree;
    const open_container container = state->open.back();
    const auto first = static_cast<uint32_t>(tree->links.size());
    if (tree->nodes[container.node].type == PPS_JSON_OBJECT) {
        link_members(state, container);
    } else {
        tree->links.insert(tree->links.end(),
                           state->stack.begin() + static_cast<ptrdiff_t>(container.stack_base),
                           state->stack.end());
    }
    state->stack.resize(container.stack_base);
    state->open.pop_back();
    tree->nodes[container.node].first = first;
    tree->nodes[container.node].count = static_cast<uint32_t>(tree->links.size()) - first;
    return true;
}

namespace {

/* What the library's parser calls, by these very names; each answers whether to go on. */
struct parse_events {
    build_state* state;

    bool null() {
        add_node(state, PPS_JSON_NULL);
        return true;
    }
    bool boolean(bool value) {
        add_node(state, PPS_JSON_BOOLEAN)->number = value ? 1 : 0;
        return true;
    }
    bool number_integer(int64_t value) {
        add_node(state, PPS_JSON_INTEGER)->number = value;
        return true;
    }
    bool number_unsigned(uint64_t value) {
        json_node* node = add_node(state, PPS_JSON_INTEGER);
        node->number = static_cast<int64_t>(value);
        node->is_unsigned = value > static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
        return true;
    }
    bool number_float(double value, const std::string&) {
        add_node(state, PPS_JSON_DOUBLE)->real = value;
        return true;
    }
    bool string(std::string& value) {
        add_node(state, PPS_JSON_STRING)->text.swap(value);
        return true;
    }
    bool binary(std::vector<uint8_t>&) { return false; } /* not in texts */
    bool start_object(size_t) { return begin_container(state, PPS_JSON_OBJECT); }
    bool start_array(size_t) { return begin_container(state, PPS_JSON_ARRAY); }
    bool key(std::string& name) {
        state->name.swap(name);
        return true;
    }
    bool end_object() { return end_container(state); }
    bool end_array() { return end_container(state); }
    bool parse_error(size_t position, const std::string&, const nlohmann::json::exception& what) {
        state->tree->error = PPS_JSON_SYNTAX;
        state->tree->reason = what.what();
        set_position(state->tree, state->text, position == 0 ? 0 : position - 1);
        return false;
    }
};

} // namespace

int32_t json_tree_parse(json_tree* tree, std::string_view text) {
    build_state state{tree, text, {}, {}, {}};
    parse_events events{&state};
    nlohmann::json::sax_parse(text.begin(), text.end(), &events);
    if (tree->error == PPS_JSON_OK && state.stack.size() == 1 && state.open.empty()) {
        tree->root = state.stack.front();
        return PPS_JSON_OK;
    }
    if (tree->error == PPS_JSON_OK) {
        tree->error = PPS_JSON_SYNTAX;
    }
    tree->nodes.clear();
    tree->links.clear();
    tree->duplicates.clear();
    return tree->error;
}
