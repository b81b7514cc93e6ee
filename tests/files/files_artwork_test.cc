/* Pictures of tracks: inside of files of several formats, beside them, and the folder that keeps
 * them. */
#include <cerrno>
#include <filesystem>
#include <iterator>

#include <gtest/gtest.h>

#include "files_artwork_cache.h"
#include "library.h"

namespace fs = std::filesystem;

static const std::string PNG("\x89PNG\r\n\x1A\n");
/* The same as the tag of a file with comments has it: a front cover, image/png. */
static constexpr const char* PNG_BLOCK =
    "AAAAAwAAAAlpbWFnZS9wbmcAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAiJUE5HDQoaCg==";

/* The location of a track's picture; "-" when it has none. */
static std::string artwork(const library& lib, const std::string& id) {
    return about(lib, id, &metadata::artwork);
}

/* What is in the file of a location. */
static std::string picture_at(const std::string& location) {
    EXPECT_TRUE(location.starts_with("file:///")) << location;
    return location.size() > 7 ? file_content(location.substr(7)) : "";
}

/* A tag with one picture, as it stands at the begin of an MP3 file. */
static std::string id3_picture(const std::string& mime, const std::string& picture) {
    const std::string nul(1, '\0');
    return id3_tag(id3_frame("APIC", nul + mime + nul + '\3' + nul + picture));
}

TEST(files_artwork, comes_out_of_files) {
    library lib;
    const std::string png = lib.cache.path + "/red.png";
    run_tool({"ffmpeg", "-loglevel", "error", "-f", "lavfi", "-i", "color=red:s=32x32", "-frames:v",
              "1", png});
    const std::string picture = file_content(png);
    ASSERT_TRUE(picture.starts_with(PNG));
    for (const char* name : {"/a.mp3", "/a.flac", "/a.m4a", "/a.aiff"}) {
        run_tool({"ffmpeg",
                  "-loglevel",
                  "error",
                  "-f",
                  "lavfi",
                  "-i",
                  "sine=d=0.2",
                  "-i",
                  png,
                  "-map",
                  "0",
                  "-map",
                  "1",
                  "-c:v",
                  "copy",
                  "-disposition:v",
                  "attached_pic",
                  "-write_id3v2",
                  "1",
                  lib.folder.path + name});
    }
    make_track(lib.folder.path + "/a.ogg", 440, 200,
               {std::string("METADATA_BLOCK_PICTURE=") + PNG_BLOCK});
    make_track(lib.folder.path + "/none.flac", 440, 200);
    start_library(&lib, {{"cache", lib.cache.path + "/deep/er"}});
    EXPECT_EQ(artwork(lib, "/none.flac"), "-");
    const std::string location = artwork(lib, "/a.mp3");
    EXPECT_TRUE(location.starts_with("file://" + lib.cache.path + "/deep/er/artwork/")) << location;
    EXPECT_TRUE(location.ends_with(".png"));
    EXPECT_EQ(picture_at(location), picture);
    for (const char* name : {"/a.flac", "/a.m4a", "/a.aiff"}) {
        EXPECT_EQ(artwork(lib, name), location) << name;
    }
    EXPECT_EQ(picture_at(artwork(lib, "/a.ogg")), PNG);
}

