/* Real media files for tests, made by the usual encoders, and what is in a WAV file. */
#ifndef LYRANE_TEST_MEDIA_FILES_H
#define LYRANE_TEST_MEDIA_FILES_H

#include <cstdint>
#include <string>
#include <vector>

/* A folder of its own, removed with all it holds at the end of the scope. */
struct temporary_folder {
    temporary_folder();
    ~temporary_folder();
    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;
    std::string path;
};

/* Runs a program; a test failure when it cannot be run or does not end with 0. */
void run_tool(std::vector<std::string> words);

/* Writes a file with this content, and the folders on the way to it. */
void write_file(const std::string& path, const std::string& content);

/* A tone of one channel at 44100 Hz, encoded by the ending of the path with the tags that ffmpeg
 * takes, as "name=value"; mkv is a video. */
void make_track(const std::string& path, double hertz, int32_t milliseconds,
                const std::vector<std::string>& tags = {});

/* A part of an ID3 tag, and a whole tag of such parts. */
std::string id3_frame(const std::string& name, const std::string& body);
std::string id3_tag(const std::string& frames);

/* A file with these tags and a moment of nothing, for an ending of mp3: title, artist, album, genre
 * in UTF-8; quickly made. */
std::string tagged_file(const std::string& title, const std::string& artist = "",
                        const std::string& album = "", const std::string& genre = "");

/* All bytes of a file. */
std::string file_content(const std::string& path);

/* The samples of a WAV file of 16 bits and one channel; its header may say that it is longer. */
std::vector<int16_t> read_wav(const std::string& path);

/* The share of the samples' power that is at a frequency: near 1 for a pure tone. */
double tone_share(const std::vector<int16_t>& samples, double hertz);

#endif
