/* Nodes that were saved by an earlier run. */
#include "files_node_update.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "files_index_search.h"
#include "files_node.h"
#include "files_scan.h"

/* Replaces a text of a record that belongs to the service. */
static void replace(char** text, const std::string& with) {
    char* copy = strdup(with.c_str());
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    std::free(*text);
    *text = copy;
}

/* `*patience` is how long a look through the source may be waited for yet, in ms. */
static void update(const files_source& source, const files_cancel& cancel, int32_t* patience,
                   medianode* node) {
    node->ms_id = source.ms_id;
    node->ms_type = source.type;
    replace(&node->ms_uid, source.uid);
    if (!files_node_id_valid(node->id)) {
        return;
    }
    int32_t type = files_node_type(source, node->id);
    std::string moved;
    if (type == 0 && *patience > 0 && files_index_remembers(source, node->id)) {
        files_scan_await(source, *patience, cancel);
        *patience = 0;
    }
    if (type == 0 && files_index_find_moved(source, node->id, &moved)) {
        replace(&node->id, moved);
        replace(&node->name, files_source_last_part(moved));
        type = files_node_type(source, node->id);
    }
    if (type != 0) {
        node->type = type;
        replace(&node->url, files_node_uri(source, node->id));
    }
}

bool files_node_update(const files_source& source, const files_cancel& cancel, int32_t count,
                       medianode* nodes) {
    int32_t patience = FILES_UPDATE_MOST;
    for (int32_t i = 0; i < count; ++i) {
        if (source.gone) {
            return false;
        }
        update(source, cancel, &patience, &nodes[i]);
    }
    return !source.gone;
}
