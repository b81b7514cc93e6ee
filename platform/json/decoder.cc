/* The cursor over a parsed text. */
#include <veloran/json.h>

#include <cmath>
#include <cstring>
#include <exception>
#include <limits>
#include <new>

#include "json_tree.h"

namespace {

/* A container that the cursor is in. */
struct cursor_level {
    uint32_t node;
    uint32_t position;
};

} // namespace

struct pps_decoder_state {
    json_tree tree;
    cursor_level levels[PPS_JSON_DEPTH_MAX]; /* from the outermost in */
    int32_t depth;                           /* 0: in front of the top-level value */
};

static bool is_c_string(const std::string& text) {
    return text.find('\0') == std::string::npos;
}

/* The value that a name (null: the position) means, or null. */
static const json_node* find_value(const pps_decoder* decoder, const char* name) {
    const pps_decoder_state* state = decoder->state;
    if (state == nullptr || state->tree.nodes.empty()) {
        return nullptr;
    }
    const json_tree& tree = state->tree;
    if (state->depth == 0) {
        return name == nullptr ? &tree.nodes[tree.root] : nullptr;
    }
    const cursor_level& level = state->levels[state->depth - 1];
    const json_node& container = tree.nodes[level.node];
    if (name == nullptr) {
        return level.position < container.count
                   ? &tree.nodes[tree.links[container.first + level.position]]
                   : nullptr;
    }
    if (container.type != PPS_JSON_OBJECT) {
        return nullptr;
    }
    for (uint32_t i = 0; i < container.count; ++i) {
        const json_node& child = tree.nodes[tree.links[container.first + i]];
        if (child.name == name) {
            return &child;
        }
    }
    return nullptr;
}

/* The same, when it has the type; else *result says what is wrong. */
static const json_node* find_typed(const pps_decoder* decoder, const char* name, int32_t type,
                                   int32_t* result) {
    const json_node* node = find_value(decoder, name);
    if (node == nullptr) {
        *result = PPS_JSON_NOT_FOUND;
        return nullptr;
    }
    const bool fits = node->type == type && (type != PPS_JSON_STRING || is_c_string(node->text));
    *result = fits ? PPS_JSON_OK : PPS_JSON_BAD_TYPE;
    return fits ? node : nullptr;
}

