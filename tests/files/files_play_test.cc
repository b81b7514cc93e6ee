/* The play half of the plug-in, through its table, with real files and real decoders. */
#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <unistd.h>

#include "host.h"
#include "media_files.h"

namespace fs = std::filesystem;

static constexpr const char* CLOCKED = "fakesink sync=true";

/* A started plug-in with one folder and a play session on it. */
struct deck {
    temporary_folder folder;
    temporary_folder output;
    const lyrp_api* api = nullptr;
    const lyr_play_api* play = nullptr;
    void* session = nullptr;
    int32_t player = 0; /* its address is the callback data */
};

static void open_deck(deck* deck, const std::string& audio_output,
                      const char* update_interval = "20") {
    deck->api = host_start({{"folders", deck->folder.path},
                            {"audio_output", audio_output},
                            {"video_output", ""},
                            {"update_interval", update_interval}});
    deck->play = deck->api->play_api;
    ASSERT_EQ(deck->api->set_mediasource_detection(1), 0);
    deck->session = deck->play->create(0, &deck->player);
    ASSERT_NE(deck->session, nullptr);
}

static void close_deck(deck* deck) {
    EXPECT_EQ(deck->play->destroy(deck->session), 0);
    host_stop();
}

static int32_t attach(const deck& deck, const std::string& id, int32_t type = LYR_NODE_AUDIO) {
    std::string text = id;
    medianode node = {};
    node.id = text.data();
    node.type = type;
    return deck.play->attach_medianode(deck.session, &node);
}

/* Writes each track to a file of its own, as fast as it can be decoded. */
static std::string wav_output(const deck& deck) {
    return "audioconvert ! audioresample ! audio/x-raw,format=S16LE,rate=44100,channels=1 ! "
           "wavenc ! filesink location=" +
           deck.output.path + "/%u.wav";
}

/* What was written, in the order of the tracks. */
static std::vector<std::vector<int16_t>> written(const deck& deck) {
    std::vector<std::pair<int, std::string>> paths;
    for (const auto& entry : fs::directory_iterator(deck.output.path)) {
        paths.emplace_back(std::stoi(entry.path().stem().string()), entry.path().string());
    }
    std::sort(paths.begin(), paths.end());
    std::vector<std::vector<int16_t>> all;
    for (const auto& [number, path] : paths) {
        all.push_back(read_wav(path));
    }
    return all;
}

static int count(const std::vector<host_event>& events, int kind) {
    return static_cast<int>(std::count_if(
        events.begin(), events.end(), [kind](const auto& event) { return event.kind == kind; }));
}

static bool any_position(const std::vector<host_event>& events, int32_t least, int32_t most) {
    return std::any_of(events.begin(), events.end(), [=](const auto& event) {
        return event.kind == host_event::position && event.value >= least && event.value <= most;
    });
}

/* Waits for a position from `least` to `most`, in ms. */
static bool position_comes(int32_t least, int32_t most) {
    return host_wait([=](const auto& events) { return any_position(events, least, most); });
}

/* Waits until so many tracks have ended. */
static bool ends_come(int number) {
    return host_wait(
        [=](const auto& events) { return count(events, host_event::finished) == number; });
}

/* Runs through a list the way the service does: attach and play inside the callbacks, with the
 * player lock held. Returns what was reported. */
static std::vector<host_event> play_list(const deck& deck, const std::vector<std::string>& ids) {
    size_t next = 1;
    bool ended = false;
    host_on_track([&](const host_event& event) {
        if (event.value == LYR_PLAY_ERROR_FATAL || next == ids.size()) {
            ended = true;
            return;
        }
        EXPECT_EQ(attach(deck, ids[next++]), 0);
        EXPECT_EQ(deck.play->play(deck.session), 0);
    });
    {
        vel_lock_guard hold(host_player_lock);
        EXPECT_EQ(attach(deck, ids[0]), 0);
        EXPECT_EQ(deck.play->play(deck.session), 0);
    }
    const auto done = [&](const std::vector<host_event>& events) {
        return count(events, host_event::finished) + count(events, host_event::error) >=
               static_cast<int>(ids.size());
    };
    EXPECT_TRUE(host_wait(done));
    host_on_track(nullptr);
    EXPECT_TRUE(ended);
    return host_events();
}

