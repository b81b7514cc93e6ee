/* The play half of the plug-in, through its table, with real files and real decoders. */
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "library.h"

namespace fs = std::filesystem;

/* A plug-in with one track. */
static void make_deck(library* lib, const std::string& id, int32_t milliseconds,
                      const std::map<std::string, std::string>& settings = {}) {
    make_track(lib->folder.path + id, 440, milliseconds);
    start_library(lib, settings);
}

/* Runs through a list the way the service does: attach and play inside the callbacks, with the
 * player lock held. Returns what was reported. */
static std::vector<host_event> play_list(const library& lib, const std::vector<std::string>& ids) {
    size_t next = 0;
    bool ended = false;
    const auto play_next = [&] {
        const std::string& id = ids[next++];
        EXPECT_EQ(attach(lib, id, id.ends_with(".mkv") ? LYR_NODE_VIDEO : LYR_NODE_AUDIO), 0);
        EXPECT_EQ(lib.api->play_api->play(lib.play), 0);
    };
    host_on_track([&](const host_event& event) {
        ended = event.value == LYR_PLAY_ERROR_FATAL || next == ids.size();
        if (!ended) {
            play_next();
        }
    });
    {
        vel_lock_guard hold(host_player_lock);
        play_next();
    }
    EXPECT_TRUE(host_wait([&ids](const host_record& now) {
        return std::count_if(now.events.begin(), now.events.end(), [](const host_event& event) {
                   return event.kind != host_event::position;
               }) >= static_cast<ptrdiff_t>(ids.size());
    }));
    host_on_track(nullptr);
    EXPECT_TRUE(ended);
    return host_now().events;
}

/* The first test: GStreamer reads its registry once in a process. The service's umask is 0. */
TEST(files_play, others_may_write_nothing_that_playing_makes) {
    const temporary_folder home;
    const std::string registry = home.path + "/gstreamer-1.0";
    library lib;
    write_file(registry + "/planted.bin", "");
    fs::permissions(registry, fs::perms::all);
    setenv("XDG_CACHE_HOME", home.path.c_str(), 1); // NOLINT(concurrency-mt-unsafe): alone
    const mode_t before = umask(0);
    make_deck(&lib, "/a.wav", 100,
              {{"audio_output", "wavenc ! filesink location=" + home.path + "/out.wav"}});
    play_list(lib, {"/a.wav"});
    umask(before);
    EXPECT_FALSE(fs::exists(registry + "/planted.bin")) << "it may be a stranger's";
    size_t made = 0;
    for (const auto& each : fs::recursive_directory_iterator(home.path)) {
        EXPECT_EQ(each.status().permissions() & (fs::perms::group_write | fs::perms::others_write),
                  fs::perms::none)
            << each.path();
        ++made;
    }
    EXPECT_GE(made, 3U) << "the registry, its folder and the output";
}

/* Descriptors of this process that lead into a folder. */
static int open_below(const std::string& folder) {
    int count = 0;
    for (const auto& each : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        count += fs::read_symlink(each.path(), gone).string().starts_with(folder + '/') ? 1 : 0;
    }
    return count;
}

/* A track is looked for again when it begins, and only a file of the source is one. */
TEST(files_play, what_took_the_place_of_a_track_is_not_played) {
    for (const bool pipe : {false, true}) {
        const temporary_folder outside;
        library lib;
        make_deck(&lib, "/a.wav", 60000, {{"index", "0"}});
        const std::string path = lib.folder.path + "/a.wav";
        play(lib, "/a.wav");
        EXPECT_EQ(open_below(lib.folder.path), 1);
        ASSERT_EQ(attach(lib, "/a.wav"), 0);
        host_forget();
        fs::rename(path, outside.path + "/b.wav");
        if (pipe) {
            ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
        } else {
            fs::create_symlink(outside.path + "/b.wav", path);
        }
        ASSERT_EQ(lib.api->play_api->play(lib.play), 0);
        ASSERT_TRUE(host_wait([](const host_record& now) { return !now.events.empty(); }));
        EXPECT_EQ(host_events(host_event::error, LYR_PLAY_ERROR_SKIP, LYR_PLAY_ERROR_SKIP), 1);
        EXPECT_EQ(open_below(lib.folder.path), 0) << "nothing is held that is not played";
        EXPECT_EQ(attach(lib, "/a.wav"), -1);
    }
}

