/* A plug-in whose every function crashes, never returns or is missing, in turn. After a crash the
 * log says in which call of which plug-in, and the restarted service is back at the last
 * checkpoint; what never returns costs the orderly end, not what was played. */
#include <csignal>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

#include <lyrane/plugin.h>

#include "lastmode_rows.h"
#include "rig.h"

namespace {

/* A sanitizer takes the others for its own report, and writes no trace of ours. */
constexpr int SIGNAL = RIG_SANITIZED ? SIGABRT : SIGSEGV;
constexpr const char* PLAYER = "plays";
constexpr const char* SAVED = "2|20|7|61000|1|1"; /* status, length, track, position, modes */
constexpr const char* TREE = "/a|tracks:20\n";

/* The client is the one of the player that is saved. */
struct crash_rig : rig {
    request_client passing; /* of another one */
};

/* Makes the other player, on the disk (0) or on the device (1), which walks by itself. */
int32_t other(crash_rig& rig, int32_t source) {
    uint64_t ts_id = 0;
    (void)request_open(rig.passing, "other");
    return request_create(rig.passing, source, "/a", -1, 0, &ts_id);
}

int32_t other_and_close(crash_rig& rig) {
    (void)other(rig, 0);
    return request_close(rig.passing, "other");
}

/* The device is told what the service does itself with other sources. */
template <uint16_t TYPE>
int32_t on_device(crash_rig& rig) {
    (void)other(rig, 1);
    return request_number(rig.passing, TYPE, 1);
}

int32_t end(crash_rig& rig) {
    daemon_signal(rig.daemon, SIGTERM);
    return 0;
}

/* Whether the main thread is led into a call that never returns: no, by what leads to the crash, or
 * by the end of the service. */
enum hang : uint8_t { NOT, ASKED, AT_END };

struct crash_row {
    const char* entry;          /* in the words of the plug-in */
    const char* told;           /* in the log */
    const char* library;        /* that crashes */
    hang hangs;                 /* in the turn of those that never return */
    int32_t (*ask)(crash_rig&); /* leads to the call; null: a start does */
};
const crash_row rows[] = {
    {"init", "init", "disk", NOT, nullptr},
    {"detection", "set_mediasource_detection", "disk", AT_END, nullptr},
    {"update", "update_medianodes", "disk", NOT, nullptr},
    {"cleanup", "cleanup", "disk", AT_END, end},
    {"play.create", "create", "disk", NOT, [](crash_rig& rig) { return other(rig, 0); }},
    {"play.destroy", "destroy", "disk", AT_END, other_and_close},
    {"attach", "attach_medianode", "disk", NOT,
     [](crash_rig& rig) { return request_number(rig.client, LYR_MSG_JUMP, 3); }},
    {"play", "play", "disk", NOT,
     [](crash_rig& rig) { return request_simple(rig.client, LYR_MSG_NEXT); }},
    {"pause", "pause", "disk", ASKED,
     [](crash_rig& rig) { return request_simple(rig.client, LYR_MSG_PAUSE); }},
    {"stop", "stop", "disk", AT_END,
     [](crash_rig& rig) { return request_simple(rig.client, LYR_MSG_STOP); }},
    {"rate", "set_playback_rate", "disk", ASKED,
     [](crash_rig& rig) { return request_speed(rig.client, 2); }},
    {"seek", "seek", "disk", ASKED,
     [](crash_rig& rig) { return request_number(rig.client, LYR_MSG_SEEK, 1); }},
    {"next", "next", "device", NOT, on_device<LYR_MSG_NEXT>},
    {"previous", "previous", "device", NOT, on_device<LYR_MSG_PREVIOUS>},
    {"shuffle", "shuffle", "device", NOT, on_device<LYR_MSG_SHUFFLE>},
    {"repeat", "repeat", "device", NOT, on_device<LYR_MSG_REPEAT>},
    {"browse.create", "create", "disk", NOT, [](crash_rig& rig) { return other(rig, 0); }},
    {"browse.destroy", "destroy", "disk", AT_END, end},
    {"browse", "browse", "disk", ASKED,
     [](crash_rig& rig) {
         std::vector<request_node> nodes;
         return request_browse(rig.client, 0, "/a", 0, 5, nodes);
     }},
    {"search", "search", "disk", ASKED,
     [](crash_rig& rig) {
         std::vector<request_node> nodes;
         return request_search(rig.client, 0, "", "x", 0, 5, nodes);
     }},
    {"metadata", "get_metadata", "disk", ASKED,
     [](crash_rig& rig) {
         request_metadata data;
         return request_metadata_of(rig.client, 0, "/a/t1", data);
     }},
    {"extended", "get_extended_metadata", "disk", ASKED,
     [](crash_rig& rig) {
         std::vector<std::string> values;
         return request_extended(rig.client, 0, "/a/t1", {"key"}, values);
     }},
    {"cancel", "cancel_browse", "disk", NOT, other_and_close},
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
    return rig_run(rig) &&
           request_connect_wire(rig.passing, rig_socket(rig.daemon), rig.daemon.service);
}

void hang_up(crash_rig& rig) {
    request_disconnect(rig.passing);
    rig_hang_up(rig);
}

/* A service that plays. */
bool begin(crash_rig& rig, size_t number, const char* lastmode) {
    rig.daemon.service = "crash" + std::to_string(number);
    rig.daemon.own_root = true;
    rig.daemon.lastmode = lastmode;
    daemon_prepare(rig.daemon);
    rig.daemon.options = {"-l"};
    set_script(rig, "");
    if (!start(rig)) {
        return false;
    }
    rig_session(rig, PLAYER, "/a", 20, 7);
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
    if (!RIG_SANITIZED) {
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

/* Starts it again, without what was wrong, and ends it. */
void expect_back(crash_rig& rig) {
    hang_up(rig);
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
    hang_up(rig);
    EXPECT_EQ(daemon_stop(rig.daemon), 0);
    daemon_remove(rig.daemon);
}

} // namespace

/* Side by side, since each waits for its checkpoint. */
TEST(Crash, EveryFunctionInTurn) {
    struct crash_rig rigs[std::size(rows)];
    for (size_t i = 0; i < std::size(rows); ++i) {
        ASSERT_TRUE(
            begin(rigs[i], i, R"({"checkpoint": "1", "timeout": "60", "device_type": ["HDD"]})"));
    }
    for (size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].entry);
        await_checkpoint(rigs[i]);
        crash(rigs[i], rows[i]);
        expect_back(rigs[i]);
    }
}

