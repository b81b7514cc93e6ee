/* Real media files for tests. */
#include "media_files.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <gtest/gtest.h>

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

void run_tool(const std::vector<std::string>& words) {
    std::vector<char*> arguments;
    for (const std::string& word : words) {
        arguments.push_back(strdup(word.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
    pid_t child = -1;
    int status = -1;
    const int failed =
        posix_spawnp(&child, arguments[0], &quiet, nullptr, arguments.data(), environ);
    EXPECT_EQ(failed, 0) << "cannot run " << words[0];
    if (failed == 0) {
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << words[0] << " failed";
    }
    posix_spawn_file_actions_destroy(&quiet);
    for (char* argument : arguments) {
        std::free(argument);
    }
}

void write_file(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

static std::string little_endian(uint32_t value, int bytes) {
    std::string text;
    for (int i = 0; i < bytes; ++i) {
        text += static_cast<char>(value >> (8 * i) & 0xFF);
    }
    return text;
}

void write_tone(const std::string& path, double hertz, int32_t milliseconds) {
    const auto count = static_cast<uint32_t>(int64_t{SAMPLE_RATE} * milliseconds / 1000);
    std::string wav = "RIFF" + little_endian(36 + 2 * count, 4) + "WAVEfmt " + little_endian(16, 4);
    wav += little_endian(1, 2) + little_endian(1, 2) + little_endian(SAMPLE_RATE, 4);
    wav += little_endian(2 * SAMPLE_RATE, 4) + little_endian(2, 2) + little_endian(16, 2);
    wav += "data" + little_endian(2 * count, 4);
    const size_t head = wav.size();
    wav.resize(head + 2 * size_t{count});
    char* at = wav.data() + head;
    for (uint32_t i = 0; i < count; ++i, at += 2) {
        const auto sample =
            static_cast<int16_t>(12000 * std::sin(2 * M_PI * hertz * i / SAMPLE_RATE));
        std::memcpy(at, &sample,
                    sizeof sample); /* in the order of this machine, a little-endian one */
    }
    write_file(path, wav);
}

/* The words with which one encoder takes tags. */
static std::vector<std::string> encoder_words(const std::string& ending,
                                              const std::vector<std::string>& tags) {
    std::vector<std::string> words;
    for (const std::string& tag : tags) {
        const std::string name = tag.substr(0, tag.find('='));
        const std::string value = tag.substr(tag.find('=') + 1);
        if (ending == ".flac" || ending == ".ogg") {
            const std::string key = name == "track"  ? "tracknumber"
                                    : name == "disc" ? "discnumber"
                                                     : name;
            words.push_back(ending == ".flac" ? "-T" : "-c");
            words.push_back(key + '=' + value);
        } else if (ending == ".mp3") {
            const std::string key = name == "disc" ? "TPOS" : "";
            words.push_back(name == "title"    ? "--tt"
                            : name == "artist" ? "--ta"
                            : name == "album"  ? "--tl"
                            : name == "genre"  ? "--tg"
                            : name == "date"   ? "--ty"
                            : name == "track"  ? "--tn"
                                               : "--tv");
            words.push_back(key.empty() ? value : key + '=' + value);
        } else {
            words.push_back("-metadata");
            words.push_back(tag);
        }
    }
    return words;
}

void make_track(const std::string& path, double hertz, int32_t milliseconds,
                const std::vector<std::string>& tags) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const temporary_folder folder;
    const std::string wav = folder.path + "/tone.wav";
    write_tone(wav, hertz, milliseconds);
    const std::string ending = std::filesystem::path(path).extension().string();
    std::vector<std::string> words;
    if (ending == ".flac") {
        words = {"flac", "--silent", "-f", "-o", path};
    } else if (ending == ".ogg") {
        words = {"oggenc", "--quiet", "--utf8", "-o", path};
    } else if (ending == ".mp3") {
        words = {"lame", "--quiet", "-b", "128", "--id3v2-utf16"};
    } else {
        words = {"ffmpeg", "-loglevel", "error", "-y", "-i", wav};
    }
    const auto tag_words = encoder_words(ending, tags);
    words.insert(words.end(), tag_words.begin(), tag_words.end());
    if (ending == ".flac" || ending == ".ogg" || ending == ".mp3") {
        words.push_back(wav);
    }
    if (ending != ".flac" && ending != ".ogg") {
        words.push_back(path);
    }
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

std::string tagged_file(const std::string& title, const std::string& artist,
                        const std::string& album, const std::string& genre) {
    const std::pair<const char*, const std::string&> texts[] = {
        {"TIT2", title}, {"TPE1", artist}, {"TALB", album}, {"TCON", genre}};
    std::string frames;
    for (const auto& [name, text] : texts) {
        if (!text.empty()) {
            frames += name + id3_size(text.size() + 1) + std::string(2, '\0') + '\3' + text;
        }
    }
    return std::string("ID3\4\0\0", 6) + id3_size(frames.size()) + frames;
}

std::vector<int16_t> read_wav(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(file)),
                           std::istreambuf_iterator<char>());
    const size_t data = text.find("data", 12);
    std::vector<int16_t> samples;
    for (size_t at = data == std::string::npos ? text.size() : data + 8; at + 1 < text.size();
         at += 2) {
        const auto low = static_cast<unsigned char>(text[at]);
        const auto high = static_cast<unsigned char>(text[at + 1]);
        samples.push_back(static_cast<int16_t>(low | high << 8));
    }
    return samples;
}

/* The Goertzel filter, over the whole text of samples. */
double tone_share(const std::vector<int16_t>& samples, double hertz) {
    const double turn = 2 * M_PI * hertz / SAMPLE_RATE;
    const double factor = 2 * std::cos(turn);
    double one = 0;
    double two = 0;
    double power = 0;
    for (const int16_t sample : samples) {
        const double next = sample + factor * one - two;
        two = one;
        one = next;
        power += double{static_cast<double>(sample)} * sample;
    }
    const double found = one * one + two * two - factor * one * two;
    const auto count = static_cast<double>(samples.size());
    return samples.empty() || power == 0 ? 0 : 2 * found / (count * power);
}