/* An APE tag, or the mark of one that says it has this size. */
static std::string ape_tag(uint32_t size = 0) {
    const auto number = [](uint32_t value) {
        return std::string(reinterpret_cast<const char*>(&value), sizeof value);
    };
    const std::string item =
        number(300) + number(0) + std::string("Title", 6) + std::string(300, 'x');
    const auto mark = [&](uint32_t flags) {
        const uint32_t said = size != 0 ? size : static_cast<uint32_t>(item.size()) + 32;
        return "APETAGEX" + number(2000) + number(said) + number(1) + number(flags) +
               std::string(8, '\0');
    };
    return size != 0 ? mark(0xa0000000) : mark(0xa0000000) + item + mark(0x80000000);
}

TEST(files_play, plays_what_standard_encoders_write) {
    library lib;
    const temporary_folder output;
    struct {
        const char* id;
        double hertz; /* 0: it is no track */
    } const files[] = {
        {"/empty.flac", 0}, {"/1.flac", 440}, {"/2.ogg", 880}, {"/broken.mp3", 0},
        {"/3.mp3", 1320},   {"/4.wav", 660},  {"/5.mkv", 990}, {"/sub/bad \xFF%#?.flac", 550},
        {"/6.mp3", 700},    {"/7.mp3", 750},  {"/lie.ape", 0}, {"/lie.mp3", 0}};
    std::vector<std::string> ids;
    std::vector<double> tones;
    for (const auto& file : files) {
        ids.emplace_back(file.id);
        if (file.hertz != 0) {
            make_track(lib.folder.path + file.id, file.hertz, 1200);
            tones.push_back(file.hertz);
        }
    }
    add(lib, "/broken.mp3", std::string(20000, '\x5A'));
    add(lib, "/empty.flac", "");
    add(lib, "/6.mp3", ape_tag() + ape_tag(1) + file_content(lib.folder.path + "/6.mp3"));
    add(lib, "/7.mp3",
        file_content(lib.folder.path + "/7.mp3") + ape_tag(0xfffffff0) + ape_tag() + "TAG" +
            std::string(125, ' '));
    for (const char* id : {"/lie.ape", "/lie.mp3"}) {
        add(lib, id, "MAC " + std::string(200, '\xFF') + ape_tag(0xfffffff0));
    }
    /* Each track to a file of its own, as fast as it can be decoded. */
    start_library(&lib, {{"audio_output", "audioconvert ! audioresample ! "
                                          "audio/x-raw,format=S16LE,rate=44100,channels=1 ! "
                                          "wavenc ! filesink location=" +
                                              output.path + "/%u.wav"}});
    for (const host_event& event : play_list(lib, ids)) {
        EXPECT_EQ(event.session, lib.play);
        EXPECT_EQ(event.data, &lib.player);
    }
    EXPECT_EQ(host_events(host_event::finished), 8) << "one end for each track";
    EXPECT_EQ(host_events(host_event::error), 4) << "and one error for each that is none";
    EXPECT_EQ(host_events(host_event::error, LYR_PLAY_ERROR_SKIP, LYR_PLAY_ERROR_SKIP), 4);
    std::map<int, std::vector<int16_t>> written;
    for (const auto& entry : fs::directory_iterator(output.path)) {
        written[std::stoi(entry.path().stem().string())] = read_wav(entry.path().string());
    }
    std::erase_if(written, [](const auto& track) { return track.second.empty(); });
    ASSERT_EQ(written.size(), tones.size());
    auto tone = tones.begin();
    for (const auto& [number, samples] : written) {
        EXPECT_NEAR(static_cast<double>(samples.size()), 44100 * 1.2, 4000) << *tone;
        EXPECT_GT(tone_share(samples, *tone), 0.9) << *tone;
        ++tone;
    }
}

