#include "fake_tree.h"

#include <cstdio>
#include <sstream>

#include <lyrane/records.h>

#include "fake_words.h"

namespace {

/* Where an id leads: a node that was written down, or `level` folders below one that generates. */
struct tree_place {
    const tree_node* base = nullptr;
    int32_t level = 0;
    int32_t track = -1;  /* a generated track, else -1 */
    int32_t folder = -1; /* the position of a generated folder in its parent */
};

std::string last_part(const std::string& id) {
    const size_t slash = id.rfind('/');
    return slash == std::string::npos || id.size() == 1 ? id : id.substr(slash + 1);
}

std::string join(const std::string& parent, char kind, int32_t number) {
    return (parent == "/" ? "" : parent) + '/' + kind + std::to_string(number);
}

int32_t folders_at(const tree_node& base, int32_t level) {
    return level < base.depth ? base.fan_out : 0;
}

bool descend(tree_place& place, const std::string& part) {
    const std::optional<int64_t> number =
        part.size() > 1 ? words_to_number(part.substr(1)) : std::nullopt;
    if (!number || *number < 0 || place.track >= 0) {
        return false;
    }
    if (part[0] == 'f' && *number < folders_at(*place.base, place.level)) {
        place.level += 1;
        place.folder = static_cast<int32_t>(*number);
        return true;
    }
    if (part[0] == 't' && *number < place.base->tracks) {
        place.track = static_cast<int32_t>(*number);
        return true;
    }
    return false;
}

bool locate(const tree& source, const std::string& id, tree_place& place) {
    const auto found = source.by_id.find(id);
    if (found != source.by_id.end()) {
        place = {&source.nodes[found->second]};
        return true;
    }
    if (id.size() < 2 || id.rfind('/') == std::string::npos) {
        return false;
    }
    return locate(source, tree_parent(id), place) && descend(place, last_part(id));
}

int32_t generated_count(const tree_place& place) {
    return place.track >= 0 ? 0 : folders_at(*place.base, place.level) + place.base->tracks;
}

int32_t place_count(const tree_place& place) {
    const size_t written = place.level == 0 && place.track < 0 ? place.base->children.size() : 0;
    return static_cast<int32_t>(written) + generated_count(place);
}

tree_item describe(const tree_place& place, const std::string& id) {
    if (place.level > 0 || place.track >= 0) {
        const bool is_track = place.track >= 0;
        const int32_t number = (is_track ? place.track : place.folder) + 1;
        return {id, (is_track ? "Track " : "Folder ") + std::to_string(number), "fake:" + id,
                is_track ? LYR_NODE_AUDIO : LYR_NODE_FOLDER, place_count(place)};
    }
    tree_item item = place.base->item;
    if (!place.base->count_given) {
        item.count = place_count(place);
    }
    return item;
}

size_t node_at(tree& target, const std::string& id) {
    const auto found = target.by_id.find(id);
    if (found != target.by_id.end()) {
        return found->second;
    }
    const size_t position = target.nodes.size();
    tree_node node;
    node.item = {id, last_part(id), "fake:" + id, LYR_NODE_FOLDER};
    target.nodes.push_back(node);
    target.by_id[id] = position;
    if (id != "/") {
        const size_t parent = node_at(target, tree_parent(id));
        target.nodes[parent].children.push_back(position);
    }
    return position;
}

bool set_type(tree_node& node, const std::string& text) {
    if (text == "F" || text.empty() || std::sscanf(text.c_str(), "tracks:%d", &node.tracks) == 1 ||
        std::sscanf(text.c_str(), "tree:%d,%d,%d", &node.depth, &node.fan_out, &node.tracks) == 3) {
        return true;
    }
    const std::optional<int64_t> number = text == "A"   ? LYR_NODE_AUDIO
                                          : text == "V" ? LYR_NODE_VIDEO
                                                        : words_to_number(text);
    node.item.type = static_cast<int32_t>(number.value_or(0));
    return number.has_value();
}

void set_text(std::optional<std::string>& field, const std::string& text) {
    if (text == "-") {
        field = std::nullopt;
    } else if (!text.empty()) {
        field = words_unescape(text);
    }
}

bool parse_line(tree& target, const std::string& line) {
    std::string field[5];
    std::istringstream fields(line);
    for (std::string& part : field) {
        std::getline(fields, part, '|');
    }
    if (field[0].empty() || field[0][0] != '/') {
        return false;
    }
    const std::string id = words_unescape(field[0]);
    const size_t position = node_at(target, id);
    tree_node& node = target.nodes[position];
    if (node.written) {
        target.nodes[target.by_id.at(tree_parent(id))].children.push_back(position);
    }
    node.written = true;
    set_text(node.item.name, field[2]);
    set_text(node.item.url, field[3]);
    if (!field[4].empty()) {
        node.count_given = true;
        node.item.count = static_cast<int32_t>(words_to_number(field[4]).value_or(0));
    }
    return set_type(node, field[1]);
}

/* The child of a place at a position, which must be below place_count. */
tree_item child_of(const tree& source, tree_place place, const std::string& id, int32_t position) {
    const int32_t written = place_count(place) - generated_count(place);
    if (position < written) {
        place = {&source.nodes[place.base->children[static_cast<size_t>(position)]]};
        return describe(place, place.base->item.id);
    }
    const int32_t generated = position - written;
    const int32_t folders = folders_at(*place.base, place.level);
    if (generated < folders) {
        place.level += 1;
        place.folder = generated;
        return describe(place, join(id, 'f', generated));
    }
    place.track = generated - folders;
    return describe(place, join(id, 't', place.track));
}

/* Walks the leaves in order until `limit` were taken. */
void search_below(const tree& source, const std::string& id, const std::string& key, int32_t& skip,
                  int64_t limit, std::vector<tree_item>& found) {
    tree_place place;
    locate(source, id, place);
    const int32_t count = place_count(place);
    for (int32_t i = 0; i < count && std::ssize(found) < limit; ++i) {
        const tree_item item = child_of(source, place, id, i);
        if (item.type == LYR_NODE_FOLDER) {
            search_below(source, item.id, key, skip, limit, found);
        } else if (item.name && item.name->find(key) != std::string::npos && --skip < 0) {
            found.push_back(item);
        }
    }
}

} // namespace

std::string tree_parent(const std::string& id) {
    const size_t slash = id.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : id.substr(0, slash);
}

std::string tree_parse(tree& target, const std::string& text) {
    tree fresh;
    node_at(fresh, "/");
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && !parse_line(fresh, line)) {
            return "bad node: " + line;
        }
    }
    target = std::move(fresh);
    return "";
}

std::optional<tree_item> tree_find(const tree& source, const std::string& id) {
    tree_place place;
    return locate(source, id, place) ? std::optional(describe(place, id)) : std::nullopt;
}

bool tree_page(const tree& source, const std::string& id, int32_t offset, int64_t limit,
               std::vector<tree_item>& items) {
    tree_place place;
    if (!locate(source, id, place)) {
        return false;
    }
    const int32_t count = place_count(place);
    for (int32_t i = offset; i < count && std::ssize(items) < limit; ++i) {
        items.push_back(child_of(source, place, id, i));
    }
    return true;
}

bool tree_search(const tree& source, const std::string& key, int32_t offset, int64_t limit,
                 std::vector<tree_item>& items) {
    search_below(source, "/", key, offset, limit, items);
    return true;
}
