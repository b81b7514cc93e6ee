/* What reading a playlist and finding its files share: text of bytes. */
#ifndef LYRANE_FILES_PLAYLIST_TEXT_H
#define LYRANE_FILES_PLAYLIST_TEXT_H

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

inline char files_text_folded(char byte) noexcept {
    return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

/* True when the text begins so, without regard to case; `what` is in small letters. */
inline bool files_text_begins(std::string_view text, std::string_view what) noexcept {
    return text.size() >= what.size() &&
           std::equal(what.begin(), what.end(), text.begin(),
                      [](char left, char right) { return left == files_text_folded(right); });
}

/* True for a name with this ending, in small letters. */
inline bool files_text_ends(std::string_view name, std::string_view ending) noexcept {
    return name.size() > ending.size() &&
           files_text_begins(name.substr(name.size() - ending.size()), ending);
}

/* Appends a character in UTF-8. */
inline void files_text_append(std::string* text, uint32_t character) {
    if (character < 0x80) {
        *text += static_cast<char>(character);
    } else if (character < 0x800) {
        *text += static_cast<char>(0xC0 | character >> 6);
        *text += static_cast<char>(0x80 | (character & 0x3F));
    } else if (character < 0x10000) {
        *text += static_cast<char>(0xE0 | character >> 12);
        *text += static_cast<char>(0x80 | (character >> 6 & 0x3F));
        *text += static_cast<char>(0x80 | (character & 0x3F));
    } else {
        *text += static_cast<char>(0xF0 | character >> 18);
        *text += static_cast<char>(0x80 | (character >> 12 & 0x3F));
        *text += static_cast<char>(0x80 | (character >> 6 & 0x3F));
        *text += static_cast<char>(0x80 | (character & 0x3F));
    }
}

#endif
