#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "child_run.h"
#include "config.h"
#include "config_text.h"
#include "msglog.h"
#include "plugin_load.h"

/* What the loader hands over, one "name{key=value,...}" a plug-in. */
static std::string plugins_loaded;

int32_t plugin_load(control_block*, const char* name, const strm_dict* settings) noexcept {
    plugins_loaded += std::string(name) + "{";
    const char* key = nullptr;
    const char* value = nullptr;
    for (int32_t i = 0; strm_dict_at(settings, i, &key, &value) == 0; i++) {
        plugins_loaded += std::string(key) + "=" + value + ",";
    }
    plugins_loaded += "}";
    return 0;
}

namespace {

constexpr const char* PLAYER = R"("audio_output":"a","video_output":"v","update_interval":"250",)"
                               R"("progression_mode":"rosp","recursion_depth":"7")";
constexpr const char* PLAYER_TEXT =
    "audio_output=a,video_output=v,update_interval=250,progression_mode=rosp,recursion_depth=7,";

std::string config_with(const std::string& player, const std::string& plugins) {
    return "{\"player\":{" + player + "},\"plugins\":" + plugins + "}";
}

/* What a configuration makes of settings that were there before it. */
struct loaded {
    explicit loaded(const std::string& text, int32_t lastmode = 0) {
        plugins_loaded.clear();
        control.lastmode = lastmode;
        control.lastmode_timeout = 5;
        control.lastmode_max_try = 5;
        control.lastmode_devices = 1;
        EXPECT_EQ(load_config(&control, scratch_file("cfg", text).c_str()), 0);
        player = control.player_cfg;
    }
    ~loaded() {
        free(player->audio_output);
        free(player->video_output);
        free(player);
    }
    control_block control = {};
    player_cfg* player;
    std::string& plugins = plugins_loaded;
};

TEST(config, player_settings_and_plugins_in_the_order_of_the_file) {
    const loaded result(
        "# a comment\n"
        "  \t # an indented one\n"
        "{ \"other\": [1, {}],\r\n"
        "  \"player\": {" +
        std::string(PLAYER) +
        ", \"more\": 1 },\n\n"
        "  \"plugins\": { \"z.so\": {\"x\": \"1\", \"n\": 2, \"audio_output\": \"own\"},\n"
        "                 \"a.so\": {}, \"\": {\"y\": \"\\u00e4\"} } }");
    EXPECT_STREQ(result.player->audio_output, "a");
    EXPECT_STREQ(result.player->video_output, "v");
    EXPECT_EQ(result.player->update_interval, 250);
    EXPECT_EQ(result.player->progression_mode, 0);
    EXPECT_EQ(result.player->recursion_depth, 7);
    EXPECT_EQ(result.plugins,
              std::string("z.so{audio_output=own,video_output=v,update_interval=250,"
                          "progression_mode=rosp,recursion_depth=7,x=1,}a.so{") +
                  PLAYER_TEXT + "}{" + PLAYER_TEXT + "y=\xc3\xa4,}");
}

TEST(config, numbers_and_words_of_the_player) {
    const struct {
        const char* interval;
        const char* mode;
        const char* depth;
        int32_t interval_value;
        int32_t mode_value;
        int32_t depth_value;
    } cases[] = {
        {"0", "ROSP", "0", 0, 0, 4},
        {"-7", "", "-3", -7, 1, -1},
        {" 12ms", "RoSp", "none", 12, 0, 4},
        {"99999999999", "ROSPX", "-99999999999", INT32_MAX, 1, -1},
        {"", "x", "7", 0, 1, 7},
    };
    for (const auto& c : cases) {
        const loaded result(config_with(
            std::string(R"("audio_output":"","video_output":"","update_interval":")") + c.interval +
                R"(","progression_mode":")" + c.mode + R"(","recursion_depth":")" + c.depth + "\"",
            "{}"));
        EXPECT_EQ(result.player->update_interval, c.interval_value) << c.interval;
        EXPECT_EQ(result.player->progression_mode, c.mode_value) << c.mode;
        EXPECT_EQ(result.player->recursion_depth, c.depth_value) << c.depth;
    }
}

TEST(config, shuffle_is_fair_when_it_says_so) {
    for (const auto& [value, is_fair] : {std::pair{"\"Fair\"", 1}, {"\"even\"", 0}, {"1", 0}}) {
        const loaded result(
            config_with(std::string(PLAYER) + ",\"shuffle\":" + value, "{\"p\":{}}"));
        EXPECT_EQ(result.player->fair_shuffle, is_fair) << value;
        EXPECT_EQ(result.plugins, std::string("p{") + PLAYER_TEXT + "}");
    }
}

TEST(config, last_mode_settings) {
    const struct {
        const char* object;
        int32_t enabled;
        int32_t timeout;
        int32_t max_try;
        uint32_t devices;
    } cases[] = {
        {R"({"timeout":"9","max_try":"8","device_type":["USB"]})", 0, 5, 5, 0x1},
        {R"({"timeout":"9","max_try":"-8","device_type":["usb","Dlna","tape"]})", 1, 9, -8, 0x102},
        {R"({"device_type":["HDD","IPOD","MTP",7,"USB"]})", 1, 5, 5, 0x10011},
        {R"({"timeout":9,"max_try":null,"device_type":"USB"})", 1, 5, 5, 0x1},
        {R"(["timeout"])", 1, 5, 5, 0x1},
    };
    for (const auto& c : cases) {
        const loaded result(
            config_with(std::string(PLAYER) + ",\"lastmode_audio\":" + c.object, "{\"p\":{}}"),
            c.enabled);
        EXPECT_EQ(result.control.lastmode_timeout, c.timeout) << c.object;
        EXPECT_EQ(result.control.lastmode_max_try, c.max_try) << c.object;
        EXPECT_EQ(result.control.lastmode_devices, c.devices) << c.object;
        EXPECT_EQ(result.plugins, std::string("p{") + PLAYER_TEXT + "}");
    }
}

child_outcome load_in_child(const std::string& path, int32_t level = 4) {
    return child_run([&] {
        msglog_set_level(level);
        control_block control = {};
        load_config(&control, path.c_str());
    });
}

/* The level-2 line, which must come last. */
std::string fatal_line(const child_outcome& outcome) {
    const size_t start = outcome.log.rfind("\n2 ");
    return outcome.log.substr(start == std::string::npos ? 0 : start + 1);
}

TEST(config, what_is_missing_is_named) {
    EXPECT_EQ(fatal_line(load_in_child(scratch_folder())), "2 Cannot load configuration file\n");
    const std::string without_depth = R"("audio_output":"a","video_output":"v",)"
                                      R"("update_interval":"250","progression_mode":"x")";
    const struct {
        std::string text;
        const char* node;
    } cases[] = {
        {"1", "root node"},
        {"{}", "player node"},
        {R"({"player":"x","plugins":{}})", "player node"},
        {config_with(without_depth, "{}"), "player node"},
        {config_with(without_depth + R"(,"recursion_depth":7)", "{}"), "player node"},
        {config_with(without_depth + R"(,"recursion_depth":"7\u0000")", "{}"), "player node"},
        {"{\"player\":{" + std::string(PLAYER) + "}}", "plugins node"},
        {config_with(PLAYER, "[]"), "plugins node"},
        {config_with(PLAYER, R"({"a.so":{},"b.so":"x"})"), "plugins node"},
    };
    for (const auto& c : cases) {
        const child_outcome outcome = load_in_child(scratch_file("cfg", c.text));
        EXPECT_EQ(outcome.exit_status, 1) << c.text;
        EXPECT_EQ(fatal_line(outcome),
                  std::string("2 pps decoder parse json failed: ") + c.node + "\n")
            << c.text;
    }
    EXPECT_EQ(load_in_child(scratch_file("cfg", "{}"), 1).exit_status, 1) << "filtered, yet final";
}

TEST(config, broken_json_is_shown_whole_and_its_place_in_the_file_told) {
    const std::string long_line(2047, ' ');
    const struct {
        std::string text;
        const char* place;  /* of the file, not of the text without comments */
        std::string logged; /* of the text */
    } cases[] = {
        {"# one\n\n  {\n    \"a\" 1}\n", ":4:9: ", "{\\n\"a\" 1}\\n"},
        {"{ # remark\n}\n", ":1:3: ", "{ # remark\\n}\\n"},
        {"# nothing\n", nullptr, ""},
        {"{\"a\":\"\xff\"}", ":1:7: ", "{\"a\":\"\xff\"}"},
        {"\n{}\n" + long_line + "  x", ":3:2050: ", "{}\\nx"},
    };
    for (const auto& c : cases) {
        const std::string path = scratch_file("cfg", c.text);
        const child_outcome outcome = load_in_child(path);
        EXPECT_EQ(outcome.exit_status, 1) << c.text;
        const std::string fatal = fatal_line(outcome);
        EXPECT_EQ(fatal.rfind("2 pps decoder parse json failed: 2\\n", 0), 0u) << fatal;
        EXPECT_EQ(fatal.substr(fatal.find("\\n") + 2), c.logged + "\n");
        if (c.place != nullptr) {
            EXPECT_EQ(outcome.log.rfind("3 " + path + c.place, 0), 0u) << outcome.log;
        }
    }
}

TEST(config, oddities_are_told_and_survived) {
    const std::string text = config_with(std::string(PLAYER) + R"(,"audio_output":"b")",
                                         R"({"p":{"n":1,"o":{"x":"y"},"s":"t"}})");
    EXPECT_EQ(loaded(text).plugins.rfind("p{audio_output=b,", 0), 0u);
    const child_outcome outcome = load_in_child(scratch_file("cfg", text));
    EXPECT_EQ(outcome.exit_status, 0);
    EXPECT_EQ(outcome.log,
              "3 " + scratch_folder() +
                  "/cfg: \"player.audio_output\" is given more than once, the last one "
                  "counts\n"
                  "3 plug-in p: setting n is not a string, skipped\n"
                  "3 plug-in p: setting o is not a string, skipped\n");
}

TEST(config_text, long_lines_come_in_pieces) {
    config_text text = {};
    const std::string half(2048, 'a');
    ASSERT_EQ(config_text_read(&text, scratch_file("t", half + "  # b\n" + half + "#c\nd").c_str()),
              0);
    EXPECT_EQ(std::string(text.text), half + half + "d") << "a piece that begins with # is dropped";
    config_text_free(&text);
    ASSERT_EQ(config_text_read(&text, scratch_file("t", half + "  b" + half).c_str()), 0);
    EXPECT_EQ(std::string(text.text), half + "b" + half);
    config_text_free(&text);
}

} // namespace
