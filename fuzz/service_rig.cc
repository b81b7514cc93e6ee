#include "service_rig.h"

#include <filesystem>
#include <vector>

#include <dirent.h>
#include <dlfcn.h>
#include <sched.h>
#include <unistd.h>

#include <fake.h>
#include <lyrane/client.h>
#include <veloran/dict.h>
#include <veloran/process.h>

#include "control.h"
#include "input.h"
#include "msglog.h"
#include "player_registry.h"
#include "plugin_load.h"
#include "ppsdir.h"
#include "service.h"
#include "trksession.h"
#include "trksession_hold.h"

namespace {

/* The scripted plug-in twice: one whose tracks the service walks, and a device that walks them
 * itself, a copy of the file. */
constexpr int PLUGINS = 2;
constexpr const char* MODES[PLUGINS] = {"service", "device"};
const fake_api_table* fakes[PLUGINS];

msgserver server; /* the reply functions and the control block are all that the worker uses */
osb connections[RIG_CONNECTIONS];
player_cfg settings;
int descriptors;
bool changed = true; /* the plug-in is not as rig_begin leaves it */

rig_reply reply;
int replies;

/* The nodes of every source: folders in folders, many tracks, names of any bytes, a video, a node
 * that is neither, one without name and address. */
constexpr const char* TREE = "tree\n"
                             "/a|F\n/a/1.mp3|A\n/a/2.mp3|A\n/a/b/3.mp3|A\n/a/b/c/4.mp3|A\n"
                             "/a/film|V|Film||7\n/a/other|9|-|-\n"
                             "/odd\\xFF\\x01|A|\\xC3\\x28 \"q\"\n"
                             "/empty|F\n/many|tracks:70\n/deep|tree:3,2,2\n/z|A";

constexpr const char* META = "meta /a/1.mp3 title=\"One \\xFF\" artist=Two album=Three genre=Four "
                             "year=1999 extra=\"x\\ny\" artwork=\"file:/p\" duration=1000 width=3 "
                             "height=4 disc=1 track=9";

/* Everything; browsing alone; a device that lists itself and plays everything. */
constexpr struct {
    int plugin;
    const char* arguments;
} SOURCES[RIG_SOURCES] = {{0, "u0 auto=0"},
                          {0, "u1 auto=0 noname=1 caps=0x40000"},
                          {1, "u2 auto=0 type=2 view=\"a view\" caps=0x100F045F"}};

/* What an input may take out of the plug-in's tables. */
constexpr const char* REMOVABLE[] = {"browse", "metadata", "play",
                                     "attach", "play_api", "browse_api"};

int next_descriptor(void) {
    const int fd = dup(0);
    close(fd);
    return fd;
}

int32_t take_replyv(osb*, recv_context*, int32_t status, const iovec* pieces, int32_t count) {
    replies += 1;
    reply.status = status;
    for (int32_t i = 0; i < count; ++i) {
        if (pieces[i].iov_len > 0) {
            reply.body.append(static_cast<const char*>(pieces[i].iov_base), pieces[i].iov_len);
        }
    }
    return 0;
}

int32_t take_reply(osb* connection, recv_context* context, int32_t status, const void* data,
                   int32_t length) {
    const iovec piece = {const_cast<void*>(data), static_cast<size_t>(length)};
    return take_replyv(connection, context, status, &piece, 1);
}

/* Waits for the build thread of a player, if there is one. */
void await_build(player* owner) {
    trksession* session = owner == nullptr ? nullptr : trksession_hold(owner);
    if (session != nullptr) {
        vel_lock_guard guard(session->lock);
        while (session->build_started != 0 && session->build_done == 0) {
            pthread_cond_wait(&session->build_over, &session->lock.native);
        }
    }
    trksession_release(session);
}

/* Player directories below the service's. */
int player_directories(void) {
    DIR* folder = opendir((fuzz_root() + "/run/pps/services/lyrane").c_str());
    int count = 0;
    while (const dirent* entry = folder == nullptr ? nullptr : readdir(folder)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    if (folder != nullptr) {
        closedir(folder);
    }
    return count;
}

std::string tell(int plugin, const std::string& command) {
    char* text = nullptr;
    (void)fakes[plugin]->command(command.c_str(), &text);
    std::string answer = text;
    free(text);
    return answer;
}

void connect_sources(void) {
    for (int i = 0; i < RIG_SOURCES; ++i) {
        const std::string uid = "u" + std::to_string(i);
        tell(SOURCES[i].plugin, std::string("source ") + SOURCES[i].arguments);
        require(tell(SOURCES[i].plugin, "event connected uid=" + uid) == std::to_string(i),
                "a media source");
    }
}

/* As an input finds them; the commands cost more than most inputs, so they are not given in vain.
 */
void put_plugins_back(void) {
    for (int i = 0; i < PLUGINS; ++i) {
        tell(i, "reset");
    }
    if (changed) {
        tell(0, "device off");
        tell(1, "device on");
        connect_sources();
        changed = false;
    }
}

/* Gives the tables their entries again, and waits for events that a plug-in has posted itself. */
void calm_plugin(int plugin) {
    for (const char* entry : REMOVABLE) {
        tell(plugin, std::string("restore ") + entry);
    }
    tell(plugin, "event finished");
}

void load_plugin(int number, const std::string& path) {
    strm_dict* plugin_settings = strm_dict_new();
    (void)strm_dict_set(plugin_settings, "mode", MODES[number]);
    require(plugin_load(&mmcontrol, path.c_str(), plugin_settings) == 0, "the scripted plug-in");
    strm_dict_destroy(plugin_settings);
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    fakes[number] = static_cast<const fake_api_table*>(dlsym(library, "fake_api"));
    tell(number, TREE);
    tell(number, META);
    tell(number, "ext /a/1.mp3 key value");
}

} // namespace

/* Ending the process is what no request may bring about; the linker puts this in its place. */
extern "C" [[noreturn]] void __wrap_process_end(int32_t) noexcept {
    require(false, "the service goes on");
    abort();
}

std::string rig_command(int plugin, const std::string& command) {
    changed = true;
    return tell(plugin, command);
}

void rig_start(void) {
    (void)fuzz_root();
    vel_mutex_init(&mmcontrol.players_lock);
    vel_mutex_init(&mmcontrol.mediasources_lock);
    vel_mutex_init(&mmcontrol.registry_leaf);
    mmcontrol.player_cfg = &settings;
    mmcontrol.lastmode_max_try = 5;
    require(ppsdir_initialize(&mmcontrol) == 0, "the published tree");
    const std::string device = fuzz_root() + "/device.so";
    std::filesystem::copy_file(FAKE_LIBRARY, device);
    load_plugin(0, FAKE_LIBRARY);
    load_plugin(1, device);
    server.user_data = &mmcontrol;
    server.reply = take_reply;
    server.replyv = take_replyv;
    /* Ends the plug-ins' threads, ahead of what they use. */
    (void)atexit([] { plugins_unload(&mmcontrol); });
}

void rig_begin(unsigned bits) {
    static constexpr int32_t depths[] = {-1, 1, 2, 4};
    msglog_set_level((bits & 1) != 0 ? MSGLOG_LEVEL_MAX : 4);
    mmcontrol.verbosity = (bits & 2) != 0 ? MSGLOG_LEVEL_MAX : 0;
    settings = {nullptr, nullptr, 250, static_cast<int32_t>(bits >> 2 & 1), depths[bits >> 3 & 3],
                0}; /* no shuffle that is another one each time */
    put_plugins_back();
    descriptors = next_descriptor();
}

void rig_connect(void) {
    for (osb& connection : connections) {
        connection = {};
        connection.server = &server;
        require(service_connect(&connection, nullptr, nullptr) == 0, "everybody may connect");
    }
}

void rig_end(void) {
    for (osb& connection : connections) {
        if (connection.server != nullptr) {
            service_disconnect(&connection, nullptr, nullptr);
        }
        connection = {};
    }
    require(mmcontrol.client_count == 0, "clients are counted");
    (void)players_force_close(&mmcontrol);
    for (int i = 0; i < PLUGINS; ++i) {
        if (changed) {
            calm_plugin(i);
        }
        require(tell(i, "sessions").empty(), "no session of a plug-in is left");
        const std::string violations = tell(i, "violations");
        require(violations.empty(), violations.c_str());
    }
    require(player_directories() == 0, "no player is published any more");
    /* A player's threads may still be closing theirs. What stays open ends as a time-out. */
    while (next_descriptor() != descriptors) {
        sched_yield();
    }
}

void rig_await_builds(void) {
    for (int32_t i = 0; i < mmcontrol.players.count; ++i) {
        await_build(static_cast<player*>(mmcontrol.players.items[i]));
    }
}

void rig_calm(int plugin) {
    tell(plugin, "event finished session=null data=null"); /* refused, in its turn */
}

void rig_reconnect(int connection) {
    service_disconnect(&connections[connection], nullptr, nullptr);
    (void)service_connect(&connections[connection], nullptr, nullptr);
}

rig_reply rig_request(int connection, const std::string& payload, bool await) {
    osb* sender = &connections[connection];
    std::vector<unsigned char> exact(payload.begin(), payload.end()); /* reads behind it are seen */
    msg_header header = {};
    header.type = CSM_PUTGET;
    header.length = static_cast<int32_t>(exact.size());
    recv_context context = {};
    context.buffer = reinterpret_cast<unsigned char*>(&header);
    context.payload = exact.data();
    context.payload_size = header.length;
    replies = 0;
    reply = {};
    service_worker(sender, &context, nullptr);
    require(replies == 1, "a request has one reply");
    if (await) {
        await_build(static_cast<player*>(sender->user_data));
    }
    return reply;
}
