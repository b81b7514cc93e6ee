/* The parsed text behind the decoder: a tree in two vectors. Private to this folder. */
#ifndef VELORAN_JSON_TREE_H
#define VELORAN_JSON_TREE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <veloran/json.h>

struct json_node {
    int32_t type = PPS_JSON_NULL; /* PPS_JSON_NULL .. PPS_JSON_OBJECT */
    bool is_unsigned = false;     /* of an integer: `number` is a uint64_t above INT64_MAX */
    int64_t number = 0;           /* integer, or 0 and 1 of a boolean */
    double real = 0;              /* double */
    std::string name;             /* of a member; any bytes */
    std::string text;             /* string; any bytes */
    uint32_t first = 0;           /* container: its children are links[first .. first+count-1] */
    uint32_t count = 0;
};

struct json_tree {
    std::vector<json_node> nodes;
    std::vector<uint32_t> links;         /* indices into nodes */
    uint32_t root = 0;                   /* valid when nodes is not empty */
    std::vector<std::string> duplicates; /* paths of members given more than once */
    int32_t error = PPS_JSON_OK;
    int32_t line = 0;
    int32_t column = 0;
    std::string reason;
};

/* Parses into an empty tree; the result is also in tree->error. After a failure the tree has no
 * nodes. Throws std::bad_alloc only. */
int32_t json_tree_parse(json_tree* tree, std::string_view text);

#endif
