#include "config.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <veloran/dict.h>
#include <veloran/json.h>
#include <veloran/lock.h>

#include "ascii.h"
#include "config_text.h"
#include "msglog.h"
#include "plugin_load.h"

namespace {

constexpr int32_t DEFAULT_RECURSION_DEPTH = 4;
constexpr int32_t DEFAULT_PLAYERS_PER_USER = 192; /* of 256 */
constexpr int32_t DEFAULT_TRACKS_PER_USER = 4000000;
constexpr int32_t DEFAULT_REPLY_MEMORY = 64; /* MiB */

enum player_setting {
    AUDIO_OUTPUT,
    VIDEO_OUTPUT,
    UPDATE_INTERVAL,
    PROGRESSION_MODE,
    RECURSION_DEPTH,
    PLAYER_SETTINGS
};
constexpr const char* SETTING_NAMES[PLAYER_SETTINGS] = {
    "audio_output", "video_output", "update_interval", "progression_mode", "recursion_depth"};

constexpr struct {
    const char* word;
    uint32_t bit;
} DEVICE_TYPES[] = {{"HDD", LYR_MS_TYPE_HDD},
                    {"USB", LYR_MS_TYPE_USB},
                    {"IPOD", LYR_MS_TYPE_IPOD},
                    {"DLNA", LYR_MS_TYPE_DLNA},
                    {"MTP", LYR_MS_TYPE_MTP}};

/* The template of every plug-in's settings; lives as long as the process. */
strm_dict* player_dict;

/* Enters a member (null: the element at the position) that must be of the given type. */
bool enter(pps_decoder* decoder, const char* name, int32_t type) {
    return pps_decoder_type(decoder, name) == type &&
           pps_decoder_push(decoder, name) == PPS_JSON_OK;
}

void set_setting(strm_dict* dict, const char* key, const char* value, const char* what) {
    if (dict == nullptr || strm_dict_set(dict, key, value) != 0) {
        msglog(1, "No memory for %s", what);
    }
}

player_cfg* make_player_cfg(const char* const* values) {
    player_cfg* cfg = static_cast<player_cfg*>(calloc(1, sizeof(player_cfg)));
    if (cfg != nullptr) {
        cfg->audio_output = strdup(values[AUDIO_OUTPUT]);
        cfg->video_output = strdup(values[VIDEO_OUTPUT]);
    }
    if (cfg == nullptr || cfg->audio_output == nullptr || cfg->video_output == nullptr) {
        msglog(1, "Cannot allocate memory for player_cfg");
        abort();
    }
    cfg->update_interval = config_number(values[UPDATE_INTERVAL]);
    cfg->progression_mode = ascii_equal_nocase(values[PROGRESSION_MODE], "ROSP") ? 0 : 1;
    const int32_t depth = config_number(values[RECURSION_DEPTH]);
    cfg->recursion_depth = depth < 0 ? -1 : depth == 0 ? DEFAULT_RECURSION_DEPTH : depth;
    return cfg;
}

/* The decoder stands in "player". */
int32_t read_fair_shuffle(pps_decoder* decoder) {
    const char* value = nullptr;
    if (pps_decoder_get_string(decoder, "shuffle", &value) != PPS_JSON_OK) {
        return 0;
    }
    if (!ascii_equal_nocase(value, "fair")) {
        msglog(3, "shuffle \"%s\" is not known (\"fair\" is): it does not count", value);
        return 0;
    }
    return 1;
}

/* The decoder stands in "player". */
void read_player(control_block* control, pps_decoder* decoder) {
    const char* values[PLAYER_SETTINGS] = {};
    for (int i = 0; i < PLAYER_SETTINGS; i++) {
        if (pps_decoder_get_string(decoder, SETTING_NAMES[i], &values[i]) != PPS_JSON_OK) {
            msglog(2, "pps decoder parse json failed: player node");
        }
    }
    strm_dict_destroy(player_dict); /* of an earlier reading */
    player_dict = strm_dict_new();
    for (int i = 0; i < PLAYER_SETTINGS; i++) {
        set_setting(player_dict, SETTING_NAMES[i], values[i], "player_dict");
    }
    control->player_cfg = make_player_cfg(values);
    control->player_cfg->fair_shuffle = read_fair_shuffle(decoder);
}

/* The decoder stands in "player". */
void read_forgiveness(control_block* control, pps_decoder* decoder) {
    const char* value = nullptr;
    control->forgive_lost_clients =
        pps_decoder_get_string(decoder, "forgive_lost_clients", &value) == PPS_JSON_OK &&
                config_number(value) != 0
            ? 1
            : 0;
}

/* The decoder stands in "device_type". */
uint32_t read_device_types(pps_decoder* decoder) {
    uint32_t mask = 0;
    const char* word = nullptr;
    for (int32_t i = 0; pps_decoder_goto_index(decoder, i) == PPS_JSON_OK &&
                        pps_decoder_get_string(decoder, nullptr, &word) == PPS_JSON_OK;
         i++) {
        for (const auto& type : DEVICE_TYPES) {
            mask |= ascii_equal_nocase(word, type.word) ? type.bit : 0;
        }
    }
    return mask;
}

/* The decoder stands in "limits". What is no number above 0 does not count. */
void read_limit(pps_decoder* decoder, const char* name, int32_t* limit) {
    const char* value = nullptr;
    if (pps_decoder_get_string(decoder, name, &value) != PPS_JSON_OK) {
        return;
    }
    if (config_number(value) > 0) {
        *limit = config_number(value);
    } else {
        msglog(3, "%s \"%s\" is no number above 0, %d counts", name, value, *limit);
    }
}

void read_limits(control_block* control, pps_decoder* decoder) {
    control->players_per_user = DEFAULT_PLAYERS_PER_USER;
    control->tracks_per_user = DEFAULT_TRACKS_PER_USER;
    control->reply_memory = DEFAULT_REPLY_MEMORY;
    if (enter(decoder, "limits", PPS_JSON_OBJECT)) {
        read_limit(decoder, "players_per_user", &control->players_per_user);
        read_limit(decoder, "tracks_per_user", &control->tracks_per_user);
        read_limit(decoder, "reply_memory", &control->reply_memory);
        pps_decoder_pop(decoder);
    }
}

/* The decoder stands in "player". What is missing or of another type keeps its value. */
void read_lastmode(control_block* control, pps_decoder* decoder) {
    if (!enter(decoder, "lastmode_audio", PPS_JSON_OBJECT)) {
        return;
    }
    const char* value = nullptr;
    if (pps_decoder_get_string(decoder, "timeout", &value) == PPS_JSON_OK) {
        control->lastmode_timeout = config_number(value);
    }
    if (pps_decoder_get_string(decoder, "max_try", &value) == PPS_JSON_OK) {
        control->lastmode_max_try = config_number(value);
    }
    if (pps_decoder_get_string(decoder, "keep_missing", &value) == PPS_JSON_OK) {
        control->lastmode_keep_missing = config_number(value) != 0 ? 1 : 0;
    }
    if (pps_decoder_get_string(decoder, "checkpoint", &value) == PPS_JSON_OK) {
        const int32_t seconds = config_number(value);
        control->lastmode_checkpoint = seconds < 0 ? 0 : seconds;
    }
    if (enter(decoder, "device_type", PPS_JSON_ARRAY)) {
        control->lastmode_devices = read_device_types(decoder);
        pps_decoder_pop(decoder);
    }
    pps_decoder_pop(decoder);
}

/* The decoder stands in the plug-in's object. */
void read_plugin_settings(pps_decoder* decoder, const char* plugin, strm_dict* settings) {
    for (int32_t i = 0; pps_decoder_goto_index(decoder, i) == PPS_JSON_OK; i++) {
        const char* key = pps_decoder_name(decoder);
        const char* value = nullptr;
        if (key == nullptr || pps_decoder_get_string(decoder, nullptr, &value) != PPS_JSON_OK) {
            msglog(3, "plug-in %s: setting %s is not a string, skipped", plugin,
                   key != nullptr ? key : "without a name");
            continue;
        }
        set_setting(settings, key, value, "plugin_dict");
    }
}

/* The decoder stands in "plugins", at the plug-in's position. */
void read_plugin(control_block* control, pps_decoder* decoder) {
    const char* name = pps_decoder_name(decoder);
    if (name == nullptr || !enter(decoder, nullptr, PPS_JSON_OBJECT)) {
        msglog(3, "plug-in %s: the settings are not an object",
               name != nullptr ? name : "without a name");
        msglog(2, "pps decoder parse json failed: plugins node");
    }
    strm_dict* plugin_dict = strm_dict_clone(player_dict);
    if (plugin_dict == nullptr) {
        msglog(1, "No memory for plugin_dict");
    }
    read_plugin_settings(decoder, name, plugin_dict);
    pps_decoder_pop(decoder);
    plugin_load(control, name, plugin_dict);
    strm_dict_destroy(plugin_dict);
}

void parse(pps_decoder* decoder, const char* path, const config_text* text) {
    if (pps_decoder_initialize(decoder) != PPS_JSON_OK) {
        msglog(2, "pps decoder initialization failed");
    }
    const int32_t error = pps_decoder_parse_json_str(decoder, text->text);
    if (error != PPS_JSON_OK) {
        int32_t line = 0;
        int32_t column = 0;
        const char* reason = "";
        pps_decoder_error(decoder, &line, &column, &reason);
        config_text_locate(text, &line, &column);
        msglog(3, "%s:%d:%d: %s", path, line, column, reason);
        msglog(2, "pps decoder parse json failed: %d\n%s", error, text->text);
    }
    const char* path_of_member = nullptr;
    for (int32_t i = 0; (path_of_member = pps_decoder_duplicate(decoder, i)) != nullptr; i++) {
        msglog(3, "%s: \"%s\" is given more than once, the last one counts", path, path_of_member);
    }
}

} // namespace

