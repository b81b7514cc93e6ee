// lyractl against the whole service with a scripted plug-in.
#include <algorithm>
#include <csignal>
#include <fstream>

#include <gtest/gtest.h>

#include "program.h"
#include "rig.h"

namespace {

constexpr const char* TREE = "/none|F\n/album/a|A|First\n/album/b|A|Second\n/album/c|A|Third\n"
                             "/many|tracks:1201\n/odd\\xff|A|r\\xe9\\x1b[2J\\xe2\\x80\\xae\n";

std::vector<std::string> words(const std::vector<std::string>& arguments) {
    std::vector<std::string> all = {LYRACTL_EXECUTABLE};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

program tool_start(const std::vector<std::string>& arguments) {
    return program_start(words(arguments));
}

program_result tool_run(const std::vector<std::string>& arguments) {
    return program_run(words(arguments));
}

/* Runs it and expects it to do what it was told without a complaint. */
std::string good(const std::vector<std::string>& arguments) {
    const program_result result = tool_run(arguments);
    EXPECT_EQ(result.status, 0) << arguments[0] << ": " << result.err;
    EXPECT_EQ(result.err, "");
    return result.out;
}

/* The same, and a part of what it prints. */
void says(const std::vector<std::string>& arguments, const std::string& part) {
    const std::string out = good(arguments);
    EXPECT_NE(out.find(part), std::string::npos) << out;
}

/* Runs it and expects a complaint. */
void complains(const std::vector<std::string>& arguments, const std::string& part) {
    const program_result result = tool_run(arguments);
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find(part), std::string::npos) << result.err;
}

size_t lines_of(const std::string& text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

std::string published(rig& rig, const char* player, const char* attribute) {
    return daemon_object(rig.daemon, player, "state").at(attribute);
}

/* The service with its scripted plug-in, which leaves nothing behind. */
struct Tool : testing::Test {
    struct rig rig;
    void SetUp() override { ASSERT_TRUE(rig_start(rig, TREE)); }
    void TearDown() override { rig_end(rig); }
};

} // namespace

TEST_F(Tool, SaysInPlainWordsWhyNot) {
    good({"open", "bare"});
    const struct {
        std::vector<std::string> arguments;
        int status;
        const char* why; /* part of the standard error */
    } cases[] = {
        {{"--service", "other.sys", "sources"}, 1, "the service other.sys is not running"},
        {{"play", "-p", "none"}, 1, "there is no player \"none\", only: bare"},
        {{"play"}, 1, "the player \"bare\" has no track session"},
        {{"now"}, 1, "the player has no current track"},
        {{"browse", "stick"}, 1, "there is no media source \"stick\"; connected: 0 (disk)"},
        {{"browse", "0", "/nowhere"}, 1, "does not list this folder"},
        {{"session", "0", "none"}, 1, "there is no track in this folder"},
        {{"open", "a/b"}, 1, "the name is not allowed"},
        {{"open", std::string(128, 'x')}, 1, "1 to 127 bytes"},
        {{"nonsense"}, 2, "there is no command \"nonsense\""},
        {{"browse", "--limit", "-1"}, 2, "--limit"},
        {{"seek", "1:60"}, 1, "\"1:60\" is no position"},
        {{"repeat", "twice"}, 2, "MODE"},
        {{}, 2, "subcommand"},
    };
    for (const auto& c : cases) {
        const program_result result = tool_run(c.arguments);
        EXPECT_EQ(result.status, c.status) << c.why;
        EXPECT_NE(result.err.find(c.why), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "") << c.why;
    }
    EXPECT_FALSE(rig_has_player(rig.daemon, "none"));
}

TEST_F(Tool, ListsAndBrowses) {
    EXPECT_EQ(good({"sources"}), "ID  NAME  TYPE  UID\n 0  disk  HDD   disk\n");
    EXPECT_EQ(good({"browse", "DISK", "album", "--offset", "1", "--limit", "1"}),
              "NAME    TYPE   ITEMS  ID\nSecond  audio         /album/b\n");
    /* More than one page, by id, and whatever a page holds. */
    fake_do(rig.disk, "rule browse page=100");
    EXPECT_EQ(lines_of(good({"browse", "0", "/many"})), 1202u);
    EXPECT_EQ(lines_of(good({"browse", "0", "many", "--limit", "650"})), 651u);
    says({"browse"}, "r\\xe9\\x1b[2J\\u{202e}  audio");
    says({"browse", "--json"},
         "{\"id\":\"/odd\uFFFD\",\"name\":\"r\uFFFD\\u001b[2J\\u202e\",\"type\":\"audio\"");
    /* The player that it browsed with is gone. */
    complains({"state"}, "there is no player;");
}

TEST_F(Tool, SteersAndTellsWhatIsPublished) {
    /* The first folder is empty: the session begins with the first track there is. */
    EXPECT_EQ(good({"session", "-p", "radio", "--create", "--play", "--json"}).substr(0, 28),
              "{\"player\":\"radio\",\"session\":");
    EXPECT_EQ(published(rig, "radio", "status"), "::playing");
    daemon_await_object(rig.daemon, "radio", "trksession", "length", ":n:1205");
    says({"now"}, "title     First\ntrack     1 of");
    good({"next"});
    says({"now", "--json"}, "\"index\":1,\"id\":\"/album/b\",\"name\":\"Second\"");
    EXPECT_EQ(good({"pause", "--json"}), "{\"player\":\"radio\",\"result\":0}\n");
    EXPECT_EQ(published(rig, "radio", "status"), "::paused");
    good({"previous"});
    fake_do(rig.disk, "event position value=61000");
    says({"state"}, "status    paused\nrate      1.0\nshuffle   off\nrepeat    off\n");
    says({"state"}, "position  1:01\n");
    good({"stop"});
    EXPECT_EQ(published(rig, "radio", "status"), "::stopped");
    fake_do(rig.disk, "rule play result=7");
    complains({"play"}, "cannot play now (result 7)");
}

TEST_F(Tool, SteersInDetail) {
    fake_do(rig.disk, "meta /album/b title=Second artist=Someone track=2 duration=61000");
    fake_do(rig.disk, "ext /album/b codec FLAC");
    good({"session", "-p", "radio", "--create", "0", "album"});
    daemon_await_object(rig.daemon, "radio", "trksession", "length", ":n:3");
    fake_do(rig.disk, "event position value=20000");
    const struct {
        std::vector<std::string> arguments;
        const char* out;
        const char* call = ""; /* of the plug-in, and its value */
        const char* value = "";
    } cases[] = {
        {{"jump", "2"}, "", "attach"},
        {{"seek", "1:30"}, "", "seek", "90000"},
        {{"rate", "1.500"}, "", "rate", "1.500"},
        {{"shuffle", "on"}, ""},
        {{"repeat", "one", "--json"}, "{\"player\":\"radio\",\"result\":0}\n"},
        {{"tracks", "--offset", "2"}, "NAME   TYPE   ITEMS  ID\nThird  audio         /album/c\n"},
        {{"search", "Seco"},
         "NAME    TYPE   ITEMS  ID\nSecond  audio         /album/b\n",
         "search"},
        {{"metadata", "album/Second"},
         "title   Second\nartist  Someone\nlength  1:01\ntrack   2\n",
         "metadata"},
        {{"metadata", "/album/b", "--key", "codec", "--key", "none", "--json"},
         "{\"id\":\"/album/b\",\"values\":{\"codec\":\"FLAC\",\"none\":null}}\n",
         "extended"},
        {{"players"}, "radio\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments[0]);
        fake_do(rig.disk, "clear");
        EXPECT_EQ(good(c.arguments), c.out);
        if (*c.call != '\0') {
            const std::vector<fake_record> calls = fake_log(rig.disk, c.call);
            ASSERT_GE(calls.size(), 1u);
            EXPECT_EQ(fake_word(calls[0], "value").substr(0, 5), c.value);
        }
    }
    EXPECT_EQ(published(rig, "radio", "shuffle"), "::on");
    EXPECT_EQ(published(rig, "radio", "repeat"), "::one");
    fake_do(rig.disk, "event position value=20000");
    good({"seek", "-5"});
    good({"seek", "-1:00"});
    EXPECT_EQ(fake_word(fake_log(rig.disk, "seek").at(0), "value"), "15000");
    EXPECT_EQ(fake_word(fake_log(rig.disk, "seek").at(1), "value"), "0");

    good({"destroy"});
    EXPECT_EQ(published(rig, "radio", "status"), "::idle");
    complains({"destroy"}, "has no track session");
    /* The one that made it left without closing it. */
    complains({"close", "radio"}, "stays: other clients hold it");
}

/* A player takes 32 clients, and a lost one is lost until the service ends. */
TEST_F(Tool, ClosesWhatItOpens) {
    program holder = tool_start({"open", "--hold", "--json", "radio"});
    program_await(holder, "\"made\":true");
    for (int i = 0; i < 35; i++) {
        good({"state"});
        good({"open", "radio"});
        tool_run({"play"}); /* fails: there is no track session */
    }

    /* A signal waits until the player is closed. */
    fake_do(rig.disk, "rule browse block=gate");
    program browsing = tool_start({"browse"});
    fake_do(rig.disk, "blocked gate");
    kill(browsing.pid, SIGTERM);
    fake_do(rig.disk, "release gate");
    EXPECT_EQ(program_end(browsing).status, 128 + SIGTERM);

    EXPECT_EQ(program_end(holder, SIGINT).status, 0);
    EXPECT_FALSE(rig_has_player(rig.daemon, "radio"));
}

TEST_F(Tool, WatchesChangesAsTheyHappen) {
    program all = tool_start({"watch", "--json"});
    good({"session", "-p", "radio", "--create"});
    program one = tool_start({"watch", "radio"});
    program_await(one, "status        stopped\n");
    fake_do(rig.disk, "event position value=4321");
    program_await(one, "radio/status              position      4321\n");
    program_await(all, "{\"player\":\"radio\",\"object\":\"status\",\"set\":{\"position\":4321},"
                       "\"withdrawn\":[]}\n");
    EXPECT_EQ(request_open(rig.client, "kitchen"), 0);
    program_await(all, "{\"player\":\"kitchen\",\"object\":\"state\",\"set\":{\"rate\":1.0,");
    EXPECT_EQ(request_close(rig.client, "kitchen"), 0);
    program_await(all, "{\"player\":\"kitchen\",\"object\":\"state\",\"gone\":true}\n");
    EXPECT_EQ(one.result.out.find("kitchen"), std::string::npos);
    kill(all.pid, SIGTERM);
    program_end(all);
    EXPECT_EQ(daemon_stop(rig.daemon), 0);
    /* The player went with the service. */
    EXPECT_EQ(program_end(one).status, 0);
}

TEST_F(Tool, DoctorFindsWhatIsWrong) {
    const std::string config = rig.daemon.root + "/lyrane.cfg";
    const std::string broken = rig.daemon.root + "/broken.cfg";
    const std::string well = good({"doctor", "-c", config});
    for (const char* line :
         {"ok    configuration", "ok    player settings", "ok    plug-in disk.so",
          "ok    runtime root", "ok    service", "ok    media sources"}) {
        EXPECT_NE(well.find(line), std::string::npos) << line << "\n" << well;
    }
    /* One that calls the service's functions. */
    std::ofstream(broken) << R"({"player": {}, "plugins": {")" FILES_LIBRARY
                             R"(": {"folders": "/"}}})";
    const program_result real = tool_run({"doctor", "-c", broken});
    EXPECT_NE(real.out.find("ok    plug-in files.so"), std::string::npos) << real.out;
    const struct {
        const char* text;
        const char* line;
    } rows[] = {
        {"# none", "\"configuration\",\"found\":"},
        {"{\"plugins\": {\"/nowhere/x.so\": {}}}", "/nowhere/x.so: cannot open"},
        {"{\"plugins\": {\"libm.so.6\": {}}}", "no data object lyrp"},
        {"{}", "there is no object \\\"plugins\\\""},
        {R"({"player": {"lastmode_audio": {"keep_missing": "0"}}})", "set \\\"keep_missing\\\" to"},
    };
    for (const auto& row : rows) {
        std::ofstream(broken) << row.text;
        const program_result result = tool_run({"doctor", "--json", "-c", broken});
        EXPECT_EQ(result.status, 1) << row.text;
        EXPECT_NE(result.out.find(row.line), std::string::npos) << result.out;
        EXPECT_NE(result.err.find("to be mended"), std::string::npos);
    }
}

