/* What the plug-in reads out of real files. */
#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>

#include "library.h"

namespace fs = std::filesystem;

using values_map = std::map<std::string, std::string>;

/* The values of these keys that are not null; {"", ""} when the call failed. */
static values_map extended(const library& lib, const char* id,
                           const std::vector<const char*>& keys) {
    std::vector<const char*> names = keys;
    names.push_back(nullptr);
    std::vector<char*> values(names.size(), nullptr);
    const int32_t result =
        lib.api->browse_api->get_extended_metadata(lib.session, id, names.data(), values.data());
    values_map found;
    for (size_t i = 0; i < keys.size(); ++i) {
        if (values[i] != nullptr) {
            found[keys[i]] = values[i];
            std::free(values[i]);
        }
    }
    return result == 0 ? found : values_map{{"", ""}};
}

TEST(files_tags, reads_what_encoders_write) {
    library lib;
    const std::vector<std::string> tags = {"title=Fl\xC3\xB6te",
                                           "artist=\xD0\x9F\xD0\xB8\xD1\x82",
                                           "album=The Album",
                                           "genre=Jazz",
                                           "date=1999",
                                           "track=7",
                                           "disc=2"};
    struct {
        const char *id, *codec;
        bool has_all; /* or title, artist and album only */
    } const cases[] = {{"/a.flac", "FLAC", true},       {"/a.mp3", "MP3", true},
                       {"/a.ogg", "Vorbis", true},      {"/a.m4a", "AAC", true},
                       {"/bad\xFF.flac", "FLAC", true}, {"/a.opus", "Opus", false},
                       {"/a.wav", "PCM", false},        {"/a.aiff", "PCM", false},
                       {"/a.wv", "WavPack", false},     {"/a.wma", "WMA", false}};
    for (const auto& test : cases) {
        make_track(lib.folder.path + test.id, 440, 2300, tags);
    }
    start_library(&lib);
    for (const auto& test : cases) {
        SCOPED_TRACE(test.id);
        metadata* data = nullptr;
        ASSERT_EQ(lib.api->browse_api->get_metadata(lib.session, test.id, &data), 0);
        ASSERT_NE(data, nullptr);
        EXPECT_STREQ(data->title, "Fl\xC3\xB6te");
        EXPECT_STREQ(data->artist, "\xD0\x9F\xD0\xB8\xD1\x82");
        EXPECT_STREQ(data->album, "The Album");
        if (test.has_all) {
            EXPECT_STREQ(data->genre, "Jazz");
            EXPECT_STREQ(data->year, "1999");
            EXPECT_EQ(data->track, 7);
            EXPECT_EQ(data->disc, 2);
        }
        EXPECT_NEAR(data->duration, 2300, 100);
        EXPECT_EQ(data->artwork, nullptr);
        free_metadata(&data);
        values_map found =
            extended(lib, test.id, {"codec", "sample_rate", "channels", "bitrate", "path"});
        EXPECT_EQ(found["codec"], test.codec);
        EXPECT_EQ(found["sample_rate"], test.codec == std::string("Opus") ? "48000" : "44100");
        if (test.codec != std::string("AAC")) { /* its container says 2, whatever is inside */
            EXPECT_EQ(found["channels"], "1");
        }
        EXPECT_GE(std::atoi(found["bitrate"].c_str()), 8000);
        EXPECT_EQ(found["path"], lib.folder.path + test.id);
    }
}

TEST(files_tags, extended_metadata) {
    library lib;
    const std::string& root = lib.folder.path;
    for (const char* name : {"/a.flac", "/a.mp3"}) {
        make_track(root + name, 440, 300,
                   {"composer=C. Omposer", "album_artist=Various", "REPLAYGAIN_TRACK_GAIN=-6.50 dB",
                    "REPLAYGAIN_TRACK_PEAK=0.98765432", "REPLAYGAIN_ALBUM_GAIN=+1.2 dB",
                    "REPLAYGAIN_ALBUM_PEAK=nonsense", "lyrics=One\nTwo"});
    }
    make_track(root + "/plain.name.flac", 440, 300);
    make_track(root + "/a.opus", 440, 300, {"R128_TRACK_GAIN=-512", "RATING=80"});
    make_track(root + "/stars.ogg", 440, 300, {"RATING=4"});
    const std::pair<const char*, std::string> broken[] = {{"/short.mp3", "ID3\x04\x01"},
                                                          {"/noise.mp3", std::string(9000, 'Z')},
                                                          {"/bad.flac", "fLaC\xFF\xFF\xFF"},
                                                          {"/empty.ogg", ""}};
    for (const auto& [id, content] : broken) {
        add(lib, id, content);
    }
    start_library(&lib);
    const std::vector<const char*> keys = {"composer",
                                           "album_artist",
                                           "replaygain_track_gain",
                                           "replaygain_track_peak",
                                           "replaygain_album_gain",
                                           "rating",
                                           "replaygain_album_peak",
                                           "no such key",
                                           ""};
    const values_map expected = {{"composer", "C. Omposer"},
                                 {"album_artist", "Various"},
                                 {"replaygain_track_gain", "-6.50"},
                                 {"replaygain_track_peak", "0.987654"},
                                 {"replaygain_album_gain", "1.20"}};
    EXPECT_EQ(extended(lib, "/a.flac", keys), expected);
    EXPECT_EQ(extended(lib, "/a.mp3", keys), expected);
    EXPECT_EQ(extended(lib, "/a.flac", {"lyrics"})["lyrics"], "One\nTwo");
    EXPECT_EQ(extended(lib, "/a.opus", keys),
              (values_map{{"replaygain_track_gain", "3.00"}, {"rating", "80"}}));
    EXPECT_EQ(extended(lib, "/stars.ogg", {"rating"})["rating"], "80");
    EXPECT_EQ(extended(lib, "/plain.name.flac", keys), values_map{});
    EXPECT_EQ(about(lib, "/plain.name.flac", &metadata::title), "plain.name");
    EXPECT_EQ(about(lib, "/", &metadata::title), "-") << "a folder has none";
    for (const auto& [id, content] : broken) {
        EXPECT_EQ(about(lib, id, &metadata::title), fs::path(id).stem().string());
        EXPECT_EQ(about(lib, id, &metadata::year), "-");
        EXPECT_EQ(extended(lib, id, {"composer", "codec", "file_size"})["file_size"],
                  std::to_string(content.size()));
    }
    EXPECT_EQ(host_log_count("; it is"), 0) << "they do the reader no harm";
    EXPECT_EQ(extended(lib, "/gone.mp3", {"path"}), (values_map{{"", ""}}));
    EXPECT_EQ(extended(lib, "/../etc/passwd", {"path"}), (values_map{{"", ""}}));

    for (const char* name : {"/a.flac", ""}) {
        fs::last_write_time(root + name, fs::file_time_type::clock::from_sys(
                                             std::chrono::sys_seconds{std::chrono::days(366)}));
    }
    const std::vector<const char*> outside = {"path", "codec", "date_modified"};
    EXPECT_EQ(extended(lib, "/a.flac", outside)["date_modified"], "1971-01-02T00:00:00Z");
    EXPECT_EQ(extended(lib, "/", outside),
              (values_map{{"path", root}, {"date_modified", "1971-01-02T00:00:00Z"}}));
}
