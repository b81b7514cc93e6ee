/* A media tree: nodes that a test wrote down, and folders whose contents are generated. */
#ifndef FAKE_TREE_H
#define FAKE_TREE_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/* A node as it is handed out. */
struct tree_item {
    std::string id;
    std::optional<std::string> name = {};
    std::optional<std::string> url = {};
    int32_t type = 0;
    int32_t count = 0;
};

struct tree_node {
    tree_item item;
    bool count_given = false;
    bool written = false; /* has a line of its own */
    std::vector<size_t> children;
    /* Generated below this node. */
    int32_t tracks = 0;
    int32_t fan_out = 0;
    int32_t depth = 0;
};

struct tree {
    std::vector<tree_node> nodes; /* the root first */
    std::map<std::string, size_t> by_id;
};

/* Replaces the tree by one in text; "" or what is wrong with it. */
std::string tree_parse(tree& target, const std::string& text);

/* A node, if there is one of that id. */
std::optional<tree_item> tree_find(const tree& source, const std::string& id);

/* The children of a node from the one at `offset` on, at most `limit`; false when there is no such
 * node. */
bool tree_page(const tree& source, const std::string& id, int32_t offset, int64_t limit,
               std::vector<tree_item>& items);

/* Leaves whose name holds `key`, in the order of the tree, in the same way; always true. */
bool tree_search(const tree& source, const std::string& key, int32_t offset, int64_t limit,
                 std::vector<tree_item>& items);

/* The id of the folder that holds a node. */
std::string tree_parent(const std::string& id);

#endif
