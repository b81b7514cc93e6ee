/* Arrays of media nodes that are handed over. */
#include "files_browse_page.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "files_node.h"
#include "files_virtual.h"

files_browse_page files_browse_new_page(int32_t count) {
    files_browse_page nodes(nullptr, {count});
    if (count > 0) {
        nodes.reset(
            static_cast<medianode*>(std::calloc(static_cast<size_t>(count), sizeof(medianode))));
        if (nodes == nullptr) {
            throw std::bad_alloc();
        }
    }
    return nodes;
}

char* files_browse_copy(const std::string& text) {
    char* copy = strdup(text.c_str());
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    return copy;
}

void files_browse_fill(const files_source& source, const std::string& id, const std::string& name,
                       medianode* node) {
    node->id = files_browse_copy(id);
    node->name = files_browse_copy(name);
    if (!files_virtual_is(id.c_str())) {
        node->url = files_browse_copy(files_node_uri(source, id.c_str()));
    }
    node->ms_id = source.ms_id;
    node->ms_type = source.type;
    node->ms_uid = files_browse_copy(source.uid);
}