TEST(files_play, plays_what_standard_encoders_write) {
    deck deck;
    struct {
        const char* id;
        double hertz;
    } const tracks[] = {{"/1.flac", 440},
                        {"/2.ogg", 880},
                        {"/3.mp3", 1320},
                        {"/4.wav", 660},
                        {"/sub/bad \xFF%#?.flac", 550}};
    std::vector<std::string> ids;
    for (const auto& track : tracks) {
        make_track(deck.folder.path + track.id, track.hertz, 1200);
        ids.emplace_back(track.id);
    }
    write_file(deck.folder.path + "/broken.mp3", std::string(20000, '\x5A'));
    write_file(deck.folder.path + "/empty.flac", "");
    ids.insert(ids.begin() + 2, "/broken.mp3");
    ids.insert(ids.begin(), "/empty.flac");
    open_deck(&deck, wav_output(deck));
    const auto events = play_list(deck, ids);
    EXPECT_EQ(count(events, host_event::finished), 5) << "one end for each track";
    EXPECT_EQ(count(events, host_event::error), 2) << "and one error for each that is none";
    for (const host_event& event : events) {
        EXPECT_EQ(event.session, deck.session);
        EXPECT_EQ(event.data, &deck.player);
        EXPECT_TRUE(event.kind != host_event::error || event.value == LYR_PLAY_ERROR_SKIP);
    }
    auto all = written(deck);
    std::erase_if(all, [](const auto& samples) { return samples.empty(); });
    ASSERT_EQ(all.size(), std::size(tracks));
    for (size_t i = 0; i < all.size(); ++i) {
        EXPECT_NEAR(static_cast<double>(all[i].size()), 44100 * 1.2, 4000) << tracks[i].id;
        EXPECT_GT(tone_share(all[i], tracks[i].hertz), 0.9) << tracks[i].id;
    }
    close_deck(&deck);
}

TEST(files_play, seeks_pauses_and_goes_on) {
    deck deck;
    make_track(deck.folder.path + "/a.flac", 440, 60000);
    open_deck(&deck, CLOCKED);
    ASSERT_EQ(attach(deck, "/a.flac"), 0);
    ASSERT_EQ(deck.play->play(deck.session), 0);
    ASSERT_TRUE(position_comes(100, 30000));
    ASSERT_EQ(deck.play->seek(deck.session, 40000), 0);
    ASSERT_TRUE(position_comes(40000, 60000));
    for (const host_event& event : host_events()) {
        EXPECT_TRUE(event.value < 30000 || event.value >= 39900) << event.value;
    }
    ASSERT_EQ(deck.play->pause(deck.session), 0);
    ASSERT_EQ(deck.play->seek(deck.session, 10000), 0);
    ASSERT_TRUE(position_comes(9900, 10100));
    /* Two more seeks prove that the first one stood still: nothing between the places. */
    ASSERT_EQ(deck.play->seek(deck.session, 20000), 0);
    ASSERT_TRUE(position_comes(19900, 20100));
    host_forget();
    ASSERT_EQ(deck.play->seek(deck.session, 5000), 0);
    ASSERT_TRUE(position_comes(4900, 5100));
    EXPECT_EQ(host_events().size(), 1U);
    ASSERT_EQ(deck.play->play(deck.session), 0);
    ASSERT_TRUE(position_comes(5200, 9000));
    /* After stop the track begins anew. */
    ASSERT_EQ(deck.play->stop(deck.session), 0);
    ASSERT_EQ(deck.play->pause(deck.session), 0);
    host_forget();
    ASSERT_EQ(deck.play->play(deck.session), 0);
    ASSERT_TRUE(position_comes(0, 3000));
    EXPECT_FALSE(any_position(host_events(), 4000, 60000));
    close_deck(&deck);
}

TEST(files_play, begins_where_it_was_told) {
    deck deck;
    make_track(deck.folder.path + "/a.ogg", 440, 30000);
    open_deck(&deck, CLOCKED);
    ASSERT_EQ(attach(deck, "/a.ogg"), 0);
    ASSERT_EQ(deck.play->seek(deck.session, 20000), 0);
    ASSERT_TRUE(position_comes(20000, 20000));
    ASSERT_EQ(deck.play->play(deck.session), 0);
    ASSERT_TRUE(position_comes(20200, 29000));
    EXPECT_FALSE(any_position(host_events(), 0, 19800));
    /* Beyond the end is the end. */
    ASSERT_EQ(deck.play->seek(deck.session, 40000), 0);
    ASSERT_TRUE(ends_come(1));
    /* What has ended begins anew. */
    host_forget();
    ASSERT_EQ(deck.play->play(deck.session), 0);
    ASSERT_TRUE(position_comes(0, 15000));
    close_deck(&deck);
}

