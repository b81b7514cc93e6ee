/* Real files through the real service: what is in a folder comes out as sound, in order. */
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "media_files.h"
#include "rig.h"

namespace fs = std::filesystem;

namespace {

/* A folder of every kind of trouble: three formats, a name that is no UTF-8, a broken file, an
 * empty folder, a nested one. */
void make_album(const std::string& folder) {
    write_file(folder + "/0 broken.mp3", std::string(20000, '\x5a'));
    make_track(folder + "/1.flac", 400, 700, {"title=One", "artist=Ann"});
    make_track(folder + "/2.ogg", 600, 700, {"title=Two", "artist=Bob"});
    make_track(folder + "/3.mp3", 800, 700, {"title=Three", "artist=Cid"});
    make_track(folder + "/4 caf\xe9.flac", 1000, 700, {"title=Four", "artist=Dee"});
    make_track(folder + "/a/b/5.mp3", 1200, 700, {"title=Five", "artist=Eve"});
    fs::create_directory(folder + "/empty");
}

/* The frequency that a track's file sounds of, 0: of none of them. */
int heard(const std::string& path) {
    const std::vector<int16_t> samples = read_wav(path);
    for (int hertz = 400; hertz <= 1200; hertz += 200) {
        if (!samples.empty() && tone_share(samples, hertz) > 0.8) {
            return hertz;
        }
    }
    return 0;
}

/* The tones of a folder's numbered files, in the order of their numbers. */
std::vector<int> tones_of(const std::string& folder) {
    std::map<int, int> heard_at;
    for (const auto& entry : fs::directory_iterator(folder)) {
        if (entry.path().extension() == ".wav") {
            heard_at[std::atoi(entry.path().stem().c_str())] = heard(entry.path());
        }
    }
    std::vector<int> tones;
    for (const auto& [number, hertz] : heard_at) {
        if (hertz != 0) { /* the broken file has no sound */
            tones.push_back(hertz);
        }
    }
    return tones;
}

} // namespace

TEST(Album, PlaysFromFolderToSound) {
    const temporary_folder music;
    make_album(music.path);
    rig rig;
    daemon_prepare(rig.daemon);
    rig.daemon.player["audio_output"] =
        "audioconvert ! audio/x-raw,format=S16LE,channels=1 ! wavenc ! filesink location=" +
        rig.daemon.root + "/%u.wav";
    rig.daemon.player["update_interval"] = "50";
    rig.daemon.plugins.push_back(
        {"files", "", {{"folders", music.path}, {"mounts", ""}}, false, FILES_PLUGIN});
    ASSERT_TRUE(rig_run(rig));
    ASSERT_EQ(request_sources(rig.client).size(), 1u);

    /* Started at the first file: its folder's files come before the folders. */
    const uint64_t ts_id = rig_session(rig, "album", "/", 6, 2);
    std::vector<request_node> nodes;
    EXPECT_EQ(request_browse(rig.client, 0, "/", 0, -1, nodes), 0);
    EXPECT_EQ(request_ids(nodes), "/a /empty /0 broken.mp3 /1.flac /2.ogg /3.mp3 /4 caf\xe9.flac ");
    /* Nothing keeps time here: the tracks end as fast as they can be written. */
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
    /* It says that it plays before play is answered, and stops after the last track. */
    EXPECT_TRUE(daemon_await_object(rig.daemon, "album", "state", "status", "::stopped"));
    EXPECT_EQ(request_current(rig.client).index, 5);
    EXPECT_EQ(request_current(rig.client).data.title, "Five");
    EXPECT_EQ(request_destroy(rig.client, ts_id), 0);
    EXPECT_EQ(rig_stop(rig), 0) << daemon_log(rig.daemon);
    EXPECT_EQ(tones_of(rig.daemon.root), (std::vector<int>{400, 600, 800, 1000, 1200}));
    daemon_remove(rig.daemon);
}

/* A signal in the middle of a track: GStreamer's threads are at work. */
TEST(Album, EndsInTheMiddleOfATrack) {
    const temporary_folder music;
    make_track(music.path + "/long.flac", 500, 60000, {"title=Long"});
    rig rig;
    daemon_prepare(rig.daemon);
    rig.daemon.player["audio_output"] = "fakesink sync=true";
    rig.daemon.player["update_interval"] = "20";
    rig.daemon.plugins.push_back(
        {"files", "", {{"folders", music.path}, {"mounts", ""}}, false, FILES_PLUGIN});
    ASSERT_TRUE(rig_run(rig));
    rig_session(rig, "radio", "/", 1);
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
    EXPECT_EQ(request_number(rig.client, LYR_MSG_SEEK, 30000), 0);
    for (int32_t position = 0; position < 30100;) {
        ASSERT_EQ(request_position(rig.client, &position), 0);
    }
    EXPECT_EQ(rig_stop(rig), 0) << daemon_log(rig.daemon);
    rig_expect_clean(rig.daemon);
    daemon_remove(rig.daemon);
}