TEST_F(Tool, ScreenWithoutATerminal) {
    program screen = tool_start({"screen", "-p", "run", "--source", "disk", "--folder", "album"});
    program_await(screen, ": First\n  playing\n");
    daemon_await_object(rig.daemon, "run", "trksession", "length", ":n:3");
    fake_do(rig.disk, "event position value=5000");
    program_await(screen, "  0:05 / 3:00\n");
    good({"pause"});
    program_await(screen, "  paused\n");
    good({"play"});
    for (const char* title : {"Second", "Third"}) {
        fake_do(rig.disk, "event finished");
        program_await(screen, title);
    }
    fake_do(rig.disk, "event finished");
    EXPECT_EQ(program_end(screen).status, 0);
    EXPECT_FALSE(rig_has_player(rig.daemon, "run"));

    /* The end of the service is an error, a signal and the end of the time are none. */
    EXPECT_EQ(tool_run({"screen", "-p", "run", "--source", "0", "--seconds", "1"}).status, 0);
    screen = tool_start({"screen", "-p", "run", "--source", "0", "--seconds", "1000"});
    program_await(screen, "playing");
    EXPECT_EQ(program_end(screen, SIGTERM).status, 0);
    EXPECT_FALSE(rig_has_player(rig.daemon, "run"));
    screen = tool_start({"screen", "-p", "run", "--source", "0"});
    program_await(screen, "playing");
    EXPECT_EQ(daemon_stop(rig.daemon), 0);
    EXPECT_EQ(program_end(screen).status, 1);
}

