#include "choose.h"

#include <algorithm>
#include <memory>
#include <string_view>

#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <veloran/paths.h>

#include "text.h"

namespace {

constexpr const char* PLAYERS_PATH = "/pps/services/lyrane";
constexpr const char* ARBITER_PATH = "/pps/services/multimedia/mediaplayer/control";
constexpr const char* TOP_FOLDER = "/"; /* media node id of a source's top folder */
constexpr int32_t PAGE = 500;           /* children asked for at once */

struct dir_close {
    void operator()(DIR* dir) const noexcept { closedir(dir); }
};

bool is_folder(DIR* dir, const char* name) {
    struct stat about = {};
    return fstatat(dirfd(dir), name, &about, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(about.st_mode);
}

std::string listed(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + text_printable(name);
    }
    return text;
}

std::vector<std::string> source_names(const std::vector<request_source>& sources) {
    std::vector<std::string> names;
    for (const request_source& source : sources) {
        names.push_back(std::to_string(source.id) + " (" +
                        (source.name.empty() ? source.uid : source.name) + ")");
    }
    return names;
}

using source_list = std::vector<const request_source*>;

source_list sources_with_id(const std::vector<request_source>& sources, int64_t id) {
    source_list found;
    for (const request_source& source : sources) {
        if (source.id == id) {
            found.push_back(&source);
        }
    }
    return found;
}

source_list sources_called(const std::vector<request_source>& sources, const std::string& wanted) {
    source_list by_uid;
    source_list by_name;
    for (const request_source& source : sources) {
        if (text_same(source.uid, wanted)) {
            by_uid.push_back(&source);
        }
        if (source.name == wanted || source.view_name == wanted) {
            by_name.push_back(&source);
        }
    }
    return by_uid.empty() ? by_name : by_uid;
}

/* The id of the child of this name in a folder, one that is a folder itself unless `any` is set;
 * empty when there is none. */
bool find_child(connection* to, int32_t source, const std::string& parent, std::string_view name,
                bool any, std::string* id) {
    id->clear();
    int32_t offset = 0;
    for (;;) {
        std::vector<request_node> children;
        if (!request_children(to, source, parent, offset, PAGE, &children)) {
            return false;
        }
        if (children.empty()) {
            return true;
        }
        for (const request_node& child : children) {
            if ((any || child.type == LYR_NODE_FOLDER) && child.name == name) {
                *id = child.id;
                return true;
            }
        }
        offset += static_cast<int32_t>(children.size());
    }
}

} // namespace

std::vector<std::string> choose_players(void) {
    std::vector<std::string> players;
    char path[PATH_MAX];
    if (paths_resolve_existing(PLAYERS_PATH, path, sizeof path) < 0) {
        return players;
    }
    const std::unique_ptr<DIR, dir_close> dir(opendir(path));
    if (dir == nullptr) {
        return players;
    }
    while (const dirent* entry = readdir(dir.get())) {
        if (entry->d_name[0] != '.' && is_folder(dir.get(), entry->d_name)) {
            players.emplace_back(entry->d_name);
        }
    }
    std::sort(players.begin(), players.end());
    return players;
}

bool choose_arbiter_runs(void) {
    char path[PATH_MAX];
    return paths_resolve_existing(ARBITER_PATH, path, sizeof path) >= 0 && access(path, F_OK) == 0;
}

const std::string* choose_player(const std::string& wanted, const std::vector<std::string>& players,
                                 std::string* why) {
    if (wanted.empty() && players.size() == 1) {
        return &players[0];
    }
    if (!wanted.empty() && std::find(players.begin(), players.end(), wanted) != players.end()) {
        return &wanted;
    }
    if (players.empty()) {
        *why = wanted.empty() ? "there is no player"
                              : "there is no player \"" + text_printable(wanted) + "\"";
        *why += "; \"lyractl open NAME\" makes one";
    } else if (wanted.empty()) {
        *why = "there are several players, say which one (-p): " + listed(players);
    } else {
        *why = "there is no player \"" + text_printable(wanted) + "\", only: " + listed(players);
    }
    return nullptr;
}

const request_source* choose_source(const std::string& wanted,
                                    const std::vector<request_source>& sources, std::string* why) {
    if (sources.empty()) {
        *why = "no media source is connected";
        return nullptr;
    }
    const std::string known = listed(source_names(sources));
    if (wanted.empty()) {
        if (sources.size() == 1) {
            return &sources[0];
        }
        *why = "there are several media sources, say which one: " + known;
        return nullptr;
    }
    int64_t id = 0;
    source_list found;
    if (text_number(wanted, &id)) {
        found = sources_with_id(sources, id);
    }
    if (found.empty()) {
        found = sources_called(sources, wanted);
    }
    if (found.size() == 1) {
        return found[0];
    }
    *why = found.empty() ? "there is no media source \"" : "several media sources are called \"";
    *why += text_printable(wanted) + "\"; connected: " + known;
    return nullptr;
}

bool choose_source_id(connection* to, const std::string& wanted, int32_t* id) {
    std::vector<request_source> sources;
    if (!request_sources(to, &sources)) {
        return false;
    }
    const request_source* source = choose_source(wanted, sources, &to->why);
    if (source != nullptr) {
        *id = source->id;
    }
    return source != nullptr;
}

static bool choose_by_path(connection* to, int32_t source, const std::string& wanted, bool any,
                           std::string* id) {
    *id = TOP_FOLDER;
    std::string_view rest = wanted;
    while (!rest.empty()) {
        const std::string_view name = rest.substr(0, rest.find('/'));
        rest.remove_prefix(std::min(name.size() + 1, rest.size()));
        if (name.empty()) {
            continue;
        }
        std::string child;
        if (!find_child(to, source, *id, name, any && rest.empty(), &child)) {
            return false;
        }
        if (child.empty()) {
            *id = wanted;
            return true;
        }
        *id = child;
    }
    return true;
}

bool choose_folder(connection* to, int32_t source, const std::string& wanted, std::string* id) {
    return choose_by_path(to, source, wanted, false, id);
}

bool choose_node(connection* to, int32_t source, const std::string& wanted, std::string* id) {
    return choose_by_path(to, source, wanted, true, id);
}
