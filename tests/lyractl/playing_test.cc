// What a player does, put together from the changes of its objects.
#include "playing.h"

#include <gtest/gtest.h>

#include "text.h"

namespace {

watch_change change(const char* object, std::vector<watch_attribute> attributes) {
    return {"radio", object, false, std::move(attributes)};
}

playing a_track() {
    playing now;
    playing_apply(&now, change("state", {{"status", "::playing"}, {"shuffle", "::on"}}));
    playing_apply(&now, change("status", {{"position", ":n:5000"}}));
    playing_apply(&now, change("trksession", {{"length", ":n:12"}}));
    playing_apply(&now,
                  change("track", {{"index", ":n:3"},
                                   {"media_node", ":json:{\"id\":\"/a.mp3\",\"name\":\"a.mp3\"}"},
                                   {"metadata", ":json:{\"title\":\"Song\",\"artist\":\"Band\","
                                                "\"duration\":10000}"}}));
    return now;
}

} // namespace

TEST(playing, keeps_what_a_change_does_not_mention) {
    playing now = a_track();
    EXPECT_EQ(now.status, "playing");
    EXPECT_EQ(now.shuffle, "on");
    EXPECT_EQ(playing_line(now), "Song - Band");

    /* The next track has no tags of its own, then the same tags as the one before it had. */
    playing_apply(&now, change("track", {{"index", ":n:4"},
                                         {"media_node", ":json:{\"name\":\"b.mp3\"}"},
                                         {"metadata", "", true}}));
    EXPECT_EQ(playing_line(now), "b.mp3");
    EXPECT_EQ(now.duration, 0);
    playing_apply(&now, change("track", {{"metadata", ":json:{\"title\":\"Song\"}"}}));
    playing_apply(&now, change("track", {{"media_node", ":json:{\"name\":\"c.mp3\"}"}}));
    EXPECT_EQ(playing_line(now), "Song");

    now = a_track();
    playing_apply(&now, {"radio", "track", true, {}});
    EXPECT_FALSE(now.has_track);
    EXPECT_EQ(playing_line(now), "");
}

TEST(playing, takes_values_of_any_shape) {
    playing now = a_track();
    for (const char* value : {"", ":", "::", ":n:", ":n:x", ":json:{", ":json:[1]", ":json:7",
                              ":json:{\"title\":7,\"duration\":\"x\"}", "nothing"}) {
        for (const char* name : {"index", "media_node", "metadata", "position", "length", "rate"}) {
            for (const char* object : {"state", "status", "trksession", "track"}) {
                playing_apply(&now, change(object, {{name, value}}));
            }
        }
    }
    EXPECT_EQ(playing_line(now), "");
}

TEST(playing, screen_fits_every_window) {
    playing now = a_track();
    now.title = "\u65E5\u672C\u8A9E \x1B[2J";
    for (int32_t columns = 1; columns < 100; columns += 7) {
        for (int32_t rows = 0; rows < 16; rows++) {
            const auto lines = playing_screen(now, "a note of several words", columns, rows);
            EXPECT_LE(lines.size(), static_cast<size_t>(rows));
            for (const std::string& line : lines) {
                EXPECT_LE(text_width(line), std::max(columns, 3)) << line;
                EXPECT_EQ(line.find('\x1B'), std::string::npos);
            }
        }
    }
    const auto lines = playing_screen(now, "", 44, 24);
    EXPECT_EQ(lines[5], "  playing  [=======>---------] 0:05 / 0:10");
    EXPECT_EQ(lines[6], "  track 4 of 12   shuffle on   repeat off");

    now.position = 99999; /* beyond the end */
    EXPECT_EQ(playing_screen(now, "", 44, 24)[5], "  playing  [================>] 1:39 / 0:10");
    now.duration = 0;
    EXPECT_EQ(playing_screen(now, "", 44, 24)[5], "  playing  [-----------------] 1:39 / -:--");
}