TEST_F(Tool, ScreenGoesOnWithASession) {
    fake_do(rig.disk, "source stick auto=0");
    fake_do(rig.disk, "event connected uid=stick");
    const auto make = [this](const char* player) {
        good({"session", "-p", player, "--create", "disk", "album"});
        daemon_await_object(rig.daemon, player, "trksession", "length", ":n:3");
        good({"jump", "-p", player, "3"});
    };
    const auto shows = [](const char* player, const char* source, const char* track) {
        program screen = tool_start(
            {"screen", "-p", player, "--source", source, "--folder", "album", "--resume", "1000"});
        program_await(screen, track);
        program_await(screen, "  playing\n");
        EXPECT_EQ(program_end(screen, SIGTERM).status, 0);
    };
    make("run");
    fake_do(rig.disk, "event position value=170000");
    shows("run", "disk", "Track 3 of 3: Third");
    EXPECT_EQ(published(rig, "run", "status"), "::playing"); /* it was left as it is */
    /* One that has been played, and one of another source, are not gone on with. */
    good({"stop", "-p", "run"});
    fake_do(rig.disk, "event position value=179900");
    shows("run", "disk", ": First");
    make("run");
    shows("run", "stick", ": First");

    /* A player that is there may be about to get its session. */
    good({"open", "late"});
    program screen = tool_start({"screen", "-p", "late", "--source", "disk", "--resume", "1000"});
    make("late");
    program_await(screen, "Track 3 of 3: Third");
    EXPECT_EQ(program_end(screen, SIGTERM).status, 0);
}

