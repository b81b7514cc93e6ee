/* Folders that are made from the index, and playlists. */
#include <filesystem>

#include <gtest/gtest.h>

#include "library.h"

namespace fs = std::filesystem;

TEST(files_virtual, groups_tracks_by_their_tags) {
    library lib;
    add(lib, "/10.mp3", tagged_file("t", "Ann 2", "Hits", "Jazz"));
    add(lib, "/9.mp3", tagged_file("t", "Ann 10", "Hits", "Rock"));
    add(lib, "/x/1.mp3", tagged_file("t", "Ann 2", "Hits"));
    add(lib, "/x/2.mp3", tagged_file("t", "Ann 2", "Blue"));
    add(lib, "/x/3.mp3", tagged_file("t", "Ann 2", "", "Jazz"));
    add(lib, "/x/4.mp3", tagged_file("t", "AC/DC 100%\n", ".."));
    add(lib, "/x/untagged.mp3", "");
    for (const char* artist : {"One", "Two/2"}) {
        make_track(lib.folder.path + "/va/" + artist[0] + ".flac", 440, 50,
                   {"title=t", "album=Hits", std::string("album_artist=") + artist});
    }
    open_library(&lib);
    EXPECT_EQ(walk(lib, "/.by"), (lines{"/.by/artist|Artists|0", "/.by/album|Albums|0",
                                        "/.by/genre|Genres|0", "/.by/playlist|Playlists|0"}));
    const lines artists = {"/.by/artist/AC%2FDC 100%25%0A|AC/DC 100%\n|1",
                           "/.by/artist/Ann 2|Ann 2|3", "/.by/artist/Ann 10|Ann 10|1"};
    for (const int32_t size : {-1, 1, 2}) {
        EXPECT_EQ(walk(lib, "/.by/artist", size), artists);
    }
    const lines ann = {"/.by/artist/Ann 2/Blue|Blue|1", "/.by/artist/Ann 2/Hits|Hits|2",
                       "/x/3.mp3"};
    EXPECT_EQ(walk(lib, "/.by/artist/Ann 2"), ann);
    EXPECT_EQ(walk(lib, "/.by/artist/Ann 2/Hits"), (lines{"/10.mp3", "/x/1.mp3"}));
    EXPECT_EQ(walk(lib, "/.by/artist/AC%2FDC 100%25%0A/.."), lines{"/x/4.mp3"});
    const lines albums = {"/.by/album/..|..|1", "/.by/album/Blue|Blue|1", "/.by/album/Hits|Hits|3",
                          "/.by/album/Hits/One|Hits (One)|1",
                          "/.by/album/Hits/Two%2F2|Hits (Two/2)|1"};
    EXPECT_EQ(walk(lib, "/.by/album"), albums);
    EXPECT_EQ(walk(lib, "/.by/album/Hits/Two%2F2"), lines{"/va/T.flac"});
    EXPECT_EQ(walk(lib, "/.by/album/Hits").size(), 3U);
    EXPECT_EQ(walk(lib, "/.by/genre"), (lines{"/.by/genre/Jazz|Jazz|2", "/.by/genre/Rock|Rock|1"}));
    EXPECT_EQ(walk(lib, "/.by/genre/Jazz"), (lines{"/x/3.mp3", "/10.mp3"}));
    for (const char* id :
         {"/.by/", "/.by/year", "/.by/artist/", "/.by/artist/Nobody", "/.by/artist/Ann 2/None",
          "/.by/artist/Ann 2/Hits/x", "/.by/artist//Hits", "/.by/artist/%41nn 2", "/.by/genre/%",
          "/.by/genre/Jazz/x", "/.by/album/Hits/Three", "/.byx", "/.by/playlist/x",
          "/.by/playlist/%2F..%2Fx.m3u", "/.by/playlist/%2F10.mp3"}) {
        EXPECT_EQ(walk(lib, id), FAILED) << id;
    }
    EXPECT_EQ(about(lib, "/.by/artist", &metadata::title), "-");
    const lines top = walk(lib, "/");
    EXPECT_EQ(top, (lines{"/va|va|2", "/x|x|5", "/9.mp3", "/10.mp3"})) << "each track once";
    close_library(&lib);

    open_library(&lib, {{"virtual_folders", "0"}});
    EXPECT_EQ(walk(lib, "/.by"), FAILED);
    close_library(&lib);
    start_library(&lib, {{"index", "0"}});
    EXPECT_EQ(walk(lib, "/.by/artist"), FAILED);
    EXPECT_EQ(walk(lib, "/").size(), 4U);
}

