/* Folders that are made from the index. */
#include "files_virtual.h"

#include <algorithm>
#include <cstring>

#include "files_index_search.h"
#include "files_order.h"
#include "files_playlist.h"
#include "files_reader.h"
#include "files_tags.h"

static constexpr char TOP[] = "/.by";
static constexpr size_t TOP_LENGTH = sizeof TOP - 1;

/* The names of an id behind the top one. */
using id_names = std::vector<std::string>;
using node_list = std::vector<files_virtual_node>;

bool files_virtual_is(const char* id) noexcept {
    return id != nullptr && std::strncmp(id, TOP, TOP_LENGTH) == 0 &&
           (id[TOP_LENGTH] == '\0' || id[TOP_LENGTH] == '/');
}

/* --- ids ------------------------------------------------------------------------------------ */

static std::string encoded(const std::string& name) {
    static constexpr char DIGITS[] = "0123456789ABCDEF";
    std::string text;
    for (const char byte : name) {
        const auto value = static_cast<unsigned char>(byte);
        if (byte == '/' || byte == '%' || value < 0x20 || value == 0x7F) {
            text += '%';
            text += DIGITS[value >> 4];
            text += DIGITS[value & 0xF];
        } else {
            text += byte;
        }
    }
    return text;
}

static int digit_of(char byte) noexcept {
    return byte >= '0' && byte <= '9'   ? byte - '0'
           : byte >= 'A' && byte <= 'F' ? byte - 'A' + 10
                                        : -1;
}

/* Takes an id apart. False when it is not written as we write it, so that every folder has one id
 * only. */
static bool take_apart(const std::string& id, id_names* names) {
    std::string name;
    for (size_t i = TOP_LENGTH + 1; i <= id.size(); ++i) {
        if (i == id.size() || id[i] == '/') {
            if (name.empty()) {
                return false;
            }
            names->push_back(std::move(name));
            name.clear();
        } else if (id[i] == '%') {
            const int high = i + 2 < id.size() ? digit_of(id[i + 1]) : -1;
            const int low = high >= 0 ? digit_of(id[i + 2]) : -1;
            if (low < 0) {
                return false;
            }
            name += static_cast<char>(high << 4 | low);
            i += 2;
        } else {
            name += id[i];
        }
    }
    std::string again = TOP;
    for (const std::string& each : *names) {
        again += '/' + encoded(each);
    }
    return again == id;
}

/* --- rows ----------------------------------------------------------------------------------- */

static void add_group(sqlite3_stmt* row, void* data) {
    const std::string name = files_index_text(row, 0);
    static_cast<node_list*>(data)->push_back(
        {encoded(name), name, LYR_NODE_FOLDER, sqlite3_column_int(row, 1)});
}

/* An album's id has its artist's name as well, if it has one. */
static void add_album(sqlite3_stmt* row, void* data) {
    const std::string name = files_index_text(row, 0);
    const std::string artist = files_index_text(row, 2);
    const std::string id = artist.empty() ? encoded(name) : encoded(name) + '/' + encoded(artist);
    static_cast<node_list*>(data)->push_back(
        {id, name, LYR_NODE_FOLDER, sqlite3_column_int(row, 1)});
}

static void add_playlist(sqlite3_stmt* row, void* data) {
    const std::string file = files_index_text(row, 1);
    const std::string id = files_index_id(files_index_text(row, 0), file);
    static_cast<node_list*>(data)->push_back(
        {encoded(id), files_tags_stem(file), LYR_NODE_FOLDER, 0});
}

static void add_track(sqlite3_stmt* row, void* data) {
    const std::string file = files_index_text(row, 1);
    static_cast<node_list*>(data)->push_back(
        {files_index_id(files_index_text(row, 0), file), file, sqlite3_column_int(row, 2), 0});
}

static bool before(const files_virtual_node& left, const files_virtual_node& right) noexcept {
    return left.name != right.name ? files_order_before(left.name.c_str(), right.name.c_str())
                                   : left.id < right.id;
}

/* Albums of the same name are told apart by their artists. */
static void tell_apart(node_list* nodes) {
    for (size_t i = 0; i < nodes->size();) {
        size_t end = i + 1;
        while (end < nodes->size() && (*nodes)[end].name == (*nodes)[i].name) {
            ++end;
        }
        for (size_t k = i; end - i > 1 && k < end; ++k) {
            id_names names;
            if (take_apart((*nodes)[k].id, &names) && names.size() == 3) {
                (*nodes)[k].name += " (" + names[2] + ')';
            }
        }
        i = end;
    }
}

/* --- folders -------------------------------------------------------------------------------- */

struct virtual_folder {
    const char* kind;
    const char* name;
    void (*add_child)(sqlite3_stmt* row, void* data);
    const char* children; /* rows of the folder itself */
};

static constexpr virtual_folder FOLDERS[] = {
    {"artist", "Artists", add_group,
     "SELECT artist, count(DISTINCT nullif(album, '')) + sum(album = '') FROM tracks"
     " WHERE artist <> '' GROUP BY artist"},
    {"album", "Albums", add_album,
     "SELECT album, count(*), album_artist FROM tracks WHERE album <> ''"
     " GROUP BY album, album_artist"},
    {"genre", "Genres", add_group,
     "SELECT genre, count(*) FROM tracks WHERE genre <> '' GROUP BY genre"},
    {"playlist", "Playlists", add_playlist, "SELECT folder, file FROM tracks WHERE type = 0"},
};

