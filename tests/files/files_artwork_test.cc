/* Pictures of tracks: inside of files of several formats, beside them, and the folder that keeps
 * them. */
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "files_artwork_cache.h"
#include "library.h"

namespace fs = std::filesystem;

static const std::string PNG("\x89PNG\r\n\x1A\n");

static std::string content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/* The location of a track's picture; "-" when it has none. */
static std::string artwork(const library& lib, const std::string& id) {
    metadata* data = nullptr;
    EXPECT_EQ(lib.api->browse_api->get_metadata(lib.session, id.c_str(), &data), 0);
    const std::string location = data != nullptr && data->artwork != nullptr ? data->artwork : "-";
    free_metadata(&data);
    return location;
}

static std::string big_endian(size_t value, int bytes) {
    std::string text;
    for (int i = bytes - 1; i >= 0; --i) {
        text += static_cast<char>(value >> (8 * i) & 0xFF);
    }
    return text;
}

/* A tag with one picture, as it stands at the begin of an MP3 file. */
static std::string id3_picture(const std::string& mime, const std::string& picture) {
    const std::string body =
        std::string(1, '\0') + mime + std::string(1, '\0') + '\3' + std::string(1, '\0') + picture;
    const std::string frame = "APIC" + big_endian(body.size(), 4) + std::string(2, '\0') + body;
    std::string size;
    for (int shift = 21; shift >= 0; shift -= 7) {
        size += static_cast<char>(frame.size() >> shift & 0x7F);
    }
    return std::string("ID3\3\0\0", 6) + size + frame;
}

static std::string base64(const std::string& bytes) {
    static constexpr char DIGITS[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        uint32_t group = 0;
        for (size_t k = 0; k < 3; ++k) {
            const size_t at = i + k;
            group = group << 8 | (at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0U);
        }
        for (size_t k = 0; k < 4; ++k) {
            text += i + k > bytes.size() ? '=' : DIGITS[group >> (18 - 6 * k) & 0x3F];
        }
    }
    return text;
}

TEST(files_artwork, comes_out_of_files) {
    library lib;
    const temporary_folder work;
    const std::string wav = work.path + "/tone.wav";
    const std::string png = work.path + "/red.png";
    write_tone(wav, 440, 200);
    run_tool({"ffmpeg", "-loglevel", "error", "-f", "lavfi", "-i", "color=red:s=32x32", "-frames:v",
              "1", png});
    const std::string picture = content(png);
    ASSERT_TRUE(picture.starts_with(PNG));
    for (const char* name : {"/a.mp3", "/a.flac", "/a.m4a", "/a.aiff"}) {
        run_tool({"ffmpeg", "-loglevel", "error", "-i", wav, "-i", png, "-map", "0", "-map", "1",
                  "-c:v", "copy", "-disposition:v", "attached_pic", "-write_id3v2", "1",
                  lib.folder.path + name});
    }
    const std::string block = big_endian(3, 4) + big_endian(9, 4) + "image/png" + big_endian(0, 4) +
                              std::string(16, '\0') + big_endian(picture.size(), 4) + picture;
    make_track(lib.folder.path + "/a.ogg", 440, 200, {"METADATA_BLOCK_PICTURE=" + base64(block)});
    make_track(lib.folder.path + "/none.flac", 440, 200);
    start_library(&lib, {{"cache", lib.cache.path + "/deep/er"}});
    EXPECT_EQ(artwork(lib, "/none.flac"), "-");
    const std::string location = artwork(lib, "/a.mp3");
    ASSERT_TRUE(location.starts_with("file://" + lib.cache.path + "/deep/er/artwork/")) << location;
    EXPECT_TRUE(location.ends_with(".png"));
    EXPECT_EQ(content(location.substr(7)), picture);
    for (const char* name : {"/a.flac", "/a.m4a", "/a.aiff", "/a.ogg"}) {
        EXPECT_EQ(artwork(lib, name), location) << name;
    }
    close_library(&lib);
}

TEST(files_artwork, stands_beside_files) {
    library lib;
    const temporary_folder outside;
    write_file(outside.path + "/cover.png", PNG);
    write_file(lib.folder.path + "/one #1/a.mp3", "");
    write_file(lib.folder.path + "/one #1/Folder.JPG", "\xFF\xD8\xFF");
    write_file(lib.folder.path + "/one #1/FOLDER.JPG", "\xFF\xD8\xFF");
    write_file(lib.folder.path + "/one #1/front.png", PNG);
    write_file(lib.folder.path + "/one #1/cover.jpg", "no picture");
    write_file(lib.folder.path + "/none/a.mp3", "");
    fs::create_directories(lib.folder.path + "/none/folder.jpg");
    fs::create_symlink(outside.path + "/cover.png", lib.folder.path + "/none/cover.png");
    write_file(lib.folder.path + "/inside/a.mp3", id3_picture("image/png", PNG + "inside"));
    write_file(lib.folder.path + "/inside/cover.png", PNG);
    start_library(&lib);
    const std::string begin = "file://" + lib.folder.path;
    EXPECT_EQ(artwork(lib, "/one #1/a.mp3"), begin + "/one%20%231/FOLDER.JPG");
    EXPECT_EQ(artwork(lib, "/none/a.mp3"), "-") << "not out of the source";
    EXPECT_NE(artwork(lib, "/inside/a.mp3"), begin + "/inside/cover.png");
    close_library(&lib);

    /* A cache that cannot be written is said once; what stands beside is found still. */
    write_file(lib.cache.path + "/file", "");
    start_library(&lib, {{"cache", lib.cache.path + "/file/cache"}});
    EXPECT_EQ(artwork(lib, "/inside/a.mp3"), begin + "/inside/cover.png");
    EXPECT_EQ(artwork(lib, "/inside/a.mp3"), begin + "/inside/cover.png");
    EXPECT_EQ(host_log_count("pictures cannot be kept"), 1);
    close_library(&lib);
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
        write_file(lib.folder.path + test.id, test.file);
    }
    start_library(&lib);
    for (const auto& test : cases) {
        const std::string location = artwork(lib, test.id);
        EXPECT_TRUE(location.ends_with(test.end)) << test.id << ' ' << location;
    }
    EXPECT_EQ(content(artwork(lib, "/large.mp3").substr(7)).size(), large.size());
    close_library(&lib);
}

TEST(files_artwork_cache, is_bounded) {
    const temporary_folder folder;
    const auto picture = [](char kind) { return PNG + std::string(92, kind); };
    const auto keep = [&](char kind) {
        return files_artwork_cache_keep(folder.path, picture(kind), 300);
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
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(files_artwork_cache_keep(folder.path, "GIF8", 300), "");
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(files_artwork_cache_keep("/dev/full/x", picture('a'), 300), "");
    EXPECT_EQ(errno, ENOTDIR);
}
