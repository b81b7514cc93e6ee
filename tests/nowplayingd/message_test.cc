/* Texts of clients: what they mean, whatever their order, and what means nothing. */
#include "message.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

namespace {

std::string meaning(const std::string& text) {
    message parsed;
    std::string why;
    if (!message_parse(text, &parsed, &why)) {
        EXPECT_FALSE(why.empty());
        return "";
    }
    switch (parsed.verb) {
    case MESSAGE_REGISTER:
        return parsed.words.name + "|" + parsed.words.kind + "|" + parsed.words.priority + "|" +
               parsed.words.overlay;
    case MESSAGE_STATE:
        return "state " + std::to_string(parsed.state);
    default:
        return parsed.verb == MESSAGE_ACQUIRE ? "acquire" : "release";
    }
}

} // namespace

TEST(Message, Meaning) {
    const std::string long_name = std::string(254, 'x') + "\u00e9";
    const std::pair<std::string, std::string> cases[] = {
        {"msg::acquire\nid::1", "acquire"},
        {"id::1\nmsg::release\n", "release"},
        {"dat::playing\nid::1\nmsg::state", "state 2"},
        {"msg::state\ndat::paused\nfurther::line", "state 1"},
        {"msg::register\nid::1\ndat:json:{\"name\":\"a \\\"b\\\"\",\"prio\":\"high\","
         "\"audio\":\"phone\",\"overlay\":\"plain\"}",
         "a \"b\"|phone|high|plain"},
        {"msg::register\ndat:json:{\"name\":\"msg::release\\nx\"}",
         "msg::release\nx|general|low|plain"},
        {"msg::register\ndat:json:{\"name\":\"" + long_name + "\"}",
         std::string(254, 'x') + "|general|low|plain"},
        {"", ""},
        {"acquire", ""},
        {"xmsg::acquire", ""},
        {"msg::acquire ", ""},
        {"msg::acquire\0"s, ""},
        {"msg::acquire\nmsg::release", ""},
        {"msg::state\ndat::playing\ndat::stopped", ""},
        {"msg::state\ndat::playing now", ""},
        {"msg::register", ""},
        {"msg::register\ndat:json:[]", ""},
        {"msg::register\ndat:json:{}", ""},
        {"msg::register\ndat:json:{\"name\":1}", ""},
        {"msg::register\ndat:json:{\"name\":\"a\\u0000b\"}", ""},
        {"msg::register\ndat:json:{\"name\":\"a\"}\0x"s, ""},
        {"msg::register\ndat:json:{\"name\":\"\xff\"}", ""},
        {"msg::register\ndat:json:{\"name\":\"a\",\"prio\":{}}", ""},
        {"msg::register\ndat:json:" + std::string(65000, '['), ""},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(meaning(text), expected) << text.substr(0, 100);
    }
}
