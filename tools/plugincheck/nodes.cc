#include "nodes.h"

#include <cstdlib>
#include <cstring>

#include "text.h"

static constexpr size_t SHOWN_MOST = 40;

static std::optional<std::string> text_of(const char* text) {
    return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

static char* duplicate(const std::optional<std::string>& text) {
    return text ? strdup(text->c_str()) : nullptr;
}

node_copy node_copy_of(const medianode& node) {
    return {text_of(node.id), text_of(node.name), text_of(node.url), text_of(node.ms_uid),
            node.type,        node.count,         node.ms_id,        node.ms_type};
}

medianode node_record(const node_copy& copy) {
    return {duplicate(copy.id), duplicate(copy.name), duplicate(copy.url), copy.type,
            copy.count,         copy.ms_id,           copy.ms_type,        duplicate(copy.ms_uid)};
}

std::string node_shown(const std::string& id) {
    return "'" + text_printable(id.substr(0, SHOWN_MOST)) + (id.size() > SHOWN_MOST ? "…'" : "'");
}
