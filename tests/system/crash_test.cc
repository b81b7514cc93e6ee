/* A plug-in whose every function crashes in turn: the service dies of the signal, the log says in
 * which call of which plug-in, and the restarted service is back at the last checkpoint. */
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>

#include <gtest/gtest.h>
#include <unistd.h>

#include <lyrane/plugin.h>

#include "lastmode_rows.h"
#include "rig.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define CRASH_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define CRASH_SANITIZED 1
#endif
#endif

namespace {

#ifdef CRASH_SANITIZED
constexpr int SIGNAL = SIGABRT; /* a sanitizer takes the others for its own report */
constexpr bool HAS_TRACE = false;
#else
constexpr int SIGNAL = SIGSEGV;
constexpr bool HAS_TRACE = true;
#endif

constexpr const char* PLAYER = "plays";
constexpr const char* SAVED = "2|20|7|61000|1|1"; /* status, length, track, position, modes */
constexpr const char* TREE = "/a|tracks:20\n";

struct crash_rig {
    test_daemon daemon;
    fake_client disk;
    request_client client;  /* of the player that is saved */
    request_client passing; /* of another one */
};

/* Makes the other player, on the disk (0) or on the device (1), which walks by itself. */
void other(crash_rig& rig, int32_t source) {
    uint64_t ts_id = 0;
    (void)request_open(rig.passing, "other");
    (void)request_create(rig.passing, source, "/a", -1, 0, &ts_id);
}

void end(crash_rig& rig) {
    daemon_signal(rig.daemon, SIGTERM);
}

struct crash_row {
    const char* entry;       /* in the words of the plug-in */
    const char* told;        /* in the log */
    const char* library;     /* that crashes */
    void (*ask)(crash_rig&); /* leads to the call; null: a start does */
};
const crash_row rows[] = {
    {"init", "init", "disk", nullptr},
    {"detection", "set_mediasource_detection", "disk", nullptr},
    {"update", "update_medianodes", "disk", nullptr},
    {"cleanup", "cleanup", "disk", end},
    {"play.create", "create", "disk", [](crash_rig& rig) { other(rig, 0); }},
    {"play.destroy", "destroy", "disk",
     [](crash_rig& rig) {
         other(rig, 0);
         (void)request_close(rig.passing, "other");
     }},
    {"attach", "attach_medianode", "disk",
     [](crash_rig& rig) { request_number(rig.client, LYR_MSG_JUMP, 3); }},
    {"play", "play", "disk", [](crash_rig& rig) { request_simple(rig.client, LYR_MSG_NEXT); }},
    {"pause", "pause", "disk", [](crash_rig& rig) { request_simple(rig.client, LYR_MSG_PAUSE); }},
    {"stop", "stop", "disk", [](crash_rig& rig) { request_simple(rig.client, LYR_MSG_STOP); }},
    {"rate", "set_playback_rate", "disk", [](crash_rig& rig) { request_speed(rig.client, 2); }},
    {"seek", "seek", "disk", [](crash_rig& rig) { request_number(rig.client, LYR_MSG_SEEK, 1); }},
    {"next", "next", "device",
     [](crash_rig& rig) {
         other(rig, 1);
         request_simple(rig.passing, LYR_MSG_NEXT);
     }},
    {"previous", "previous", "device",
     [](crash_rig& rig) {
         other(rig, 1);
         request_simple(rig.passing, LYR_MSG_PREVIOUS);
     }},
    {"shuffle", "shuffle", "device",
     [](crash_rig& rig) {
         other(rig, 1);
         request_number(rig.passing, LYR_MSG_SHUFFLE, 1);
     }},
    {"repeat", "repeat", "device",
     [](crash_rig& rig) {
         other(rig, 1);
         request_number(rig.passing, LYR_MSG_REPEAT, 1);
     }},
    {"browse.create", "create", "disk", [](crash_rig& rig) { other(rig, 0); }},
    {"browse.destroy", "destroy", "disk", end},
    {"browse", "browse", "disk", [](crash_rig& rig) { other(rig, 0); }},
    {"search", "search", "disk",
     [](crash_rig& rig) {
         std::vector<request_node> nodes;
         request_search(rig.client, 0, "", "x", 0, 5, nodes);
     }},
    {"metadata", "get_metadata", "disk",
     [](crash_rig& rig) {
         request_metadata data;
         request_metadata_of(rig.client, 0, "/a/t1", data);
     }},
    {"extended", "get_extended_metadata", "disk",
     [](crash_rig& rig) {
         std::vector<std::string> values;
         request_extended(rig.client, 0, "/a/t1", {"key"}, values);
     }},
    {"cancel", "cancel_browse", "disk",
     [](crash_rig& rig) {
         other(rig, 0);
         (void)request_close(rig.passing, "other");
     }},
};
/* Every function of the interface that is called. */
constexpr size_t FUNCTIONS =
    (sizeof(lyrp_api) + sizeof(lyr_play_api) + sizeof(lyr_browse_api)) / sizeof(void*) -
    6; /* name, reserved thrice, the two tables */
static_assert(std::size(rows) == FUNCTIONS);

void set_script(crash_rig& rig, const std::string& rule) {
    const std::string tree = std::string("tree\n ") + TREE;
    rig.daemon.plugins = {{"disk", "source disk\n" + tree + rule, {}},
                          {"device", "source device\ndevice on\n" + tree, {{"mode", "DEVICE"}}}};
}

bool start(crash_rig& rig) {
    return daemon_start(rig.daemon) &&
           request_connect_wire(rig.client, rig_socket(rig.daemon), rig.daemon.service) &&
           request_connect_wire(rig.passing, rig_socket(rig.daemon), rig.daemon.service);
}

void hang_up(crash_rig& rig) {
    request_disconnect(rig.client);
    request_disconnect(rig.passing);
    fake_close(rig.disk);
}

/* A service that plays. */
bool begin(crash_rig& rig, size_t number) {
    rig.daemon.service = "crash" + std::to_string(number);
    rig.daemon.own_root = true;
    rig.daemon.lastmode = R"({"checkpoint": "1", "timeout": "60", "device_type": ["HDD"]})";
    daemon_prepare(rig.daemon);
    rig.daemon.options = {"-l"};
    set_script(rig, "");
    if (!start(rig)) {
        return false;
    }
    rig.disk = daemon_fake(rig.daemon, "disk");
    uint64_t ts_id = 0;
    EXPECT_EQ(request_open(rig.client, PLAYER), 0);
    EXPECT_EQ(request_create(rig.client, 0, "/a", -1, 0, &ts_id), 0);
    EXPECT_TRUE(daemon_await_object(rig.daemon, PLAYER, "trksession", "length", ":n:20"));
    EXPECT_EQ(request_number(rig.client, LYR_MSG_JUMP, 7), 0);
    EXPECT_EQ(request_number(rig.client, LYR_MSG_SHUFFLE, 1), 0);
    EXPECT_EQ(request_number(rig.client, LYR_MSG_REPEAT, 1), 0);
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
    EXPECT_EQ(fake_number(rig.disk, "event position value=61000"), 0);
    return true;
}

/* Databases tell nobody, so it is looked at again. */
void await_checkpoint(const crash_rig& rig) {
    const std::string query = "SELECT status,length,trk_id,trk_pos,shuffle_mode,repeat_mode FROM "
                              "players NATURAL JOIN trksessions WHERE name='plays'";
    std::vector<std::string> found;
    for (int64_t waited = 0; waited < DAEMON_LIMIT; waited += 10) {
        found = lastmode_rows(rig.daemon, query);
        if (found == std::vector<std::string>{SAVED}) {
            return;
        }
        usleep(10000);
    }
    ADD_FAILURE() << "not saved: " << (found.empty() ? "nothing" : found[0]);
}

void crash(crash_rig& rig, const crash_row& row) {
    const std::string rule = std::string("rule ") + row.entry + " signal=" + std::to_string(SIGNAL);
    const size_t from = daemon_log_mark(rig.daemon);
    if (row.ask != nullptr) {
        fake_client plugin = daemon_fake(rig.daemon, row.library);
        fake_do(plugin, "%s", rule.c_str());
        fake_close(plugin);
        row.ask(rig);
    } else {
        daemon_signal(rig.daemon, SIGKILL);
        EXPECT_EQ(daemon_wait(rig.daemon), 128 + SIGKILL);
        set_script(rig, rule + "\n");
        ASSERT_TRUE(daemon_spawn(rig.daemon));
    }
    EXPECT_EQ(daemon_wait(rig.daemon), 128 + SIGNAL);
    if (HAS_TRACE) {
        const std::string log = daemon_log(rig.daemon);
        const std::string library = std::string("/") + row.library + ".so";
        const std::string where = std::string(" (SEGV) in a call of '") + row.told + "' into ";
        const size_t at = log.find(where, from);
        ASSERT_NE(at, std::string::npos) << log.substr(from);
        const std::string line = log.substr(at, log.find('\n', at) - at);
        EXPECT_NE(line.find(library + " for player "), std::string::npos) << line;
        EXPECT_NE(log.find(library + "(", at), std::string::npos) << "no frame of it";
    }
}

void expect_back(crash_rig& rig) {
    set_script(rig, "");
    ASSERT_TRUE(start(rig));
    EXPECT_TRUE(daemon_await_object(rig.daemon, PLAYER, "state", "status", "::playing"));
    EXPECT_EQ(daemon_object(rig.daemon, PLAYER, "track").at("index"), ":n:7");
    EXPECT_EQ(daemon_object(rig.daemon, PLAYER, "state").at("shuffle"), "::on");
    EXPECT_EQ(daemon_object(rig.daemon, PLAYER, "state").at("repeat"), "::all");
    int32_t position = 0;
    EXPECT_EQ(request_open(rig.client, PLAYER), 0);
    EXPECT_EQ(request_position(rig.client, &position), 0);
    EXPECT_EQ(position, 61000);
}

} // namespace

