#include "published.h"

#include <fstream>
#include <iterator>

#include <dirent.h>

#include <lyrane/client.h>
#include <veloran/json.h>

#include "input.h"
#include "pps_content.h"

namespace {

std::string folder_of(const std::string& player) {
    return fuzz_root() + "/run/pps/services/lyrane/" + player;
}

/* Reads an object; null when there is none. */
pps_attributes read_object(const std::string& player, const std::string& name) {
    std::ifstream file(folder_of(player) + "/" + name, std::ios::binary);
    if (!file.is_open()) {
        return nullptr;
    }
    const std::string text((std::istreambuf_iterator<char>(file)), {});
    require(text.starts_with("@" + name + "\n") && text.ends_with("\n"), "an object says its name");
    pps_attributes attributes(strm_dict_new());
    require(pps_content_merge(attributes.get(), text.data(), text.size(), pps_strictness::update) ==
                0,
            "an object is made of lines");
    return attributes;
}

bool is_number(const char* text) {
    char* end = nullptr;
    (void)strtod(text, &end);
    return end != text && *end == '\0';
}

void require_value(const char* value) {
    static constexpr char JSON[] = ":json:";
    if (strncmp(value, ":n:", 3) == 0) {
        require(is_number(value + 3), "a number is one");
    } else if (strncmp(value, JSON, sizeof JSON - 1) == 0) {
        pps_decoder decoder;
        require(pps_decoder_initialize(&decoder) == PPS_JSON_OK, "memory");
        require(pps_decoder_parse_json_str(&decoder, value + sizeof JSON - 1) == PPS_JSON_OK,
                "JSON is JSON");
        pps_decoder_cleanup(&decoder);
    } else {
        require(strncmp(value, "::", 2) == 0, "a value has an encoding");
    }
}

std::string value_of(const pps_attributes& object, const char* name) {
    const char* value = object == nullptr ? nullptr : strm_dict_find(object.get(), name);
    return value == nullptr ? "" : value;
}

template <typename Number>
Number field(const std::string& body, size_t at) {
    Number value = {};
    require(at + sizeof value <= body.size(), "a reply has all its fields");
    memcpy(&value, body.data() + at, sizeof value);
    return value;
}

std::string number(int64_t value) {
    return ":n:" + std::to_string(value);
}

void require_state(const std::string& player, const std::string& body) {
    static constexpr const char* STATUS[] = {"::destroyed", "::idle", "::playing", "::paused",
                                             "::stopped"};
    static constexpr const char* REPEAT[] = {"::off", "::all", "::one"};
    const auto state = field<lyr_state_reply>(body, 0);
    const pps_attributes object = read_object(player, "state");
    const auto status = static_cast<size_t>(state.status);
    const auto repeat = static_cast<size_t>(state.repeat_mode);
    char rate[64];
    snprintf(rate, sizeof rate, ":n:%.1f", static_cast<double>(state.playback_rate));
    require(value_of(object, "rate") == rate, "the rate is published");
    require(value_of(object, "shuffle") == (state.shuffle_mode != 0 ? "::on" : "::off"),
            "the shuffle mode is published");
    require(value_of(object, "repeat") == (repeat < std::size(REPEAT) ? REPEAT[repeat] : "::all"),
            "the repeat mode is published");
    require(value_of(object, "status") ==
                (status < std::size(STATUS) ? STATUS[status] : "::playing"),
            "the status is published");
}

} // namespace

void require_objects(const std::string& player) {
    DIR* folder = opendir(folder_of(player).c_str());
    require(folder != nullptr, "a player has a directory");
    while (const dirent* entry = readdir(folder)) {
        const pps_attributes object =
            entry->d_name[0] == '.' ? nullptr : read_object(player, entry->d_name);
        const char* value = nullptr;
        for (int32_t i = 0;
             object != nullptr && strm_dict_at(object.get(), i, nullptr, &value) == 0; ++i) {
            require_value(value);
        }
    }
    closedir(folder);
}

void require_agreement(const std::string& player, uint16_t type, const rig_reply& reply) {
    if (reply.status != 0 || field<int32_t>(reply.body, 0) != 0) {
        return;
    }
    if (type == LYR_MSG_GET_CURRENT_STATE) {
        require_state(player, reply.body);
    } else if (type == LYR_MSG_GET_TRKSESSION_INFO && field<int32_t>(reply.body, 12) > 0) {
        /* A session without tracks is not shown. */
        const pps_attributes object = read_object(player, "trksession");
        require(value_of(object, "tsid") == number(field<int64_t>(reply.body, 4)) &&
                    value_of(object, "length") == number(field<int32_t>(reply.body, 12)),
                "the track session is published");
    } else if (type == LYR_MSG_GET_CURRENT_TRACK_INFO) {
        const pps_attributes object = read_object(player, "track");
        require(value_of(object, "tsid") == number(field<int64_t>(reply.body, 8)) &&
                    value_of(object, "index") == number(field<int32_t>(reply.body, 4)),
                "the current track is published");
    }
}
