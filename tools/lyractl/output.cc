#include "output.h"

#include <algorithm>
#include <cstdio>

#include <lyrane/records.h>
#include <nlohmann/json.hpp>

#include "text.h"

namespace {

struct word {
    int32_t number;
    const char* text;
};

constexpr word STATUS_WORDS[] = {
    {LYR_STATUS_DESTROYED, "destroyed"}, {LYR_STATUS_IDLE, "idle"},
    {LYR_STATUS_PLAYING, "playing"},     {LYR_STATUS_PAUSED, "paused"},
    {LYR_STATUS_STOPPED, "stopped"},
};
constexpr word REPEAT_WORDS[] = {
    {LYR_REPEAT_OFF, "off"}, {LYR_REPEAT_ALL, "all"}, {LYR_REPEAT_ONE, "one"}};
constexpr word NODE_WORDS[] = {
    {LYR_NODE_FOLDER, "folder"}, {LYR_NODE_AUDIO, "audio"}, {LYR_NODE_VIDEO, "video"}};
constexpr word SOURCE_WORDS[] = {{LYR_MS_TYPE_HDD, "HDD"},
                                 {LYR_MS_TYPE_USB, "USB"},
                                 {LYR_MS_TYPE_IPOD, "IPOD"},
                                 {LYR_MS_TYPE_DLNA, "DLNA"},
                                 {LYR_MS_TYPE_MTP, "MTP"}};

std::string word_for(const word* begin, const word* end, int32_t number) {
    const word* found =
        std::find_if(begin, end, [number](const word& known) { return known.number == number; });
    return found != end ? found->text : std::to_string(number);
}

} // namespace

bool output_text(const std::string& text) {
    return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
           std::fflush(stdout) == 0;
}

bool output_json(const nlohmann::ordered_json& document) {
    using handler = nlohmann::ordered_json::error_handler_t;
    return output_text(text_json(document.dump(-1, ' ', false, handler::replace)) + "\n");
}

bool output_list(const std::vector<std::pair<std::string, std::string>>& entries) {
    int32_t width = 0;
    for (const auto& [name, value] : entries) {
        width = std::max(width, value.empty() ? 0 : text_width(name));
    }
    std::string text;
    for (const auto& [name, value] : entries) {
        if (!value.empty()) {
            text += text_pad(name, width, false) + "  " + text_printable(value) + "\n";
        }
    }
    return output_text(text);
}

std::string output_tracks(int32_t count) {
    return std::to_string(count) + (count == 1 ? " track" : " tracks");
}

std::string output_status(int32_t status) {
    return word_for(std::begin(STATUS_WORDS), std::end(STATUS_WORDS), status);
}

std::string output_shuffle(int32_t mode) {
    return mode == LYR_SHUFFLE_OFF ? "off" : "on";
}

std::string output_repeat(int32_t mode) {
    return word_for(std::begin(REPEAT_WORDS), std::end(REPEAT_WORDS), mode);
}

int32_t output_shuffle_mode(const std::string& text) {
    return text == "on" ? LYR_SHUFFLE_ON : text == "off" ? LYR_SHUFFLE_OFF : -1;
}

int32_t output_repeat_mode(const std::string& text) {
    for (const word& known : REPEAT_WORDS) {
        if (text == known.text) {
            return known.number;
        }
    }
    return -1;
}

std::string output_node_type(int32_t type) {
    return word_for(std::begin(NODE_WORDS), std::end(NODE_WORDS), type);
}

std::vector<std::string> output_source_types(int32_t types) {
    std::vector<std::string> words;
    for (const word& known : SOURCE_WORDS) {
        if ((types & known.number) != 0) {
            words.emplace_back(known.text);
        }
    }
    return words;
}