/* Each takes the service's whole limit, so they hang side by side. */
TEST(Crash, EveryFunctionThatNeverReturns) {
    struct crash_rig rigs[std::size(rows)];
    std::thread clients[std::size(rows)];
    for (size_t i = 0; i < std::size(rows); ++i) {
        if (rows[i].hangs == NOT) {
            continue;
        }
        ASSERT_TRUE(begin(rigs[i], i, "")); /* is saved at the end alone */
        fake_do(rigs[i].disk, "rule %s block=never", rows[i].entry);
        if (rows[i].hangs == ASKED) {
            clients[i] = std::thread(rows[i].ask, std::ref(rigs[i]));
            fake_do(rigs[i].disk, "blocked never");
        }
        daemon_signal(rigs[i].daemon, SIGTERM);
    }
    for (size_t i = 0; i < std::size(rows); ++i) {
        if (rows[i].hangs == NOT) {
            continue;
        }
        SCOPED_TRACE(rows[i].entry);
        EXPECT_EQ(daemon_wait(rigs[i].daemon), EXIT_FAILURE);
        EXPECT_NE(daemon_log(rigs[i].daemon).find("does not return (player"), std::string::npos);
        if (clients[i].joinable()) {
            clients[i].join();
        }
        expect_back(rigs[i]);
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

/* What is missing is answered; a half that cannot be made is asked for again at its next use. */
TEST(Crash, FunctionsThatAreMissing) {
    crash_rig rig;
    ASSERT_TRUE(begin(rig, 0, ""));
    EXPECT_EQ(request_open(rig.client, "halves"), 0);
    fake_do(rig.disk, "rule browse.create null=1 times=1");
    fake_do(rig.disk, "rule play.create null=1 times=2");
    std::vector<request_node> nodes;
    uint64_t ts_id = 0;
    EXPECT_EQ(request_browse(rig.client, 0, "/", 0, -1, nodes), -1);
    EXPECT_EQ(request_create(rig.client, 0, "/a", 1, 0, &ts_id), -1);
    EXPECT_EQ(request_create(rig.client, 0, "/a", 1, 0, &ts_id), 0);
    for (const char* entry : {"play", "stop", "cancel", "update"}) {
        fake_do(rig.disk, "null %s", entry);
    }
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), -1);
    EXPECT_EQ(request_open(rig.client, PLAYER), 0);
    for (const crash_row& row : rows) {
        if (row.hangs == ASKED) {
            SCOPED_TRACE(row.entry);
            fake_do(rig.disk, "null %s", row.entry);
            EXPECT_EQ(row.ask(rig), -1);
        }
    }
    hang_up(rig);
    EXPECT_EQ(daemon_stop(rig.daemon), 0);
    daemon_remove(rig.daemon);
}
