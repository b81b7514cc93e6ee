/* What the plug-in reads out of real files, beside what ffprobe reads out of them. */
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include <gtest/gtest.h>
#include <unistd.h>

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

/* What ffprobe says, by its names: "duration", "TAG:title" and so on, in lower case. */
static values_map probed(const std::string& path) {
    const temporary_folder folder;
    const std::string out = folder.path + "/out";
    run_tool({"sh", "-c",
              "ffprobe -v error -show_entries "
              "format=duration:format_tags:stream=sample_rate,channels:stream_tags "
              "-select_streams a -of default=nw=1 \"$1\" >\"$2\"",
              "sh", path, out});
    values_map found;
    std::ifstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        const size_t equals = line.find('=');
        std::string name = line.substr(0, equals);
        for (char& byte : name) {
            byte = static_cast<char>(std::tolower(static_cast<unsigned char>(byte)));
        }
        const std::string value = equals != std::string::npos ? line.substr(equals + 1) : "";
        if (value != "N/A") {
            found.emplace(name, value);
        }
    }
    return found;
}

static void encode(const std::string& wav, const std::string& path,
                   const std::vector<std::string>& tags) {
    std::vector<std::string> words = {"ffmpeg", "-loglevel", "error", "-y", "-i", wav};
    for (const std::string& tag : tags) {
        words.insert(words.end(), {"-metadata", tag});
    }
    if (path.ends_with(".aiff")) {
        words.insert(words.end(), {"-write_id3v2", "1"});
    }
    words.push_back(path);
    run_tool(words);
}

TEST(files_tags, reads_what_ffprobe_reads) {
    library lib;
    const temporary_folder work;
    const std::string wav = work.path + "/tone.wav";
    write_tone(wav, 440, 2300);
    struct {
        const char *id, *codec;
    } const cases[] = {{"/a.flac", "FLAC"},      {"/a.mp3", "MP3"},    {"/a.ogg", "Vorbis"},
                       {"/a.opus", "Opus"},      {"/a.m4a", "AAC"},    {"/a.wav", "PCM"},
                       {"/a.aiff", "PCM"},       {"/a.wv", "WavPack"}, {"/a.wma", "WMA"},
                       {"/lossless.m4a", "ALAC"}};
    for (const auto& test : cases) {
        const std::string path = lib.folder.path + test.id;
        if (std::string(test.codec) == "ALAC") {
            run_tool({"ffmpeg", "-loglevel", "error", "-i", wav, "-c:a", "alac", "-metadata",
                      "title=T\xC3\xAFtle", path});
        } else {
            encode(wav, path,
                   {"title=T\xC3\xAFtle", "artist=\xD0\x9F\xD0\xB8\xD1\x82", "album=The Album"});
        }
    }
    start_library(&lib);
    for (const auto& test : cases) {
        SCOPED_TRACE(test.id);
        values_map expected = probed(lib.folder.path + test.id);
        metadata* data = nullptr;
        ASSERT_EQ(lib.api->browse_api->get_metadata(lib.session, test.id, &data), 0);
        const auto text = [](const char* tag) { return std::string(tag != nullptr ? tag : ""); };
        EXPECT_EQ(text(data->title), expected["tag:title"]);
        EXPECT_EQ(text(data->artist), expected["tag:artist"]);
        EXPECT_EQ(text(data->album), expected["tag:album"]);
        EXPECT_NEAR(data->duration, 1000 * std::atof(expected["duration"].c_str()), 60);
        free_metadata(&data);
        values_map found =
            extended(lib, test.id, {"codec", "sample_rate", "channels", "bitrate", "path"});
        EXPECT_EQ(found["codec"], test.codec);
        EXPECT_EQ(found["sample_rate"], expected["sample_rate"]);
        if (std::string(test.codec) != "AAC") { /* its container says 2, whatever is inside */
            EXPECT_EQ(found["channels"], expected["channels"]);
        }
        EXPECT_GE(std::atoi(found["bitrate"].c_str()), 8000);
        EXPECT_EQ(found["path"], lib.folder.path + test.id);
    }
    close_library(&lib);
}

TEST(files_tags, extended_metadata) {
    library lib;
    const temporary_folder work;
    const std::string wav = work.path + "/tone.wav";
    write_tone(wav, 440, 300);
    const std::vector<std::string> tags = {"composer=C. Omposer",
                                           "album_artist=Various",
                                           "REPLAYGAIN_TRACK_GAIN=-6.50 dB",
                                           "REPLAYGAIN_TRACK_PEAK=0.98765432",
                                           "REPLAYGAIN_ALBUM_GAIN=+1.2 dB",
                                           "REPLAYGAIN_ALBUM_PEAK=nonsense",
                                           "lyrics=One\nTwo"};
    const std::vector<std::string> plain = {"artist=Nobody"};
    for (const char* name : {"/a.flac", "/a.mp3"}) {
        encode(wav, lib.folder.path + name, tags);
    }
    encode(wav, lib.folder.path + "/plain.flac", plain);
    encode(wav, lib.folder.path + "/a.opus", {"R128_TRACK_GAIN=-512", "RATING=80"});
    encode(wav, lib.folder.path + "/stars.ogg", {"RATING=4"});
    write_file(lib.folder.path + "/broken.mp3", "ID3\x04\x01");
    start_library(&lib);
    const std::vector<const char*> keys = {"composer",
                                           "album_artist",
                                           "replaygain_track_gain",
                                           "replaygain_track_peak",
                                           "replaygain_album_gain",
                                           "replaygain_album_peak",
                                           "rating",
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
    EXPECT_EQ(extended(lib, "/plain.flac", keys), values_map{});
    EXPECT_EQ(
        extended(lib, "/broken.mp3", {"composer", "codec", "bitrate", "file_size"}).at("file_size"),
        "5");
    const values_map folder = extended(lib, "/", {"path", "codec", "file_size", "date_modified"});
    EXPECT_EQ(folder.at("path"), lib.folder.path);
    EXPECT_EQ(folder.count("codec") + folder.count("file_size"), 0U);
    EXPECT_EQ(folder.at("date_modified").size(), std::string("2026-11-23T12:00:00Z").size());
    EXPECT_EQ(extended(lib, "/gone.mp3", {"path"}), (values_map{{"", ""}}));
    EXPECT_EQ(extended(lib, "/../etc/passwd", {"path"}), (values_map{{"", ""}}));

    fs::last_write_time(lib.folder.path + "/a.flac",
                        fs::file_time_type::clock::from_sys(
                            std::chrono::sys_seconds{std::chrono::seconds{86400 * 366}}));
    EXPECT_EQ(extended(lib, "/a.flac", {"date_modified"})["date_modified"], "1971-01-02T00:00:00Z");
    close_library(&lib);
}