int32_t load_config(control_block* control, const char* path) noexcept {
    config_text text = {};
    if (config_text_read(&text, path) != 0) {
        msglog(3, "%s: %s", path, msglog_error_text(errno));
        msglog(2, "Cannot load configuration file");
    }
    msglog(7, "config:\n%s", text.text);
    pps_decoder decoder = {};
    parse(&decoder, path, &text);
    if (pps_decoder_push(&decoder, nullptr) != PPS_JSON_OK) {
        msglog(2, "pps decoder parse json failed: root node");
    }
    read_limits(control, &decoder);
    if (!enter(&decoder, "player", PPS_JSON_OBJECT)) {
        msglog(2, "pps decoder parse json failed: player node");
    }
    read_player(control, &decoder);
    read_forgiveness(control, &decoder);
    if (control->lastmode == 1) {
        read_lastmode(control, &decoder);
    }
    pps_decoder_pop(&decoder);
    if (!enter(&decoder, "plugins", PPS_JSON_OBJECT)) {
        msglog(2, "pps decoder parse json failed: plugins node");
    }
    for (int32_t i = 0; pps_decoder_goto_index(&decoder, i) == PPS_JSON_OK; i++) {
        read_plugin(control, &decoder);
    }
    pps_decoder_cleanup(&decoder);
    config_text_free(&text);
    return 0;
}
