#include "player_rig.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <veloran/dict.h>
#include <veloran/paths.h>
#include <veloran/slog.h>

#include "mediasource.h"
#include "msglog.h"
#include "player_registry.h"
#include "plugin_load.h"
#include "ppsdir.h"
#include "trksession.h"
#include "trksession_build.h"
#include "trksession_hold.h"
#include "trksession_walk.h"

static player_cfg settings;

static player_rig* rig_start() {
    auto* rig = new player_rig;
    std::string pattern = std::filesystem::temp_directory_path() / "lyrane-rig-XXXXXX";
    rig->root = mkdtemp(pattern.data());
    rig->log = rig->root + "/log";
    setenv("VELORAN_RUN", (rig->root + "/run").c_str(), 1);
    setenv("VELORAN_STATE", (rig->root + "/state").c_str(), 1);
    setenv("VELORAN_SLOG", ("file:" + rig->log).c_str(), 1);
    slog_open("test");
    msglog_set_level(MSGLOG_LEVEL_MAX);
    EXPECT_EQ(paths_make_roots(nullptr, 0), 0);
    vel_mutex_init(&mmcontrol.players_lock);
    vel_mutex_init(&mmcontrol.mediasources_lock);
    vel_mutex_init(&mmcontrol.registry_leaf);
    mmcontrol.player_cfg = &settings;
    mmcontrol.lastmode_max_try = 5;
    EXPECT_EQ(ppsdir_initialize(&mmcontrol), 0);
    strm_dict* none = strm_dict_new();
    EXPECT_EQ(plugin_load(&mmcontrol, FAKE_LIBRARY, none), 0);
    strm_dict_destroy(none);
    EXPECT_TRUE(fake_open(rig->fake, FAKE_LIBRARY));
    std::atexit([] {
        (void)players_force_close(&mmcontrol);
        plugins_unload(&mmcontrol);
        std::filesystem::remove_all(std::filesystem::path(getenv("VELORAN_RUN")).parent_path());
    });
    return rig;
}

player_rig& rig_fresh() {
    static player_rig* rig = rig_start();
    settings = {nullptr, nullptr, 250, 1, -1, 0};
    player_skip_ms = 5000;
    fake_do(rig->fake, "reset");
    std::error_code error;
    rig->log_start = std::filesystem::file_size(rig->log, error);
    return *rig;
}

int32_t rig_source(player_rig& rig, const std::string& uid, const std::string& tree,
                   uint64_t capabilities) {
    fake_do(rig.fake, "source %s caps=0x%llx auto=0", uid.c_str(),
            static_cast<unsigned long long>(capabilities));
    fake_tree(rig.fake, uid, tree);
    return static_cast<int32_t>(fake_number(rig.fake, "event connected uid=%s", uid.c_str()));
}

int32_t rig_create(player* player, int32_t ms_id, int32_t start, int32_t expected,
                   const char* folder, int32_t* told) {
    vel_lock_guard guard(player->lock);
    const int32_t result =
        player_create_trksession(&mmcontrol, player, ms_id, folder, &expected, start);
    if (told != nullptr) {
        *told = expected;
    }
    return result;
}

player* rig_begin(const std::string& name, int32_t ms_id, int32_t start, int32_t expected,
                  const char* folder) {
    player* opened = player_open(&mmcontrol, name.c_str());
    EXPECT_NE(opened, nullptr);
    EXPECT_EQ(rig_create(opened, ms_id, start, expected, folder), 0);
    return opened;
}

player* rig_player(const std::string& name, int32_t ms_id, int32_t start, int32_t expected,
                   const char* folder) {
    player* opened = rig_begin(name, ms_id, start, expected, folder);
    rig_await_build(opened);
    return opened;
}

int32_t rig_destroy(player* player) {
    vel_lock_guard guard(player->lock);
    return player_destroy_trksession(player);
}

std::string rig_event(player_rig& rig, const std::string& event) {
    return fake_do(rig.fake, "event %s nowait=1", event.c_str());
}

int64_t rig_join(player_rig& rig, const std::string& ticket) {
    return fake_number(rig.fake, "join %s", ticket.c_str());
}

void rig_await_pins(const player* player, int32_t wanted) {
    for (int32_t pins = 0; pins < wanted;) {
        vel_lock_guard guard(mmcontrol.players_lock);
        pins = player->pins;
    }
}

void player_test::TearDown() {
    while (mmcontrol.players.count > 0) {
        const std::string name = static_cast<player*>(mmcontrol.players.items[0])->name;
        player_close(&mmcontrol, name.c_str());
    }
}

void rig_await_build(player* player) VEL_NO_TSA {
    trksession* session = trksession_hold(player);
    if (session != nullptr) {
        vel_lock_guard guard(session->lock);
        while (session->build_started != 0 && session->build_done == 0) {
            pthread_cond_wait(&session->build_over, &session->lock.native);
        }
    }
    trksession_release(session);
}

std::string rig_tracks(player* player) {
    std::string ids;
    trksession* session = trksession_hold(player);
    if (session == nullptr) {
        return "none";
    }
    {
        vel_lock_guard guard(session->lock);
        for (int32_t i = 0; i < session->length; ++i) {
            ids += (i > 0 ? " " : "") + std::string(session->tracks[i].id);
        }
    }
    trksession_release(session);
    return ids;
}

int32_t rig_current(player* player) {
    trksession* session = trksession_hold(player);
    const int32_t current = session == nullptr ? -2 : trksession_current(session).trk_id;
    trksession_release(session);
    return current;
}

std::string rig_attribute(const player_rig& rig, const std::string& player,
                          const std::string& object, const std::string& attribute) {
    std::ifstream file(rig.root + "/run/pps/services/lyrane/" + player + "/" + object);
    std::string line;
    while (std::getline(file, line)) {
        if (line.compare(0, attribute.size() + 1, attribute + ":") == 0) {
            return line.substr(attribute.size());
        }
    }
    return "";
}

int32_t rig_logged(const player_rig& rig, const std::string& text) {
    std::ifstream file(rig.log);
    file.seekg(static_cast<std::streamoff>(rig.log_start));
    std::string line;
    int32_t found = 0;
    while (std::getline(file, line)) {
        found += line.find(text) != std::string::npos ? 1 : 0;
    }
    return found;
}

int32_t rig_do(player* player, int32_t (*command)(::player*)) {
    vel_lock_guard guard(player->lock);
    return command(player);
}

int32_t rig_do(player* player, int32_t (*command)(::player*, int32_t), int32_t number) {
    vel_lock_guard guard(player->lock);
    return command(player, number);
}