TEST(files_play, holds_the_end_back_while_paused) {
    deck deck;
    make_track(deck.folder.path + "/a.flac", 440, 60000);
    open_deck(&deck, CLOCKED);
    ASSERT_EQ(attach(deck, "/a.flac"), 0);
    ASSERT_EQ(deck.play->play(deck.session), 0);
    ASSERT_TRUE(position_comes(20, 60000));
    ASSERT_EQ(deck.play->pause(deck.session), 0);
    ASSERT_EQ(deck.play->seek(deck.session, 65000), 0);
    ASSERT_EQ(deck.play->seek(deck.session, 1000), 0);
    ASSERT_TRUE(position_comes(900, 1100));
    EXPECT_EQ(count(host_events(), host_event::finished), 0);
    ASSERT_EQ(deck.play->seek(deck.session, 59000), 0);
    ASSERT_EQ(deck.play->play(deck.session), 0);
    ASSERT_TRUE(ends_come(1));
    close_deck(&deck);
}

TEST(files_play, changes_the_rate_where_it_is) {
    deck deck;
    make_track(deck.folder.path + "/a.flac", 440, 40000);
    open_deck(&deck, CLOCKED);
    ASSERT_EQ(attach(deck, "/a.flac"), 0);
    for (const float refused : {0.0F, -1.0F, 9.0F, 0.0F / 0.0F}) {
        EXPECT_EQ(deck.play->set_playback_rate(deck.session, refused), -1);
    }
    ASSERT_EQ(deck.play->seek(deck.session, 20000), 0);
    ASSERT_EQ(deck.play->play(deck.session), 0);
    ASSERT_TRUE(position_comes(20100, 39000));
    ASSERT_EQ(deck.play->set_playback_rate(deck.session, 8.0F), 0);
    ASSERT_TRUE(ends_come(1));
    int32_t last = 0;
    for (const host_event& event : host_events()) {
        EXPECT_TRUE(event.kind != host_event::position || event.value >= last) << event.value;
        last = event.value;
    }
    close_deck(&deck);
}

/* Nothing wakes the player between two positions but what GStreamer says: an end that is not heard
 * at once is heard with the next position, an hour later. */
TEST(files_play, hears_each_end_at_once) {
    deck deck;
    std::vector<std::string> ids;
    for (int i = 0; i < 40; ++i) {
        ids.push_back("/" + std::to_string(i) + ".flac");
        if (i == 0) {
            make_track(deck.folder.path + ids[0], 440, 50);
        } else {
            fs::create_hard_link(deck.folder.path + ids[0], deck.folder.path + ids.back());
        }
    }
    open_deck(&deck, CLOCKED, "3600000");
    const std::vector<host_event> events = play_list(deck, ids);
    EXPECT_EQ(count(events, host_event::finished), 40);
    close_deck(&deck);
}

TEST(files_play, says_when_no_output_is_to_be_had) {
    for (const std::string output : {"nosuchsink", "audioconvert ! ! x", "audiotestsrc",
                                     "wavenc ! filesink location=/nonexistent/x.wav"}) {
        SCOPED_TRACE(output);
        deck deck;
        make_track(deck.folder.path + "/a.flac", 440, 500);
        open_deck(&deck, output);
        const auto events = play_list(deck, {"/a.flac"});
        ASSERT_EQ(events.size(), 1U);
        EXPECT_EQ(events[0].kind, host_event::error);
        EXPECT_EQ(events[0].value, LYR_PLAY_ERROR_FATAL);
        close_deck(&deck);
    }
}

TEST(files_play, plays_without_a_device) {
    deck deck;
    make_track(deck.folder.path + "/a.flac", 440, 600);
    make_track(deck.folder.path + "/b.mp3", 440, 600);
    open_deck(&deck, "autoaudiosink");
    const auto events = play_list(deck, {"/a.flac", "/b.mp3"});
    EXPECT_EQ(count(events, host_event::finished), 2);
    close_deck(&deck);
}

TEST(files_play, plays_video) {
    deck deck;
    run_tool({"ffmpeg", "-loglevel", "error", "-f", "lavfi", "-i", "testsrc=d=1:s=64x64:r=10", "-f",
              "lavfi", "-i", "sine=d=1", "-c:v", "mjpeg", "-c:a", "flac",
              deck.folder.path + "/a.mkv"});
    open_deck(&deck, CLOCKED);
    ASSERT_EQ(attach(deck, "/a.mkv", LYR_NODE_VIDEO), 0);
    ASSERT_EQ(deck.play->play(deck.session), 0);
    ASSERT_TRUE(host_wait([](const auto& events) {
        return count(events, host_event::finished) + count(events, host_event::error) == 1;
    }));
    EXPECT_EQ(count(host_events(), host_event::finished), 1);
    close_deck(&deck);
}