TEST(files_virtual, reads_playlists) {
    library lib;
    const temporary_folder outside;
    for (const char* id :
         {"/a.mp3", "/b/a.mp3", "/b/c d#.flac", "/b/\xC3\xB6.mp3", "/film.mkv", "/100%25.mp3"}) {
        add(lib, id, "");
    }
    write_file(outside.path + "/x.mp3", "");
    fs::create_symlink(outside.path + "/x.mp3", lib.folder.path + "/out.mp3");
    const std::string root = lib.folder.path;
    struct {
        const char* id;
        std::string text;
        lines tracks;
    } const cases[] = {
        {"/b/plain.m3u",
         "#EXTM3U\r\n#EXTINF:1,x\r\na.mp3\r\n\r\n  ./c d#.flac \r\n../a.mp3\n../film.mkv",
         {"/b/a.mp3", "/b/c d#.flac", "/a.mp3", "/film.mkv (video)"}},
        {"/b/windows.M3U", "..\\a.mp3\r..\\b\\a.mp3\rC:\\Music\\a.mp3\r", {"/a.mp3", "/b/a.mp3"}},
        {"/b/latin.m3u", "\xF6.mp3\n", {"/b/\xC3\xB6.mp3"}},
        {"/b/utf.m3u8", "\xEF\xBB\xBF\xC3\xB6.mp3\n", {"/b/\xC3\xB6.mp3"}},
        {"/encoded.m3u",
         "b/c%20d%23.flac\n100%25.mp3\n%00.mp3\n%\n%4",
         {"/b/c d#.flac", "/100%25.mp3"}},
        {"/absolute.m3u",
         root + "/a.mp3\nfile://" + root + "/b/c%20d%23.flac\nfile://localhost" + root +
             "/film.mkv\n" + root + "x/a.mp3\n" + outside.path + "/x.mp3\n/a.mp3\n",
         {"/a.mp3", "/b/c d#.flac", "/film.mkv (video)"}},
        {"/b/outside.m3u",
         "../../a.mp3\n../../../../../../etc/passwd\n../out.mp3\n../../" +
             fs::path(outside.path).filename().string() + "/x.mp3\nhttp://x/a.mp3\n..\n.\n/\n",
         {}},
        {"/twice.m3u", "a.mp3\nb/a.mp3\n./a.mp3\na.mp3\n", {"/a.mp3", "/b/a.mp3"}},
        {"/self.m3u", "self.m3u\nb\ngone.mp3\n.hidden.mp3\na.mp3\n", {"/a.mp3"}},
        {"/list.pls",
         "[playlist]\nNumberOfEntries=2\nFile1=a.mp3\nTitle1=File\nLength1=1\nfile2 = b/a.mp3\n",
         {"/a.mp3", "/b/a.mp3"}},
        {"/list.xspf",
         "<?xml version=\"1.0\"?><playlist><location>film.mkv</location><trackList>\n"
         "<!-- <track><location>film.mkv</location></track> -->"
         "<track><title>a &lt; b</title><location>b/c%20d%23.flac</location></track>"
         "<track id=\"1\"><location> b/&#246;.mp3 </location><location>a.mp3</location></track>"
         "<track><location>file://" +
             root +
             "/a.mp3</location></track><track><location>b/&#xF6;.mp3&bad;</location></track>"
             "</trackList></playlist>",
         {"/b/c d#.flac", "/b/\xC3\xB6.mp3", "/a.mp3"}},
        {"/cut.xspf", "<track><location>a.mp3", {}},
        {"/bytes.m3u", std::string("\0\xFF\n\0a.mp3\na.mp3", 15), {"/a.mp3"}},
    };
    for (const auto& test : cases) {
        add(lib, test.id, test.text);
    }
    open_library(&lib);
    EXPECT_EQ(walk(lib, "/.by/playlist").size(), std::size(cases));
    for (const auto& test : cases) {
        std::string id = test.id;
        for (size_t at = 0; (at = id.find('/', at)) != std::string::npos;) {
            id.replace(at, 1, "%2F");
        }
        EXPECT_EQ(walk(lib, "/.by/playlist/" + id), test.tracks) << test.id;
        EXPECT_EQ(walk(lib, "/.by/playlist/" + id, 1), test.tracks) << test.id;
    }
    fs::remove(lib.folder.path + "/a.mp3");
    EXPECT_EQ(walk(lib, "/.by/playlist/%2Ftwice.m3u"), lines{"/b/a.mp3"});
}
