/* Playlists: the locations that they name. */
#include "reader_playlist.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "files_playlist_text.h"
#include "files_reader_message.h"

static std::string_view trimmed(std::string_view text) noexcept {
    static constexpr std::string_view SPACE = " \t\r\n";
    const size_t begin = text.find_first_not_of(SPACE);
    if (begin == std::string_view::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(SPACE) - begin + 1);
}

/* --- the kinds ------------------------------------------------------------------------------ */

/* Calls for each line, without space at its ends. */
static void each_line(std::string_view text, void (*line)(std::string_view line, void* data),
                      void* data) {
    while (!text.empty()) {
        const size_t end = std::min(text.find_first_of("\r\n"), text.size());
        const std::string_view found = trimmed(text.substr(0, end));
        if (!found.empty()) {
            line(found, data);
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

static void add(std::vector<std::string>* locations, std::string_view location) {
    if (!location.empty() && location.size() <= FILES_PLAYLIST_LOCATION &&
        location.find('\0') == std::string_view::npos &&
        locations->size() < FILES_PLAYLIST_ENTRIES) {
        locations->emplace_back(location);
    }
}

static void m3u_line(std::string_view line, void* data) {
    if (line[0] != '#') {
        add(static_cast<std::vector<std::string>*>(data), line);
    }
}

/* "File12=song.mp3", in the order in which they stand there. */
static void pls_line(std::string_view line, void* data) {
    const size_t equals = line.find('=');
    if (files_text_begins(line, "file") && equals != std::string_view::npos) {
        add(static_cast<std::vector<std::string>*>(data), trimmed(line.substr(equals + 1)));
    }
}

/* The character of "#38" or "#x26"; 0: it is none. */
static uint32_t numbered_character(std::string_view entity) noexcept {
    const bool hexadecimal = entity.size() > 1 && files_text_folded(entity[1]) == 'x';
    uint32_t value = 0;
    for (const char byte : entity.substr(hexadecimal ? 2 : 1)) {
        const char digit = files_text_folded(byte);
        uint32_t number = 16;
        if (digit >= '0' && digit <= '9') {
            number = static_cast<uint32_t>(digit - '0');
        } else if (hexadecimal && digit >= 'a' && digit <= 'f') {
            number = static_cast<uint32_t>(digit - 'a') + 10;
        }
        value = value * (hexadecimal ? 16 : 10) + number;
        if (number == 16 || value > 0x10FFFF) {
            return 0;
        }
    }
    return value;
}

/* A text of XML as it is meant. */
static std::string without_entities(std::string_view text) {
    static constexpr std::pair<std::string_view, char> NAMED[] = {
        {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
    std::string plain;
    while (!text.empty()) {
        const size_t end = text[0] == '&' ? text.find(';') : std::string_view::npos;
        if (end == std::string_view::npos || end > 10) {
            plain += text[0];
            text.remove_prefix(1);
            continue;
        }
        const std::string_view entity = text.substr(1, end - 1);
        for (const auto& [name, character] : NAMED) {
            if (entity == name) {
                plain += character;
            }
        }
        const uint32_t number = files_text_begins(entity, "#") ? numbered_character(entity) : 0;
        if (number != 0) {
            files_text_append(&plain, number);
        }
        text.remove_prefix(end + 1);
    }
    return plain;
}

/* The first <location> of each <track>. What stands in comments is none. */
static void parse_xspf(std::string_view text, std::vector<std::string>* locations) {
    bool wanted = false;
    for (size_t at = text.find('<'); at != std::string_view::npos; at = text.find('<', at + 1)) {
        const std::string_view rest = text.substr(at);
        if (files_text_begins(rest, "<!--")) {
            const size_t end = text.find("-->", at + 4);
            at = std::min(end, text.size() - 1);
        } else if (files_text_begins(rest, "<track>") || files_text_begins(rest, "<track ")) {
            wanted = true;
        } else if (wanted && files_text_begins(rest, "<location>")) {
            const size_t begin = at + std::strlen("<location>");
            const size_t end = text.find('<', begin);
            if (end == std::string_view::npos) {
                return;
            }
            add(locations, without_entities(trimmed(text.substr(begin, end - begin))));
            wanted = false;
        }
    }
}

std::vector<std::string> reader_playlist(const std::string& name, const std::string& text) {
    std::vector<std::string> locations;
    std::string_view rest(text);
    if (files_text_begins(rest, "\xEF\xBB\xBF")) {
        rest.remove_prefix(3);
    }
    if (files_text_ends(name, ".xspf")) {
        parse_xspf(rest, &locations);
    } else {
        each_line(rest, files_text_ends(name, ".pls") ? pls_line : m3u_line, &locations);
    }
    return locations;
}
