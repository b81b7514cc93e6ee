/* The objects of a player, byte for byte. */
#include <cfloat>
#include <memory>

#include "player_publish.h"
#include "status_tree.h"

namespace {

const struct {
    const char* object;
    lyr_ppswriter* player::*writer;
} OBJECTS[] = {{"state", &player::state_writer},
               {"status", &player::status_writer},
               {"mediasource", &player::mediasource_writer},
               {"trksession", &player::trksession_writer},
               {"track", &player::track_writer}};

struct player_publish : status_tree {
    std::unique_ptr<player> radio = std::make_unique<player>();
    void SetUp() override {
        status_tree::SetUp();
        for (const auto& each : OBJECTS) {
            radio.get()->*each.writer = lyr_ppswriter_create(root, each.object, -1, &error);
        }
    }
    void TearDown() override {
        for (const auto& each : OBJECTS) {
            lyr_ppswriter_close(radio.get()->*each.writer);
        }
        status_tree::TearDown();
    }
};

/* Borrowed texts in records that own theirs: these records are never released. */
char* text(const char* literal) {
    return const_cast<char*>(literal);
}

TEST_F(player_publish, state) {
    static const struct {
        float rate;
        int32_t shuffle, repeat, status;
        const char* content;
    } cases[] = {
        {1.0F, 0, 0, 1, "rate:n:1.0\nshuffle::off\nrepeat::off\nstatus::idle\n"},
        {-0.25F, 1, 1, 0, "rate:n:-0.2\nshuffle::on\nrepeat::all\nstatus::destroyed\n"},
        {1.96F, 7, 2, 2, "rate:n:2.0\nshuffle::on\nrepeat::one\nstatus::playing\n"},
        {0.0F, 0, 3, 3, "rate:n:0.0\nshuffle::off\nrepeat::all\nstatus::paused\n"},
        {16.0F, 0, -1, 4, "rate:n:16.0\nshuffle::off\nrepeat::all\nstatus::stopped\n"},
        {-FLT_MAX, 0, 0, -1,
         "rate:n:-340282346638528859811704183484516925440.0\nshuffle::off\nrepeat::off\n"
         "status::playing\n"},
    };
    for (const auto& item : cases) {
        radio->playback_rate = item.rate;
        radio->shuffle_mode = item.shuffle;
        radio->repeat_mode = item.repeat;
        radio->status = item.status;
        player_publish_state(radio.get());
        EXPECT_EQ(text_of("/state"), std::string("@state\n") + item.content);
    }
}

TEST_F(player_publish, numbers) {
    for (const int32_t position : {0, -7, INT32_MAX, INT32_MIN}) {
        player_publish_status(radio.get(), position);
        EXPECT_EQ(text_of("/status"), "@status\nposition:n:" + std::to_string(position) + "\n");
    }
    player_publish_trksession(radio.get(), TRKSESSION_UPDATED, 100000, UINT64_C(1) << 32);
    EXPECT_EQ(text_of("/trksession"),
              "@trksession\ntype:n:2\ntsid:n:4294967296\nlength:n:100000\n");
    player_publish_trksession(radio.get(), TRKSESSION_DESTROYED, 0, UINT64_MAX);
    EXPECT_EQ(text_of("/trksession"),
              "@trksession\ntype:n:1\ntsid:n:18446744073709551615\nlength:n:0\n");
}

TEST_F(player_publish, track) {
    medianode node = {};
    node.id = text("/music/a \"b\"\n.flac");
    node.name = text("latin \xf6");
    node.type = LYR_NODE_AUDIO;
    node.ms_id = 3;
    node.ms_type = LYR_MS_TYPE_USB;
    node.url = text("not published");
    metadata data = {text("T"),    1234, text("art"), text("A"), text("B"), text("G"),
                     text("1999"), 640,  480,         2,         9,         text("not published")};
    const std::string head = "@track\ntsid:n:5\nindex:n:7\n";
    const std::string node_line = "media_node:json:{\"id\":\"/music/a \\\"b\\\"\\n.flac\",\"name\":"
                                  "\"latin \xef\xbf\xbd\",\"count\":0,\"type\":2,\"ms_id\":3,"
                                  "\"ms_type\":2}\n";
    const std::string data_line =
        "metadata:json:{\"title\":\"T\",\"artwork\":\"art\",\"artist\":\"A\",\"album\":\"B\","
        "\"genre\":\"G\",\"year\":\"1999\",\"duration\":1234,\"width\":640,\"height\":480,"
        "\"disc\":2,\"track\":9}\n";
    player_publish_track(radio.get(), 5, 7, &node, &data);
    EXPECT_EQ(text_of("/track"), head + node_line + data_line);
    player_publish_track(radio.get(), 5, 7, &node, nullptr);
    EXPECT_EQ(text_of("/track"), head + node_line);
    player_publish_track_index(radio.get(), -1);
    EXPECT_EQ(text_of("/track"), "@track\ntsid:n:5\nindex:n:-1\n" + node_line);
    node.id = text("");
    node.name = nullptr;
    data = {};
    player_publish_track(radio.get(), 0, 0, nullptr, &data);
    player_publish_track(radio.get(), 0, 0, &node, &data);
    EXPECT_EQ(text_of("/track"),
              "@track\ntsid:n:0\nindex:n:0\n"
              "metadata:json:{\"duration\":0,\"width\":0,\"height\":0,\"disc\":0,\"track\":0}\n"
              "media_node:json:{\"id\":\"\",\"count\":0,\"type\":2,\"ms_id\":3,\"ms_type\":2}\n");
}

TEST_F(player_publish, mediasource) {
    ::mediasource source = {};
    source.name = text("Stick");
    source.view_name = text("My stick");
    source.uid = text("1234-ABCD");
    source.id = 4;
    source.type = LYR_MS_TYPE_USB;
    source.status = -2;
    source.capabilities = UINT64_C(0x8000000000000001);
    player_publish_mediasource(radio.get(), MEDIASOURCE_CONNECTED, &source);
    EXPECT_EQ(text_of("/mediasource"),
              "@mediasource\ntype:n:0\nmedia_source:json:{\"name\":\"Stick\",\"view_name\":"
              "\"My stick\",\"uid\":\"1234-ABCD\",\"id\":4,\"type\":2,\"status\":-2,"
              "\"capabilities\":9223372036854775809}\n");
    source.view_name = nullptr;
    source.name = nullptr;
    source.capabilities = 0;
    const std::string line = "media_source:json:{\"uid\":\"1234-ABCD\",\"id\":4,\"type\":2,"
                             "\"status\":-2,\"capabilities\":0}\n";
    player_publish_mediasource(radio.get(), MEDIASOURCE_CHANGED, &source);
    EXPECT_EQ(text_of("/mediasource"), "@mediasource\ntype:n:2\n" + line);
    player_publish_mediasource(radio.get(), MEDIASOURCE_DISCONNECTED, nullptr);
    EXPECT_EQ(text_of("/mediasource"), "@mediasource\ntype:n:1\n" + line);
}

} // namespace