TEST(files_artwork, stands_beside_files) {
    library lib;
    const temporary_folder outside;
    write_file(outside.path + "/cover.png", PNG);
    add(lib, "/one #1/a.mp3", "");
    add(lib, "/one #1/Folder.JPG", "\xFF\xD8\xFF");
    add(lib, "/one #1/FOLDER.JPG", "\xFF\xD8\xFF");
    add(lib, "/one #1/front.png", PNG);
    add(lib, "/one #1/cover.jpg", "no picture");
    add(lib, "/none/a.mp3", "");
    fs::create_directories(lib.folder.path + "/none/folder.jpg");
    fs::create_symlink(outside.path + "/cover.png", lib.folder.path + "/none/cover.png");
    add(lib, "/inside/a.mp3", id3_picture("image/png", PNG + "inside"));
    add(lib, "/inside/cover.png", PNG);
    start_library(&lib);
    const std::string begin = "file://" + lib.folder.path;
    EXPECT_EQ(artwork(lib, "/one #1/a.mp3"), begin + "/one%20%231/FOLDER.JPG");
    EXPECT_EQ(artwork(lib, "/none/a.mp3"), "-") << "not out of the source";
    EXPECT_EQ(picture_at(artwork(lib, "/inside/a.mp3")), PNG + "inside");
    close_library(&lib);

    /* A cache that cannot be written is said once; what stands beside is found still. */
    write_file(lib.cache.path + "/file", "");
    start_library(&lib, {{"cache", lib.cache.path + "/file/cache"}});
    EXPECT_EQ(artwork(lib, "/inside/a.mp3"), begin + "/inside/cover.png");
    EXPECT_EQ(artwork(lib, "/inside/a.mp3"), begin + "/inside/cover.png");
    EXPECT_EQ(host_log_count("pictures cannot be kept"), 1);
    EXPECT_TRUE(host_log_wait("cannot be kept in", 2)) << "nor can the index";
    EXPECT_EQ(search(lib, nullptr, "a"), lines{});
    close_library(&lib);
    EXPECT_EQ(host_log_count("cannot be kept in"), 2);
}

TEST(files_artwork, bad_pictures) {
    library lib;
    const std::string large = PNG + std::string(10'000'000, 'x');
    const std::string tag = id3_picture("image/png", large);
    struct {
        const char* id;
        std::string file;
        std::string end; /* of the location, or "-" */
    } const cases[] = {
        {"/large.mp3", tag, ".png"},
        {"/huge.mp3", id3_picture("image/png", PNG + std::string(20'000'000, 'x')), "-"},
        {"/cut.mp3", tag.substr(0, 100'000), "-"},
        {"/head.mp3", tag.substr(0, 12), "-"},
        {"/lie.mp3", id3_picture("image/png", "\xFF\xD8\xFF\xE0 jpeg"), ".jpg"},
        {"/text.mp3", id3_picture("image/jpeg", "<html></html>"), "-"},
        {"/mime.mp3", id3_picture(std::string(5000, '/'), PNG), ".png"},
        {"/empty.mp3", id3_picture("image/png", ""), "-"},
    };
    for (const auto& test : cases) {
        add(lib, test.id, test.file);
    }
    start_library(&lib);
    for (const auto& test : cases) {
        const std::string location = artwork(lib, test.id);
        EXPECT_TRUE(location.ends_with(test.end)) << test.id << ' ' << location;
    }
    EXPECT_EQ(picture_at(artwork(lib, "/large.mp3")).size(), large.size());
}

TEST(files_artwork_cache, is_bounded) {
    const temporary_folder folder;
    const auto keep = [&](char kind) {
        return files_artwork_cache_keep(folder.path, PNG + std::string(92, kind), 300);
    };
    const auto set_age = [](const std::string& path, int hours) {
        fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::hours(hours));
    };
    const std::string a = keep('a');
    const std::string b = keep('b');
    const std::string c = keep('c');
    set_age(a, 3);
    set_age(b, 2);
    set_age(c, 1);
    EXPECT_EQ(keep('a'), a) << "asked for again: now it is the newest";
    write_file(folder.path + "/.left", "");
    write_file(folder.path + "/.young", "");
    set_age(folder.path + "/.left", 2);
    const std::string d = keep('d');
    EXPECT_TRUE(fs::exists(a) && !fs::exists(b) && fs::exists(c) && fs::exists(d));
    EXPECT_TRUE(!fs::exists(folder.path + "/.left") && fs::exists(folder.path + "/.young"));
    EXPECT_EQ(fs::status(d).permissions(), fs::perms{0644});

    /* Full of newer ones: what was just asked for stays, whatever its time. */
    for (const std::string& path : {a, c, d}) {
        set_age(path, -5);
    }
    EXPECT_TRUE(fs::exists(keep('e')));
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.path), {}), 4);

    EXPECT_EQ(files_artwork_cache_keep(folder.path, PNG + std::string(293, 'x'), 300), "");
    EXPECT_EQ(files_artwork_cache_keep(folder.path, "GIF8", 300), "");
    EXPECT_EQ(files_artwork_cache_keep("/dev/full/x", PNG, 300), "");
    EXPECT_EQ(errno, ENOTDIR);
}
