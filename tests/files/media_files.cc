/* Real media files for tests. */
#include "media_files.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "program.h"

static constexpr int32_t SAMPLE_RATE = 44100;

temporary_folder::temporary_folder() {
    std::string name = (std::filesystem::temp_directory_path() / "lyrane-files-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        std::abort();
    }
    path = name;
}

temporary_folder::~temporary_folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

void run_tool(std::vector<std::string> words) {
    words.insert(words.begin(), "/usr/bin/env");
    const program_result result = program_run(words);
    EXPECT_EQ(result.status, 0) << words[1] << ": " << result.out << result.err;
}

void write_file(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

void make_track(const std::string& path, double hertz, int32_t milliseconds,
                const std::vector<std::string>& tags) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const std::string tone =
        "sine=f=" + std::to_string(hertz) + ":d=" + std::to_string(milliseconds / 1000.0);
    std::vector<std::string> words = {"ffmpeg", "-loglevel", "error", "-y",
                                      "-f",     "lavfi",     "-i",    tone};
    if (path.ends_with(".mkv")) {
        words.insert(words.end(), {"-f", "lavfi", "-i", "testsrc=d=1:s=64x64:r=10", "-c:v", "mjpeg",
                                   "-c:a", "flac"});
    }
    for (const std::string& tag : tags) {
        words.insert(words.end(), {"-metadata", tag});
    }
    if (path.ends_with(".mp3")) { /* with texts in UTF-16 */
        words.insert(words.end(), {"-id3v2_version", "3"});
    } else if (path.ends_with(".aiff")) {
        words.insert(words.end(), {"-write_id3v2", "1"});
    }
    words.push_back(path);
    run_tool(words);
}

/* Seven bits in each byte. */
static std::string id3_size(size_t size) {
    std::string text;
    for (int shift = 21; shift >= 0; shift -= 7) {
        text += static_cast<char>(size >> shift & 0x7F);
    }
    return text;
}

std::string id3_frame(const std::string& name, const std::string& body) {
    return name + id3_size(body.size()) + std::string(2, '\0') + body;
}

std::string id3_tag(const std::string& frames) {
    return std::string("ID3\4\0\0", 6) + id3_size(frames.size()) + frames;
}

std::string tagged_file(const std::string& title, const std::string& artist,
                        const std::string& album, const std::string& genre) {
    const std::pair<const char*, const std::string&> texts[] = {
        {"TIT2", title}, {"TPE1", artist}, {"TALB", album}, {"TCON", genre}};
    std::string frames;
    for (const auto& [name, text] : texts) {
        frames += text.empty() ? "" : id3_frame(name, '\3' + text);
    }
    return id3_tag(frames);
}

std::string file_content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<int16_t> read_wav(const std::string& path) {
    const std::string text = file_content(path);
    const size_t data = text.find("data", 12);
    const size_t begin = data == std::string::npos ? text.size() : data + 8;
    std::vector<int16_t> samples((std::max(begin, text.size()) - begin) / sizeof(int16_t));
    std::copy_n(text.data() + begin, samples.size() * sizeof(int16_t),
                reinterpret_cast<char*>(samples.data())); /* of a little-endian machine */
    return samples;
}

/* The Goertzel filter, over the whole text of samples. */
double tone_share(const std::vector<int16_t>& samples, double hertz) {
    const double factor = 2 * std::cos(2 * M_PI * hertz / SAMPLE_RATE);
    double one = 0;
    double two = 0;
    double power = 0;
    for (const double sample : samples) {
        const double next = sample + factor * one - two;
        two = one;
        one = next;
        power += sample * sample;
    }
    const double found = one * one + two * two - factor * one * two;
    const auto count = static_cast<double>(samples.size());
    return samples.empty() || power == 0 ? 0 : 2 * found / (count * power);
}
