/* The models and what the service publishes and answers, now and after a restart. */
#include <filesystem>
#include <thread>

#include "saved.h"
#include "soak_model.h"

static soak_player players[SOAK_MODELS];

std::string soak_model_script() {
    std::string script;
    for (unsigned i = 0; i < SOAK_MODELS; ++i) {
        script += "source model" + std::to_string(i) + "\n";
    }
    for (unsigned i = 0; i < SOAK_MODELS; ++i) {
        script += "tree uid=model" + std::to_string(i) + "\n";
        for (int f = 0; f < SOAK_FOLDERS; ++f) {
            script +=
                " /f" + std::to_string(f) + "|tracks:" + std::to_string(soak_tracks_of(f)) + "\n";
        }
    }
    return script;
}

namespace {

const char* word_of(int32_t status) {
    static constexpr const char* words[] = {"::destroyed", "::idle", "::playing", "::paused",
                                            "::stopped"};
    return words[status];
}

std::string number(int64_t value) {
    return ":n:" + std::to_string(value);
}

void compare(soak& soak, const soak_player& player, const char* when, const char* object,
             const std::map<std::string, std::string>& wanted) {
    const auto found = daemon_object(soak.daemon, player.name, object);
    soak_add(soak, SOAK_OBJECTS);
    for (const auto& [name, value] : wanted) {
        const auto at = found.find(name);
        const std::string got = at != found.end() ? at->second : "(nothing)";
        if (got != value) {
            soak_differ(soak, "%s after '%s': %s %s is %s, not %s", player.name.c_str(), when,
                        object, name.c_str(), got.c_str(), value.c_str());
        }
    }
}

/* What only a request tells. */
void check_answers(soak& soak, soak_player& player) {
    const soak_model& m = player.model;
    const char* name = player.name.c_str();
    const lyr_state_reply state = request_state(player.client);
    if (state.result != 0 || state.shuffle_mode != m.shuffle || state.repeat_mode != m.repeat ||
        (!soak_model_status_is_open(soak, m) && state.status != m.status)) {
        soak_differ(soak, "%s: state answers %d: shuffle %d repeat %d status %d", name,
                    state.result, state.shuffle_mode, state.repeat_mode, state.status);
    }
    int32_t position = 0;
    const int32_t answered = request_position(player.client, &position);
    if (answered != (m.has_session ? 0 : -1) || position != m.position) {
        soak_differ(soak, "%s: position answers %d: %d, not %d", name, answered, position,
                    m.position);
    }
    if (!m.has_session) {
        return;
    }
    std::vector<request_node> nodes;
    const int32_t length = soak_tracks_of(m.folder);
    const int32_t offset = m.current / 2;
    (void)request_tracks(player.client, m.ts_id, offset, -1, nodes);
    std::string wanted;
    for (int32_t i = offset; i < length; ++i) {
        wanted += "/f" + std::to_string(m.folder) + "/t" + std::to_string(i) + ' ';
    }
    if (request_ids(nodes) != wanted) {
        soak_differ(soak, "%s: other tracks than those of /f%d", name, m.folder);
    }
}

/* What a restart makes of a model: a playing player plays on, others are ready. */
void after_restart(const soak& soak, soak_model& m) {
    if (!m.has_session) {
        m = {};
        return;
    }
    if (soak_model_status_is_open(soak, m)) {
        m.status = LYR_STATUS_PLAYING;
        m.status_epoch = 1;
    } else {
        m.status = m.status == LYR_STATUS_PLAYING ? LYR_STATUS_PLAYING : LYR_STATUS_IDLE;
        m.status_epoch = soak.arbiter_epoch;
    }
    m.rate = 1;
    soak_model_set_order(m, m.shuffle == 1);
}

void join(soak& soak, soak_player& player, bool is_back) {
    std::string id;
    player.fake = daemon_fake(soak.daemon, "disk");
    (void)fake_execute(player.fake, "id " + player.name, id);
    player.source = std::atoi(id.c_str());
    if (!request_connect(player.client, soak.daemon.service) ||
        request_open(player.client, player.name) != 0) {
        soak_differ(soak, "%s: cannot be opened", player.name.c_str());
        return;
    }
    if (is_back) {
        after_restart(soak, player.model);
        int32_t ignored = 0;
        (void)request_session(player.client, &player.model.ts_id, &ignored);
        soak_model_check_objects(soak, player, "restart");
        check_answers(soak, player);
        soak_add(soak, SOAK_RETURNS);
        return;
    }
    player.model = {};
    uint64_t ts_id = 0;
    int32_t length = 0;
    if (request_session(player.client, &ts_id, &length) == 0 &&
        request_destroy(player.client, ts_id) != 0) {
        soak_differ(soak, "%s: cannot begin anew", player.name.c_str());
    }
}

} // namespace