TEST(files_play, moves_within_a_track) {
    library lib;
    make_deck(&lib, "/a.wav", 60000);
    const lyr_play_api& api = *lib.api->play_api;
    EXPECT_EQ(api.play(lib.play), -1) << "nothing is attached";
    EXPECT_EQ(attach(lib, "/gone.mp3"), -1);
    ASSERT_EQ(attach(lib, "/a.wav"), 0);
    EXPECT_EQ(api.seek(lib.play, -1), -1);
    for (const float refused : {0.0F, -1.0F, 9.0F, 0.0F / 0.0F}) {
        EXPECT_EQ(api.set_playback_rate(lib.play, refused), -1);
    }
    /* It begins where it was told, and goes on where it is moved to. */
    ASSERT_EQ(api.seek(lib.play, 20000), 0);
    ASSERT_TRUE(host_wait_event(host_event::position, 20000, 20000));
    ASSERT_EQ(api.play(lib.play), 0);
    ASSERT_TRUE(host_wait_event(host_event::position, 20200, 29000));
    EXPECT_EQ(host_events(host_event::position, 0, 19800), 0);
    ASSERT_EQ(api.seek(lib.play, 40000), 0);
    ASSERT_TRUE(host_wait_event(host_event::position, 40000, 60000));
    EXPECT_EQ(host_events(host_event::position, 30000, 39900), 0);
    ASSERT_EQ(api.pause(lib.play), 0);
    ASSERT_EQ(api.seek(lib.play, 10000), 0);
    ASSERT_TRUE(host_wait_event(host_event::position, 9900, 10100));
    /* One more seek proves that it stands still: there is nothing between the places. */
    host_forget();
    ASSERT_EQ(api.seek(lib.play, 5000), 0);
    ASSERT_TRUE(host_wait_event(host_event::position, 4900, 5100));
    EXPECT_EQ(host_now().events.size(), 1U);
    /* The end is held back while it is paused. */
    ASSERT_EQ(api.seek(lib.play, 65000), 0);
    ASSERT_EQ(api.seek(lib.play, 1000), 0);
    ASSERT_TRUE(host_wait_event(host_event::position, 900, 1100));
    EXPECT_EQ(host_events(host_event::finished), 0);
    ASSERT_EQ(api.play(lib.play), 0);
    ASSERT_TRUE(host_wait_event(host_event::position, 1200, 4000));
    /* It changes its rate where it is. */
    ASSERT_EQ(api.seek(lib.play, 50000), 0);
    ASSERT_TRUE(host_wait_event(host_event::position, 50000, 60000));
    host_forget();
    ASSERT_EQ(api.set_playback_rate(lib.play, 8.0F), 0);
    ASSERT_TRUE(host_wait_event(host_event::finished));
    int32_t last = 50000;
    for (const host_event& event : host_now().events) {
        EXPECT_TRUE(event.kind != host_event::position || event.value >= last) << event.value;
        last = event.value;
    }
    ASSERT_EQ(api.set_playback_rate(lib.play, 1.0F), 0);
    /* What has ended begins anew; beyond the end is the end. */
    host_forget();
    ASSERT_EQ(api.play(lib.play), 0);
    ASSERT_TRUE(host_wait_event(host_event::position, 0, 15000));
    ASSERT_EQ(api.seek(lib.play, 70000), 0);
    ASSERT_TRUE(host_wait_event(host_event::finished));
    /* After stop it begins anew, too. */
    host_forget();
    ASSERT_EQ(api.play(lib.play), 0);
    ASSERT_EQ(api.seek(lib.play, 30000), 0);
    ASSERT_TRUE(host_wait_event(host_event::position, 30100, 50000));
    ASSERT_EQ(api.stop(lib.play), 0);
    ASSERT_EQ(api.pause(lib.play), 0);
    host_forget();
    ASSERT_EQ(api.play(lib.play), 0);
    EXPECT_TRUE(host_wait_event(host_event::position, 0, 3000));
}