static constexpr char ALBUMS_OF_ARTIST[] =
    "SELECT album, count(*) FROM tracks WHERE artist = ? AND artist <> '' AND album <> ''"
    " GROUP BY album";
static constexpr char SINGLES_OF_ARTIST[] =
    "SELECT folder, file, type FROM tracks WHERE artist = ? AND artist <> '' AND album = ''"
    " ORDER BY folder, file";
static constexpr char ARTIST_AND_ALBUM[] =
    "SELECT folder, file, type FROM tracks WHERE artist = ? AND artist <> '' AND album = ?"
    " AND album <> '' ORDER BY disc, track, folder, file";
static constexpr char ALBUM[] =
    "SELECT folder, file, type FROM tracks WHERE album = ? AND album <> '' AND album_artist = ?"
    " ORDER BY disc, track, folder, file";
static constexpr char GENRE[] =
    "SELECT folder, file, type FROM tracks WHERE genre = ? AND genre <> ''"
    " ORDER BY artist, album, disc, track, folder, file";

/* One look into the index. */
struct lookup {
    const files_source* source;
    files_index* index;
    files_cancel cancel;
    node_list nodes;
};

static bool select(lookup* look, const char* text, const std::vector<std::string>& values,
                   void (*add)(sqlite3_stmt* row, void* data)) {
    return files_index_select(look->index, text, values, look->cancel, add, &look->nodes);
}

/* Sorts folders and completes their ids. */
static void finish_folders(lookup* look, const std::string& above) {
    std::sort(look->nodes.begin(), look->nodes.end(), before);
    for (files_virtual_node& node : look->nodes) {
        node.id = above + '/' + node.id;
    }
}

static bool read_kind(lookup* look, const virtual_folder& folder) {
    const bool read = select(look, folder.children, {}, folder.add_child);
    finish_folders(look, std::string(TOP) + '/' + folder.kind);
    tell_apart(&look->nodes);
    return read;
}

static bool read_artist(lookup* look, const id_names& names) {
    if (names.size() == 3) {
        return select(look, ARTIST_AND_ALBUM, {names[1], names[2]}, add_track) &&
               !look->nodes.empty();
    }
    const bool read = select(look, ALBUMS_OF_ARTIST, {names[1]}, add_group);
    finish_folders(look, std::string(TOP) + "/artist/" + encoded(names[1]));
    return read && select(look, SINGLES_OF_ARTIST, {names[1]}, add_track) && !look->nodes.empty();
}

static bool read_playlist(lookup* look, const id_names& names) {
    std::vector<files_playlist_track> tracks;
    const std::string& id = names[1];
    files_reader_found found;
    if (!files_playlist_is(id.c_str()) ||
        files_reader_ask(*look->source, id.c_str(), {FILES_READ_LOCATIONS, 0}, look->cancel,
                         &found) != files_reader_end::read ||
        !files_playlist_find(*look->source, id, found.locations, look->cancel, &tracks)) {
        return false;
    }
    for (files_playlist_track& track : tracks) {
        const std::string name = files_source_last_part(track.id);
        look->nodes.push_back({std::move(track.id), name, track.type, 0});
    }
    return true;
}

/* What is in one artist, album, genre or playlist; false when there is none. */
static bool read_group(lookup* look, const id_names& names) {
    if (names[0] == "artist" && names.size() <= 3) {
        return read_artist(look, names);
    }
    if (names[0] == "album" && names.size() <= 3) {
        const std::string artist = names.size() == 3 ? names[2] : "";
        return select(look, ALBUM, {names[1], artist}, add_track) && !look->nodes.empty();
    }
    if (names[0] == "genre" && names.size() == 2) {
        return select(look, GENRE, {names[1]}, add_track) && !look->nodes.empty();
    }
    return names[0] == "playlist" && names.size() == 2 && read_playlist(look, names);
}

static bool read(lookup* look, const id_names& names) {
    if (names.empty()) {
        for (const virtual_folder& folder : FOLDERS) {
            look->nodes.push_back(
                {std::string(TOP) + '/' + folder.kind, folder.name, LYR_NODE_FOLDER, 0});
        }
        return true;
    }
    if (names.size() > 1) {
        return read_group(look, names);
    }
    const auto* folder =
        std::find_if(std::begin(FOLDERS), std::end(FOLDERS),
                     [&names](const virtual_folder& each) { return names[0] == each.kind; });
    return folder != std::end(FOLDERS) && read_kind(look, *folder);
}

files_virtual_listing files_virtual_read(const files_source& source, files_index* index,
                                         const std::string& id, const files_cancel& cancel) {
    id_names names;
    if (index == nullptr || !source.settings->virtual_folders || !take_apart(id, &names)) {
        return nullptr;
    }
    lookup look = {&source, index, cancel, {}};
    if (!read(&look, names)) {
        return nullptr;
    }
    return std::make_shared<const node_list>(std::move(look.nodes));
}