/* Side by side, since each waits for its checkpoint. */
TEST(Crash, EveryFunctionInTurn) {
    struct crash_rig rigs[std::size(rows)];
    for (size_t i = 0; i < std::size(rows); ++i) {
        ASSERT_TRUE(begin(rigs[i], i));
    }
    for (size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].entry);
        await_checkpoint(rigs[i]);
        crash(rigs[i], rows[i]);
        hang_up(rigs[i]);
        expect_back(rigs[i]);
        hang_up(rigs[i]);
        EXPECT_EQ(daemon_stop(rigs[i].daemon), 0);
        daemon_remove(rigs[i].daemon);
    }
}

/* What never returns before the service runs is named as well, and does not keep it from ending. */
TEST(Crash, StartsThatNeverReturn) {
    const struct {
        const char* entry;
        const char* told;
        int status; /* of the end: nothing is there yet that would have to be put in order */
    } starts[] = {{"init", "init", 128 + SIGTERM},
                  {"detection", "set_mediasource_detection", EXIT_FAILURE}};
    test_daemon daemons[std::size(starts)];
    for (size_t i = 0; i < std::size(starts); ++i) {
        daemons[i].service = "start" + std::to_string(i);
        daemons[i].own_root = true;
        daemon_prepare(daemons[i]);
        daemons[i].plugins = {
            {"disk", std::string("rule ") + starts[i].entry + " block=never\n", {}}};
        ASSERT_TRUE(daemon_spawn(daemons[i]));
    }
    for (size_t i = 0; i < std::size(starts); ++i) {
        SCOPED_TRACE(starts[i].entry);
        const std::string call = std::string("A call of '") + starts[i].told + "' into ";
        EXPECT_TRUE(daemon_await_log(daemons[i], call));
        EXPECT_EQ(daemon_stop(daemons[i]), starts[i].status);
        daemon_remove(daemons[i]);
    }
}
