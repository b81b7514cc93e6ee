#include "ppsnode.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <new>

#include <veloran/pps.h>

namespace {

constexpr size_t NUMBER_SIZE = 12; /* an int32_t with its sign */

} // namespace

vel_mutex ppsnode_lock;

lyr_ppsnode* ppsnode_new(lyr_ppsnode* parent, const char* name, int32_t instance,
                         ppsnode_kind kind) noexcept {
    const size_t length = std::strlen(name);
    void* memory = std::malloc(sizeof(lyr_ppsnode) + length + 1);
    if (memory == nullptr) {
        return nullptr;
    }
    auto* node = new (memory) lyr_ppsnode{};
    char* own_name = static_cast<char*>(memory) + sizeof(lyr_ppsnode);
    std::memcpy(own_name, name, length + 1);
    node->parent = parent;
    node->name = own_name;
    node->instance = instance;
    node->kind = kind;
    return node;
}

void ppsnode_free(lyr_ppsnode* node) noexcept {
    if (node == nullptr) {
        return;
    }
    pps_close(node->file);
    strm_dict_destroy(node->current);
    strm_dict_destroy(node->pending);
    std::free(node);
}

/* The instance as it stands behind the name; an empty text when there is none. */
static size_t instance_text(const lyr_ppsnode* node, char* digits) {
    if (node->instance == -1) {
        return 0;
    }
    return static_cast<size_t>(std::to_chars(digits, digits + NUMBER_SIZE, node->instance).ptr -
                               digits);
}

size_t ppsnode_path_length(const lyr_ppsnode* node, const char* option) noexcept {
    char digits[NUMBER_SIZE];
    size_t length = instance_text(node, digits);
    length += option == nullptr ? 0 : std::strlen(option) + 1;
    for (const lyr_ppsnode* at = node; at != nullptr; at = at->parent) {
        length += std::strlen(at->name) + (at->parent == nullptr ? 0 : 1);
    }
    return length;
}

/* Puts text in front of `end` and returns where it begins. */
static char* put_before(char* end, const char* text, size_t length) {
    std::memcpy(end - length, text, length);
    return end - length;
}

void ppsnode_write_path(const lyr_ppsnode* node, const char* option, char* end) noexcept {
    char* at = end;
    *at = '\0';
    if (option != nullptr) {
        at = put_before(at, option, std::strlen(option));
        at = put_before(at, "?", 1);
    }
    char digits[NUMBER_SIZE];
    at = put_before(at, digits, instance_text(node, digits));
    for (const lyr_ppsnode* part = node; part != nullptr; part = part->parent) {
        at = put_before(at, part->name, std::strlen(part->name));
        if (part->parent != nullptr) {
            at = put_before(at, "/", 1);
        }
    }
}

vel_text ppsnode_path(const lyr_ppsnode* node, const char* option) noexcept {
    const size_t length = ppsnode_path_length(node, option);
    vel_text path(static_cast<char*>(std::malloc(length + 1)));
    if (path != nullptr) {
        ppsnode_write_path(node, option, path.get() + length);
    }
    return path;
}

void ppsnode_link(lyr_ppsnode* node) noexcept {
    lyr_ppsnode* dir = node->parent;
    node->next = dir->first_child;
    node->prev_link = &dir->first_child;
    if (node->next != nullptr) {
        node->next->prev_link = &node->next;
    }
    dir->first_child = node;
}

void ppsnode_unlink(lyr_ppsnode* node) noexcept {
    if (node->prev_link == nullptr) {
        return;
    }
    *node->prev_link = node->next;
    if (node->next != nullptr) {
        node->next->prev_link = node->prev_link;
    }
    node->next = nullptr;
    node->prev_link = nullptr;
}

void ppsnode_use(lyr_ppsnode* dir) noexcept {
    while (dir != nullptr && ++dir->use_count == 1) {
        dir = dir->parent;
    }
}

void ppsnode_release(lyr_ppsnode* dir) noexcept {
    while (dir != nullptr && --dir->use_count == 0) {
        dir = dir->parent;
    }
}
