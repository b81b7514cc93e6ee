/* Playlists: which files of a source they name. */
#include "files_playlist.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <string_view>

#include "files_node.h"
#include "files_playlist_text.h"

bool files_playlist_is(const char* name) noexcept {
    const std::string_view text(name);
    return files_text_ends(text, ".m3u") || files_text_ends(text, ".m3u8") ||
           files_text_ends(text, ".pls") || files_text_ends(text, ".xspf");
}

static int digit_of(char byte) noexcept {
    const char digit = files_text_folded(byte);
    return digit >= '0' && digit <= '9'   ? digit - '0'
           : digit >= 'a' && digit <= 'f' ? digit - 'a' + 10
                                          : -1;
}

/* "%41" stands for "A"; what is no such code stays. */
static std::string decoded(const std::string& text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        const int high = text[i] == '%' && i + 2 < text.size() ? digit_of(text[i + 1]) : -1;
        const int low = high >= 0 ? digit_of(text[i + 2]) : -1;
        if (low >= 0 && high * 16 + low != 0) {
            plain += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

/* Each byte as the character of that number: what old playlists are written in. */
static std::string from_latin(const std::string& text) {
    std::string converted;
    for (const char byte : text) {
        files_text_append(&converted, static_cast<unsigned char>(byte));
    }
    return converted;
}

static bool has_scheme(const std::string& location) noexcept {
    const size_t colon = location.find("://");
    return colon != std::string::npos && colon > 0 && location.find('/') > colon;
}

/* The id of a path: an absolute one leads into the source, a relative one begins at a folder. Empty
 * when it leads out of the source. */
static std::string id_of(const files_source& source, const std::string& folder,
                         const std::string& path) {
    std::string whole;
    if (path.empty() || path[0] != '/') {
        whole = folder + '/' + path;
    } else {
        const std::string root = source.root == "/" ? "/" : source.root + '/';
        if (!path.starts_with(root)) {
            return "";
        }
        whole = path.substr(root.size() - 1);
    }
    std::string id;
    for (size_t begin = 0; begin <= whole.size();) {
        const size_t end = std::min(whole.find('/', begin), whole.size());
        const std::string name = whole.substr(begin, end - begin);
        if (name == "..") {
            if (id.empty()) {
                return "";
            }
            id.erase(id.rfind('/'));
        } else if (!name.empty() && name != ".") {
            id += '/' + name;
        }
        begin = end + 1;
    }
    return id;
}

/* Ways to read a location, the plainest first. */
static std::vector<std::string> readings(const std::string& location) {
    if (files_text_begins(location, "file://")) {
        const size_t path = location.find('/', std::strlen("file://"));
        return path == std::string::npos ? std::vector<std::string>{}
                                         : std::vector<std::string>{decoded(location.substr(path))};
    }
    if (has_scheme(location)) {
        return {};
    }
    std::vector<std::string> ways = {location, decoded(location), from_latin(location)};
    std::string slashes = location;
    std::replace(slashes.begin(), slashes.end(), '\\', '/');
    ways.push_back(slashes);
    ways.push_back(from_latin(slashes));
    return ways;
}

static bool find_track(const files_source& source, const std::string& folder,
                       const std::string& location, files_playlist_track* track) {
    std::string tried;
    for (const std::string& path : readings(location)) {
        const std::string id = path != tried ? id_of(source, folder, path) : "";
        tried = path;
        const int32_t type = id.empty() ? 0 : files_node_type(source, id.c_str());
        if (type == LYR_NODE_AUDIO || type == LYR_NODE_VIDEO) {
            *track = {id, type};
            return true;
        }
    }
    return false;
}

bool files_playlist_find(const files_source& source, const std::string& id,
                         const std::vector<std::string>& locations, const files_cancel& cancel,
                         std::vector<files_playlist_track>* tracks) {
    const std::string folder = id.substr(0, id.rfind('/'));
    std::set<std::string> met;
    for (const std::string& location : locations) {
        if (files_cancelled(cancel)) {
            errno = ECANCELED;
            return false;
        }
        files_playlist_track track;
        if (find_track(source, folder, location, &track) && met.insert(track.id).second) {
            tracks->push_back(std::move(track));
        }
    }
    return true;
}