/* Nothing wakes the player between two positions but what GStreamer says: an end that is not heard
 * at once is heard with the next position, an hour later. */
TEST(files_play, hears_each_end_at_once) {
    library lib;
    make_deck(&lib, "/0.flac", 50, {{"update_interval", "3600000"}});
    std::vector<std::string> ids = {"/0.flac"};
    for (int i = 1; i < 40; ++i) {
        ids.push_back("/" + std::to_string(i) + ".flac");
        fs::create_hard_link(lib.folder.path + ids[0], lib.folder.path + ids.back());
    }
    play_list(lib, ids);
    EXPECT_EQ(host_events(host_event::finished), 40);
}

TEST(files_play, plays_without_a_device_but_not_without_an_output) {
    struct {
        const char* output;
        host_event::what end;
    } const cases[] = {{"autoaudiosink", host_event::finished},
                       {"nosuchsink", host_event::error},
                       {"audioconvert ! ! x", host_event::error},
                       {"audiotestsrc", host_event::error},
                       {"wavenc ! filesink location=/nonexistent/x.wav", host_event::error}};
    for (const auto& test : cases) {
        SCOPED_TRACE(test.output);
        library lib;
        make_deck(&lib, "/a.wav", 500, {{"audio_output", test.output}});
        const host_event last = play_list(lib, {"/a.wav"}).back();
        EXPECT_EQ(last.kind, test.end);
        EXPECT_TRUE(last.kind == host_event::finished || last.value == LYR_PLAY_ERROR_FATAL);
    }
}

/* Sessions come and go in the middle of everything, and the library with them. The service calls
 * with the player lock held while a callback waits for that lock. */
TEST(files_play, survives_being_taken_away) {
    for (int round = 0; round < 4; ++round) {
        const bool waits = round % 2 == 0;
        library lib;
        make_deck(&lib, "/a.wav", 5000);
        const lyr_play_api& api = *lib.api->play_api;
        int32_t begun = 0;
        for (int step = 0; step < 6; ++step) {
            vel_lock_guard hold(host_player_lock);
            begun = host_now().begun;
            EXPECT_EQ(attach(lib, "/a.wav"), 0);
            EXPECT_EQ(api.play(lib.play), 0);
            if (waits) {
                ASSERT_TRUE(host_wait_begun(begun)) << "one waits for the lock now";
                EXPECT_EQ(api.pause(lib.play), 0);
                EXPECT_EQ(api.seek(lib.play, 3000), 0);
            }
            if (step % 2 == 1) {
                EXPECT_EQ(api.stop(lib.play), 0);
            }
            EXPECT_EQ(api.destroy(lib.play), 0);
            begun = host_now().begun;
            /* The handle of a new session differs while the old one may still be named. */
            void* other = api.create(0, &lib.player);
            EXPECT_NE(other, lib.play);
            lib.play = other;
        }
        close_library(&lib);
        EXPECT_TRUE(!waits || host_now().begun == begun) << "none begins after destroy";
    }
}

/* Threads that playing starts leave the signals of the process to the service. */
TEST(files_play, threads_take_no_signals) {
    library lib;
    make_deck(&lib, "/a.mp3", 20000);
    play(lib, "/a.mp3");
    int others = 0;
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        if (task.path().filename() == std::to_string(getpid())) {
            continue;
        }
        std::string name;
        std::ifstream(task.path() / "comm") >> name;
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("SigBlk:")) {
                const uint64_t mask = std::stoull(line.substr(8), nullptr, 16);
                for (const int number : {SIGINT, SIGTERM, SIGQUIT, SIGUSR1}) {
                    EXPECT_NE(mask >> (number - 1) & 1, 0U) << name << ' ' << number;
                }
                ++others;
            }
        }
    }
    EXPECT_GT(others, 1);
}
