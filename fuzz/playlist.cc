/* Playlists of the `files` plug-in: any text as each kind, looked for in a source with a few files.
 * What comes of it are ids within the source, of files that are there. */
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

#include "files_node.h"
#include "files_playlist.h"
#include "input.h"
#include "reader_playlist.h"

namespace {

constexpr const char* NAMES[] = {"/a/list.m3u", "/a/list.m3u8", "/a/list.pls", "/a/list.xspf"};

/* A source of its own, removed at the end. */
const files_source& source() {
    static files_source made;
    if (made.root.empty()) {
        std::string root = (std::filesystem::temp_directory_path() / "lyrane-fuzz-XXXXXX").string();
        require(mkdtemp(root.data()) != nullptr, "a folder");
        made.root = root;
        std::filesystem::create_directories(root + "/a");
        for (const char* name : {"/a.mp3", "/a/b.flac", "/a/%41.mp3", "/a/film.mkv"}) {
            std::ofstream(root + name).flush();
        }
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(made.root, ignored);
        });
    }
    return made;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string name = NAMES[data[0] % 4];
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::vector<std::string> locations = reader_playlist(name, text);
    for (const std::string& location : locations) {
        require(!location.empty(), "a location is some text");
    }
    const std::atomic<uint32_t> cancels = 0;
    const files_cancel cancel = {&cancels, 0, &source().gone};
    std::vector<files_playlist_track> tracks;
    require(files_playlist_find(source(), name, locations, cancel, &tracks), "they are looked for");
    std::set<std::string> met;
    for (const files_playlist_track& track : tracks) {
        require(files_node_id_valid(track.id.c_str()), "an id of the source");
        require(files_node_type(source(), track.id.c_str()) == track.type, "it is there");
        require(met.insert(track.id).second, "each once");
    }
    return 0;
}
