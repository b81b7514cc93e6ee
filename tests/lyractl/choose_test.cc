// Which player and media source a command is meant for.
#include "choose.h"

#include <gtest/gtest.h>

TEST(choose, player) {
    const struct {
        const char* wanted;
        std::vector<std::string> players;
        const char* chosen; /* null: refused */
        const char* why;    /* part of the reason */
    } cases[] = {
        {"", {"radio"}, "radio", ""},
        {"radio", {"kitchen", "radio"}, "radio", ""},
        {"Radio", {"radio"}, nullptr, "only: radio"},
        {"", {"kitchen", "radio"}, nullptr, "several players, say which one (-p): kitchen, radio"},
        {"", {}, nullptr, "there is no player;"},
        {"x\x1By", {}, nullptr, "no player \"x\\x1by\""},
    };
    for (const auto& c : cases) {
        std::string why;
        const std::string wanted = c.wanted;
        const std::string* chosen = choose_player(wanted, c.players, &why);
        ASSERT_EQ(chosen != nullptr, c.chosen != nullptr) << why;
        if (chosen != nullptr) {
            EXPECT_EQ(*chosen, c.chosen);
        }
        EXPECT_NE(why.find(c.why), std::string::npos) << why;
    }
}

TEST(choose, source_by_id_then_uid_then_name) {
    const std::vector<request_source> sources = {
        {0, "UID-A", "Music", "", 1, 0, 0},
        {1, "uid-b", "Stick", "", 2, 0, 0},
        {2, "1", "Stick", "Old stick", 2, 0, 0}, /* its uid looks like another's id */
    };
    const struct {
        const char* wanted;
        int32_t id; /* -1: refused */
        const char* why;
    } cases[] = {
        {"1", 1, ""},
        {"uid-a", 0, ""},
        {"Music", 0, ""},
        {"Old stick", 2, ""},
        {"Stick", -1, "several media sources are called \"Stick\""},
        {"music", -1, "there is no media source \"music\"; connected: 0 (Music), 1 (Stick)"},
        {"9", -1, "there is no media source \"9\""},
        {"", -1, "say which one: 0 (Music)"},
    };
    for (const auto& c : cases) {
        std::string why;
        const request_source* chosen = choose_source(c.wanted, sources, &why);
        EXPECT_EQ(chosen == nullptr ? -1 : chosen->id, c.id) << c.wanted << ": " << why;
        EXPECT_NE(why.find(c.why), std::string::npos) << why;
    }
    std::string why;
    EXPECT_EQ(choose_source("", {sources[1]}, &why)->id, 1);
    EXPECT_EQ(choose_source("", {}, &why), nullptr);
    EXPECT_EQ(why, "no media source is connected");
}
