/* Building sessions: which tracks, in which order, whatever the tree and the plug-in look like. */
#include <algorithm>
#include <cerrno>
#include <climits>
#include <string>
#include <thread>

#include "player_registry.h"
#include "player_rig.h"

namespace {

using trksession_build = player_test;

struct build_case {
    const char* what;
    const char* tree;
    int32_t start;
    int32_t expected;
    int32_t depth;
    const char* tracks;
    int32_t current;
};

const build_case builds[] = {
    {"a folder of leaves, started in the middle", "/|tracks:6", 3, 6, -1, "/t0 /t1 /t2 /t3 /t4 /t5",
     3},
    {"as many as announced are there at once", "/|tracks:6", 3, 4, -1, "/t0 /t1 /t2 /t3", 3},
    {"fewer announced than the first step needs", "/|tracks:6", 3, 1, -1, "/t0 /t1 /t2 /t3", 3},
    {"none announced", "/|tracks:3", 0, 0, -1, "/t0", 0},
    {"more announced than there are", "/|tracks:2", 0, 9, -1, "/t0 /t1", 0},
    {"leaves before folders when a leaf is asked for", "/A|F\n/B|F\n/x|A\n/y|A\n/A/1|A\n/B/2|A", 3,
     -1, -1, "/x /y /A/1 /B/2", 1},
    {"the asked folder first, then the others, then the leaves",
     "/A|F\n/B|F\n/x|A\n/A/1|A\n/A/2|A\n/B/3|A", 1, -1, -1, "/B/3 /A/1 /A/2 /x", 0},
    {"the first track lies deeper, behind leaves met later",
     "/A|F\n/A/1|A\n/A/B|F\n/A/B/3|A\n/A/4|A", 0, -1, -1, "/A/1 /A/4 /A/B/3", 0},
    {"as many as announced, before a folder is entered", "/1|A\n/2|A\n/3|A\n/F|F\n/F/4|A", 0, 3, -1,
     "/1 /2 /3", 0},
    {"depth counts from the start folder", "/1|A\n/a|F\n/a/2|A\n/a/b|F\n/a/b/3|A", 0, -1, 1,
     "/1 /a/2", 0},
    {"video is playable, other types ride along in a folder without folders", "/v|V\n/x|7\n/1|A", 0,
     -1, -1, "/v /x /1", 0},
    {"other types are left out beside folders", "/v|V\n/x|7\n/F|F\n/F/1|A", 0, -1, -1, "/v /F/1",
     0},
    {"other types before the asked track are not counted as held", "/x|7\n/1|A\n/2|A", 1, -1, -1,
     "/1 /x /2", 0},
    {"an empty first folder ends it", "/E|F\n/F|F\n/F/1|A", 0, -1, -1, "", 0},
    {"the largest start", "/|tracks:3", INT_MAX, -1, -1, "", 0},
    {"ids that stand several times, also in a row",
     "/a|A\n/b|A\n/a|A\n/c|A\n/c|A\n/c|A\n/c|A\n/a|A", 2, -1, -1, "/a /b /a /c /c /c /c /a", 2},
    {"a child that is neither", "/x|7\n/1|A", 0, -1, -1, "", 0},
};

TEST_F(trksession_build, puts_the_tracks_in_order_whatever_the_size_of_a_page) {
    for (const int page : {100, 2, 1}) {
        fake_do(rig.fake, "rule browse page=%d", page);
        for (const build_case& c : builds) {
            SCOPED_TRACE(c.what);
            mmcontrol.player_cfg->recursion_depth = c.depth;
            const int32_t source = rig_source(rig, "build", c.tree);
            player* player = rig_player("builder", source, c.start, c.expected);
            EXPECT_EQ(rig_tracks(player), c.tracks) << "page of " << page;
            EXPECT_EQ(rig_current(player), c.current);
            EXPECT_EQ(rig_attribute(rig, "builder", "state", "status"),
                      c.tracks[0] != '\0' ? "::stopped" : "::idle");
            player_close(&mmcontrol, "builder");
        }
    }
}

TEST_F(trksession_build, survives_a_tree_that_changes_between_the_steps) {
    const struct {
        const char* before;
        const char* after;
        int32_t start;
        const char* tracks;
    } cases[] = {
        {"/A|A\n/B|A\n/C|A", "/N|A\n/A|A\n/B|A\n/C|A", 0, "/A /N /B /C"},
        {"/A|A\n/B|A\n/C|A", "/B|A\n/C|A", 1, "/A /B /C"},
        {"/F|F\n/F/1|A\n/G|F\n/G/2|A", "/E|F\n/E/0|A\n/F|F\n/F/1|A\n/G|F\n/G/2|A", 0,
         "/F/1 /E/0 /G/2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.after);
        const int32_t source = rig_source(rig, "build", c.before);
        fake_do(rig.fake, "reset");
        /* The attach lies between the two steps. */
        fake_do(rig.fake, "rule attach block=between times=1");
        player* player = player_open(&mmcontrol, "changer");
        std::thread creator([&] { EXPECT_EQ(rig_create(player, source, c.start, -1), 0); });
        fake_do(rig.fake, "blocked between");
        fake_tree(rig.fake, "build", c.after);
        fake_do(rig.fake, "release between");
        creator.join();
        rig_await_build(player);
        EXPECT_EQ(rig_tracks(player), c.tracks);
        player_close(&mmcontrol, "changer");
    }
}

TEST_F(trksession_build, refuses_what_a_plug_in_may_not_deliver) {
    const int32_t source = rig_source(rig, "build", "/|tracks:8");
    const struct {
        const char* rule;
        int32_t result;
        const char* tracks; /* after a start at 2 */
        const char* log;
    } cases[] = {
        {"rule browse over=3 times=1", 0, "/t0 /t1 /t2 /t3 /t4 /t5 /t6 /t7", "when asked for 3"},
        {"rule browse count=4", -1, "", "without records"},
        {"rule browse count=-2", -1, "", "Browsing / failed."},
        {"rule browse result=5", -1, "", "Browsing / failed."},
        {"rule browse rewind=1 page=3", 0, "/t0 /t1 /t2", "again and again"},
        {"rule browse skip=3 page=2 result=-1", 0, "/t0 /t1 /t2", "Browsing / failed."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rule);
        rig_fresh();
        fake_do(rig.fake, "%s", c.rule);
        player* player = player_open(&mmcontrol, "refuser");
        int32_t told = 0;
        EXPECT_EQ(rig_create(player, source, 2, 8, "/", &told), c.result);
        EXPECT_EQ(told, c.result == 0 ? 8 : 0);
        rig_await_build(player);
        EXPECT_EQ(rig_tracks(player), c.tracks);
        EXPECT_GE(rig_logged(rig, c.log), 1);
        EXPECT_EQ(fake_do(rig.fake, "violations"), "");
        player_close(&mmcontrol, "refuser");
    }
}

/* The earlier session has gone either way. */
TEST_F(trksession_build, refuses_what_a_client_may_not_ask_for) {
    const int32_t source = rig_source(rig, "build", "/|tracks:3");
    player* player = player_open(&mmcontrol, "errors");
    const struct {
        int32_t source;
        int32_t start;
        int32_t expected;
        int error;
        const char* tracks;
    } cases[] = {
        {99, 0, -1, ENODEV, "none"}, {source, 0, -2, EINVAL, "none"}, {source, -1, -1, EINVAL, ""}};
    for (const auto& c : cases) {
        EXPECT_EQ(rig_create(player, source, 0, 3), 0);
        errno = 0;
        EXPECT_EQ(rig_create(player, c.source, c.start, c.expected), -1);
        EXPECT_EQ(errno, c.error);
        EXPECT_EQ(rig_tracks(player), c.tracks);
    }
}

TEST_F(trksession_build, walks_deep_trees) {
    player* player = rig_player("deep", rig_source(rig, "build", "/|tree:200,1,1"), 0, -1);
    const std::string tracks = rig_tracks(player);
    EXPECT_EQ(std::count(tracks.begin(), tracks.end(), ' '), 200);
}

} // namespace
