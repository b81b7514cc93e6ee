/* Release operations of the media records. */
#include <lyrane/records.h>

#include <cstdlib>
#include <initializer_list>

/* Frees one string and forgets it. */
static void release_text(char** text) noexcept {
    std::free(*text);
    *text = nullptr;
}

static void release_texts(std::initializer_list<char**> texts) noexcept {
    for (char** text : texts) {
        release_text(text);
    }
}

extern "C" {

void free_medianode_contents(medianode* node) noexcept {
    if (node == nullptr) {
        return;
    }
    release_text(&node->id);
    release_text(&node->name);
    release_text(&node->url);
    release_text(&node->ms_uid);
}

void free_medianode(medianode** node) noexcept {
    if (node != nullptr) {
        free_medianodes(node, 1);
    }
}

void free_medianodes(medianode** nodes, int32_t count) noexcept {
    if (nodes == nullptr || *nodes == nullptr) {
        return;
    }
    for (int32_t i = 0; i < count; ++i) {
        free_medianode_contents(&(*nodes)[i]);
    }
    std::free(*nodes);
    *nodes = nullptr;
}

void free_metadata(metadata** data) noexcept {
    if (data == nullptr || *data == nullptr) {
        return;
    }
    metadata* record = *data;
    release_texts({&record->title, &record->album, &record->artist, &record->genre,
                   &record->artwork, &record->year, &record->extra});
    std::free(record);
    *data = nullptr;
}

void free_lyr_ms_node_metadata(lyr_ms_node_metadata** data) noexcept {
    if (data == nullptr || *data == nullptr) {
        return;
    }
    lyr_ms_node_metadata* record = *data;
    release_texts({&record->title, &record->album, &record->artist, &record->genre,
                   &record->artwork, &record->year, &record->extra});
    std::free(record);
    *data = nullptr;
}

void free_lyr_ms(lyr_ms** source) noexcept {
    if (source == nullptr || *source == nullptr) {
        return;
    }
    release_text(&(*source)->name);
    release_text(&(*source)->uid);
    release_text(&(*source)->view_name);
    std::free(*source);
    *source = nullptr;
}

void free_lyr_ms_node_contents(lyr_ms_node* node) noexcept {
    if (node == nullptr) {
        return;
    }
    release_text(&node->id);
    release_text(&node->name);
}

void free_lyr_ms_node(lyr_ms_node** node) noexcept {
    if (node != nullptr) {
        free_lyr_ms_nodes(node, 1);
    }
}

void free_lyr_ms_nodes(lyr_ms_node** nodes, int32_t count) noexcept {
    if (nodes == nullptr || *nodes == nullptr) {
        return;
    }
    for (int32_t i = 0; i < count; ++i) {
        free_lyr_ms_node_contents(&(*nodes)[i]);
    }
    std::free(*nodes);
    *nodes = nullptr;
}

mediasource* free_mediasource(mediasource* source) noexcept {
    return source;
}
}