TEST(files_play, answers_before_a_track_is_attached) {
    deck deck;
    open_deck(&deck, CLOCKED);
    EXPECT_EQ(deck.play->play(deck.session), -1);
    EXPECT_EQ(deck.play->pause(deck.session), -1);
    EXPECT_EQ(deck.play->seek(deck.session, 1), -1);
    EXPECT_EQ(deck.play->stop(deck.session), 0);
    EXPECT_EQ(attach(deck, "/gone.mp3"), -1);
    EXPECT_EQ(deck.play->attach_medianode(deck.session, nullptr), -1);
    make_track(deck.folder.path + "/a.flac", 440, 500);
    EXPECT_EQ(attach(deck, "/a.flac"), 0);
    EXPECT_EQ(deck.play->seek(deck.session, -1), -1);
    close_deck(&deck);
}

/* The service calls with the player lock held while a callback waits for that lock. */
TEST(files_play, never_waits_for_a_callback_in_flight) {
    deck deck;
    make_track(deck.folder.path + "/a.flac", 440, 20000);
    open_deck(&deck, CLOCKED);
    ASSERT_EQ(attach(deck, "/a.flac"), 0);
    ASSERT_EQ(deck.play->play(deck.session), 0);
    int32_t begun = 0;
    {
        vel_lock_guard hold(host_player_lock);
        ASSERT_TRUE(host_wait_begun(host_begun() + 1)) << "one waits for the lock now";
        EXPECT_EQ(deck.play->pause(deck.session), 0);
        EXPECT_EQ(deck.play->seek(deck.session, 3000), 0);
        EXPECT_EQ(deck.play->stop(deck.session), 0);
        EXPECT_EQ(attach(deck, "/a.flac"), 0);
        EXPECT_EQ(deck.play->play(deck.session), 0);
        EXPECT_EQ(deck.play->destroy(deck.session), 0);
        begun = host_begun();
        /* The handle of a new session differs while the old one may still be named. */
        void* other = deck.play->create(0, &deck.player);
        EXPECT_NE(other, deck.session);
        deck.session = other;
    }
    close_deck(&deck);
    EXPECT_EQ(host_begun(), begun) << "none begins after destroy";
}

/* Sessions come and go in the middle of everything, and the library with them. */
TEST(files_play, survives_being_taken_away) {
    for (int round = 0; round < 5; ++round) {
        deck deck;
        make_track(deck.folder.path + "/a.flac", 440, 5000);
        open_deck(&deck, CLOCKED);
        for (int step = 0; step < 6; ++step) {
            EXPECT_EQ(attach(deck, "/a.flac"), 0);
            EXPECT_EQ(deck.play->play(deck.session), 0);
            if (step % 3 == 1) {
                EXPECT_TRUE(host_wait_begun(host_begun() + 1));
            }
            if (step % 2 == 1) {
                EXPECT_EQ(deck.play->stop(deck.session), 0);
            }
            EXPECT_EQ(deck.play->destroy(deck.session), 0);
            deck.session = deck.play->create(0, &deck.player);
        }
        close_deck(&deck);
    }
}

/* Threads that playing starts leave the signals of the process to the service. */
TEST(files_play, threads_take_no_signals) {
    deck deck;
    make_track(deck.folder.path + "/a.mp3", 440, 20000);
    open_deck(&deck, CLOCKED);
    ASSERT_EQ(attach(deck, "/a.mp3"), 0);
    ASSERT_EQ(deck.play->play(deck.session), 0);
    ASSERT_TRUE(position_comes(20, 20000));
    int others = 0;
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        if (task.path().filename() == std::to_string(getpid())) {
            continue;
        }
        std::string name;
        std::ifstream(task.path() / "comm") >> name;
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("SigBlk:", 0) == 0) {
                const uint64_t mask = std::stoull(line.substr(8), nullptr, 16);
                for (const int number : {SIGINT, SIGTERM, SIGQUIT, SIGUSR1}) {
                    EXPECT_NE(mask >> (number - 1) & 1, 0U) << name << ' ' << number;
                }
                ++others;
            }
        }
    }
    EXPECT_GT(others, 1);
    close_deck(&deck);
}
