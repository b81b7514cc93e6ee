#include "metadata.h"

#include <nlohmann/json.hpp>

#include "text.h"

namespace {

struct named_text {
    const char* name;
    std::string request_metadata::*text;
};
constexpr named_text TEXTS[] = {
    {"title", &request_metadata::title}, {"artist", &request_metadata::artist},
    {"album", &request_metadata::album}, {"genre", &request_metadata::genre},
    {"year", &request_metadata::year},   {"artwork", &request_metadata::artwork}};

struct named_number {
    const char* name;
    int32_t request_metadata::*number;
};
constexpr named_number NUMBERS[] = {{"disc", &request_metadata::disc},
                                    {"track", &request_metadata::track}};

} // namespace

nlohmann::ordered_json metadata_json(const request_metadata& known) {
    nlohmann::ordered_json document = nlohmann::ordered_json::object();
    for (const named_text& each : TEXTS) {
        if (!(known.*each.text).empty()) {
            document[each.name] = known.*each.text;
        }
    }
    document["duration"] = known.duration;
    for (const named_number& each : NUMBERS) {
        document[each.name] = known.*each.number;
    }
    return document;
}

std::vector<std::pair<std::string, std::string>> metadata_list(const request_metadata& known) {
    std::vector<std::pair<std::string, std::string>> list;
    for (const named_text& each : TEXTS) {
        list.emplace_back(each.name, known.*each.text);
    }
    list.emplace_back("length", known.duration > 0 ? text_clock(known.duration) : "");
    for (const named_number& each : NUMBERS) {
        list.emplace_back(each.name,
                          known.*each.number > 0 ? std::to_string(known.*each.number) : "");
    }
    return list;
}
