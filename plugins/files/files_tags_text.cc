/* Texts from outside, cut to what is allowed. */
#include "files_tags_text.h"

#include <cstring>
#include <new>

static size_t cut_length(const std::string& text, size_t most) noexcept {
    size_t length = std::strlen(text.c_str());
    if (length > most) {
        length = most;
        while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) {
            --length;
        }
    }
    return length;
}

std::string files_tags_cut(const std::string& text, size_t most) {
    return text.substr(0, cut_length(text, most));
}

char* files_tags_text(const std::string& text, size_t most) {
    const size_t length = cut_length(text, most);
    if (length == 0) {
        return nullptr;
    }
    char* copy = strndup(text.c_str(), length);
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    return copy;
}