void soak_model_check_objects(soak& soak, const soak_player& player, const char* when) {
    const soak_model& m = player.model;
    const char* const repeats[] = {"::off", "::all", "::one"};
    std::map<std::string, std::string> state = {
        {"shuffle", m.shuffle == 1 ? "::on" : "::off"},
        {"repeat", repeats[m.repeat]},
        {"rate", ":n:" + std::to_string(m.rate).substr(0, 3)}};
    if (!soak_model_status_is_open(soak, m)) {
        state["status"] = word_of(m.status);
    }
    compare(soak, player, when, "state", state);
    if (!m.has_session) {
        compare(soak, player, when, "track", {});
        return;
    }
    compare(soak, player, when, "track",
            {{"index", number(m.current)}, {"tsid", number(static_cast<int64_t>(m.ts_id))}});
    compare(soak, player, when, "trksession",
            {{"length", number(soak_tracks_of(m.folder))},
             {"tsid", number(static_cast<int64_t>(m.ts_id))}});
}

void soak_models_join(soak& soak, bool is_back) {
    const int64_t limit = soak_now() + DAEMON_LIMIT;
    while (saved_restoring(soak.daemon) > 0 && soak_now() < limit) {
        std::this_thread::yield();
    }
    soak.kept.clear();
    for (const auto& entry :
         std::filesystem::directory_iterator(daemon_path(soak.daemon, "/pps/services/lyrane"))) {
        soak.kept.insert(entry.path().filename());
    }
    for (unsigned i = 0; i < SOAK_MODELS; ++i) {
        soak_player& player = players[i];
        if (player.name.empty()) {
            player.name = "model" + std::to_string(i);
            player.random.seed(soak.seed * 100 + i);
        }
        join(soak, player, is_back);
    }
}

void soak_model_client(soak& soak, unsigned number) {
    while (soak_turn(soak)) {
        soak_model_step(soak, players[number]);
        soak_pause(soak, players[number].random, 8000);
    }
}

void soak_models_check(soak& soak) {
    for (soak_player& player : players) {
        soak_model_check_objects(soak, player, "quiet");
        check_answers(soak, player);
    }
}

void soak_models_await_saved(const soak& soak) {
    for (const soak_player& player : players) {
        const soak_model& m = player.model;
        if (!m.has_session) {
            continue;
        }
        const bool is_open = soak_model_status_is_open(soak, m);
        std::string wanted = "/f" + std::to_string(m.folder);
        for (const int32_t value : {soak_tracks_of(m.folder), m.current, m.position, m.shuffle,
                                    m.repeat, is_open ? 0 : m.status}) {
            wanted += ' ' + std::to_string(value);
        }
        const std::string row = "mn_id||' '||length||' '||trk_id||' '||trk_pos||' '||"
                                "shuffle_mode||' '||repeat_mode||' '||";
        (void)saved_await(player.name, row + (is_open ? "0" : "status"), wanted);
    }
}

void soak_models_leave() {
    for (soak_player& player : players) {
        request_disconnect(player.client);
        fake_close(player.fake);
    }
}