TEST_F(Tool, ScreenTakesKeys) {
    program screen =
        program_start_on_terminal(words({"screen", "-p", "run", "--source", "0", "--folder",
                                         "album", "--note", "A note at the foot."}));
    program_await(screen, "  First\x1B[K");
    program_await(screen, "  playing  [");
    program_await(screen, "  track 1 of 3 "); /* the session is complete */
    program_await(screen, "  A note at the foot.");
    /* Cursor keys are none of ours, and several keys at once are all taken. */
    program_press(screen, "\x1B[A");
    program_press(screen, "nn");
    program_await(screen, "  Third\x1B[K");
    program_press(screen, "b");
    program_await(screen, "  Second\x1B[K");
    program_press(screen, " ");
    program_await(screen, "  paused ");
    EXPECT_EQ(published(rig, "run", "status"), "::paused");
    program_press(screen, "q");
    const program_result result = program_end(screen);
    EXPECT_EQ(result.status, 0);
    /* The terminal shows again what it showed before. */
    EXPECT_TRUE(result.out.ends_with("\x1B[?25h\x1B[?1049l")) << result.out;
    EXPECT_FALSE(rig_has_player(rig.daemon, "run"));

    screen = program_start_on_terminal(words({"screen", "-p", "run", "--source", "0"}));
    program_await(screen, "playing");
    program_press(screen, "\x03"); /* Ctrl-C */
    EXPECT_EQ(program_end(screen).status, 0);
}