extern "C" {

int32_t pps_decoder_initialize(pps_decoder* decoder) noexcept {
    decoder->state = new (std::nothrow) pps_decoder_state{};
    return decoder->state == nullptr ? PPS_JSON_NO_MEMORY : PPS_JSON_OK;
}

void pps_decoder_cleanup(pps_decoder* decoder) noexcept {
    delete decoder->state;
    decoder->state = nullptr;
}

int32_t pps_decoder_parse_json_str(pps_decoder* decoder, const char* text) noexcept {
    pps_decoder_state* state = decoder->state;
    if (state == nullptr || text == nullptr) {
        return PPS_JSON_BAD_CALL;
    }
    state->depth = 0;
    state->tree = json_tree{};
    try {
        return json_tree_parse(&state->tree, text);
    } catch (const std::exception&) {
        state->tree = json_tree{};
        state->tree.error = PPS_JSON_NO_MEMORY;
        return PPS_JSON_NO_MEMORY;
    }
}

void pps_decoder_error(const pps_decoder* decoder, int32_t* line, int32_t* column,
                       const char** reason) noexcept {
    const pps_decoder_state* state = decoder->state;
    if (line != nullptr) {
        *line = state == nullptr ? 0 : state->tree.line;
    }
    if (column != nullptr) {
        *column = state == nullptr ? 0 : state->tree.column;
    }
    if (reason != nullptr) {
        *reason = state == nullptr ? "" : state->tree.reason.c_str();
    }
}

const char* pps_decoder_duplicate(const pps_decoder* decoder, int32_t n) noexcept {
    const pps_decoder_state* state = decoder->state;
    if (state == nullptr || n < 0 || static_cast<size_t>(n) >= state->tree.duplicates.size()) {
        return nullptr;
    }
    return state->tree.duplicates[static_cast<size_t>(n)].c_str();
}

int32_t pps_decoder_push(pps_decoder* decoder, const char* name) noexcept {
    const json_node* node = find_value(decoder, name);
    if (node == nullptr) {
        return PPS_JSON_NOT_FOUND;
    }
    if (node->type != PPS_JSON_OBJECT && node->type != PPS_JSON_ARRAY) {
        return PPS_JSON_BAD_TYPE;
    }
    pps_decoder_state* state = decoder->state; /* the parser bounds the depth of the tree */
    const auto index = static_cast<uint32_t>(node - state->tree.nodes.data());
    state->levels[state->depth++] = {index, 0};
    return PPS_JSON_OK;
}

int32_t pps_decoder_pop(pps_decoder* decoder) noexcept {
    if (decoder->state == nullptr || decoder->state->depth == 0) {
        return PPS_JSON_BAD_CALL;
    }
    --decoder->state->depth;
    return PPS_JSON_OK;
}

int32_t pps_decoder_length(const pps_decoder* decoder) noexcept {
    const pps_decoder_state* state = decoder->state;
    if (state == nullptr || state->depth == 0) {
        return 0;
    }
    return static_cast<int32_t>(state->tree.nodes[state->levels[state->depth - 1].node].count);
}

int32_t pps_decoder_goto_index(pps_decoder* decoder, int32_t position) noexcept {
    if (position < 0 || position >= pps_decoder_length(decoder)) {
        return PPS_JSON_NOT_FOUND;
    }
    decoder->state->levels[decoder->state->depth - 1].position = static_cast<uint32_t>(position);
    return PPS_JSON_OK;
}

const char* pps_decoder_name(const pps_decoder* decoder) noexcept {
    const json_node* node = find_value(decoder, nullptr);
    if (node == nullptr || decoder->state->depth == 0) {
        return nullptr;
    }
    const cursor_level& level = decoder->state->levels[decoder->state->depth - 1];
    const bool is_member = decoder->state->tree.nodes[level.node].type == PPS_JSON_OBJECT;
    return is_member && is_c_string(node->name) ? node->name.c_str() : nullptr;
}

int32_t pps_decoder_type(const pps_decoder* decoder, const char* name) noexcept {
    const json_node* node = find_value(decoder, name);
    if (node == nullptr) {
        return PPS_JSON_NONE;
    }
    const bool is_broken = node->type == PPS_JSON_STRING && !is_c_string(node->text);
    return is_broken ? PPS_JSON_NULL : node->type;
}

int32_t pps_decoder_get_string(const pps_decoder* decoder, const char* name,
                               const char** value) noexcept {
    int32_t result = PPS_JSON_OK;
    const json_node* node = find_typed(decoder, name, PPS_JSON_STRING, &result);
    if (node != nullptr) {
        *value = node->text.c_str();
    }
    return result;
}

int32_t pps_decoder_get_int(const pps_decoder* decoder, const char* name, int32_t* value) noexcept {
    int64_t wide = 0;
    const int32_t result = pps_decoder_get_int64(decoder, name, &wide);
    if (result != PPS_JSON_OK) {
        return result;
    }
    if (wide < std::numeric_limits<int32_t>::min() || wide > std::numeric_limits<int32_t>::max()) {
        return PPS_JSON_BAD_TYPE;
    }
    *value = static_cast<int32_t>(wide);
    return PPS_JSON_OK;
}

int32_t pps_decoder_get_int64(const pps_decoder* decoder, const char* name,
                              int64_t* value) noexcept {
    int32_t result = PPS_JSON_OK;
    const json_node* node = find_typed(decoder, name, PPS_JSON_INTEGER, &result);
    if (node == nullptr || node->is_unsigned) {
        return node == nullptr ? result : PPS_JSON_BAD_TYPE;
    }
    *value = node->number;
    return PPS_JSON_OK;
}

int32_t pps_decoder_get_uint64(const pps_decoder* decoder, const char* name,
                               uint64_t* value) noexcept {
    int32_t result = PPS_JSON_OK;
    const json_node* node = find_typed(decoder, name, PPS_JSON_INTEGER, &result);
    if (node == nullptr || (node->number < 0 && !node->is_unsigned)) {
        return node == nullptr ? result : PPS_JSON_BAD_TYPE;
    }
    *value = static_cast<uint64_t>(node->number);
    return PPS_JSON_OK;
}

int32_t pps_decoder_get_double(const pps_decoder* decoder, const char* name,
                               double* value) noexcept {
    const json_node* node = find_value(decoder, name);
    if (node == nullptr) {
        return PPS_JSON_NOT_FOUND;
    }
    if (node->type == PPS_JSON_INTEGER) {
        *value = node->is_unsigned ? static_cast<double>(static_cast<uint64_t>(node->number))
                                   : static_cast<double>(node->number);
        return PPS_JSON_OK;
    }
    if (node->type != PPS_JSON_DOUBLE) {
        return PPS_JSON_BAD_TYPE;
    }
    *value = node->real;
    return PPS_JSON_OK;
}

int32_t pps_decoder_get_bool(const pps_decoder* decoder, const char* name, bool* value) noexcept {
    int32_t result = PPS_JSON_OK;
    const json_node* node = find_typed(decoder, name, PPS_JSON_BOOLEAN, &result);
    if (node != nullptr) {
        *value = node->number != 0;
    }
    return result;
}
}
