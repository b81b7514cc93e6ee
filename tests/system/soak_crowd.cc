/* Clients that share players, and sources that come and go under them. */
#include <algorithm>
#include <cstring>

#include "soak.h"

namespace {

/* The sources that nobody counts on. */
std::vector<int32_t> shared_sources(request_client& client) {
    std::vector<int32_t> ids;
    for (const request_source& source : request_sources(client)) {
        if (source.uid.compare(0, 5, "model") != 0 && source.uid != SOAK_POLITE_SOURCE) {
            ids.push_back(source.id);
        }
    }
    return ids;
}

struct visit {
    request_client client;
    std::mt19937& random;
    std::vector<int32_t> sources;
};

int32_t draw(visit& visit, int32_t below) {
    return static_cast<int32_t>(visit.random() % static_cast<unsigned>(below));
}

int32_t ask_media(visit& visit, int32_t source) {
    std::vector<request_node> nodes;
    std::vector<std::string> values;
    request_metadata data;
    switch (draw(visit, 4)) {
    case 0:
        return request_browse(visit.client, source, "/", 0, draw(visit, 30) - 1, nodes);
    case 1:
        return request_search(visit.client, source, "", "Track", 0, 5, nodes);
    case 2:
        return request_metadata_of(visit.client, source, "/a/t0", data);
    default:
        return request_extended(visit.client, source, "/a/t0", {"mood"}, values);
    }
}

int32_t one_request(visit& visit) {
    static constexpr uint16_t simple[] = {LYR_MSG_PLAY,  LYR_MSG_PLAY, LYR_MSG_STOP,
                                          LYR_MSG_PAUSE, LYR_MSG_NEXT, LYR_MSG_PREVIOUS};
    static constexpr uint16_t numbered[] = {LYR_MSG_JUMP, LYR_MSG_SEEK, LYR_MSG_SHUFFLE,
                                            LYR_MSG_REPEAT};
    const int32_t source =
        visit.sources[static_cast<size_t>(draw(visit, static_cast<int32_t>(visit.sources.size())))];
    uint64_t ts_id = 0;
    int32_t length = 0;
    switch (draw(visit, 10)) {
    case 0:
        return request_create(visit.client, source, "/", draw(visit, 60) - 1, draw(visit, 3),
                              &ts_id);
    case 1:
        return request_session(visit.client, &ts_id, &length) == REQUEST_FAILED
                   ? REQUEST_FAILED
                   : request_destroy(visit.client, ts_id + (draw(visit, 3) == 0 ? 0 : 1));
    case 2:
        return ask_media(visit, source);
    case 3:
        return request_current(visit.client).result;
    case 4:
    case 5:
        return request_number(visit.client, numbered[draw(visit, std::size(numbered))],
                              draw(visit, 3));
    default:
        return request_simple(visit.client, simple[draw(visit, std::size(simple))]);
    }
}

void visit_player(soak& soak, std::mt19937& random) {
    visit visit = {{}, random, {}};
    if (!request_connect(visit.client, soak.daemon.service)) {
        soak_differ(soak, "a client cannot connect");
        return;
    }
    const std::string player = SOAK_SHARED[random() % std::size(SOAK_SHARED)];
    visit.sources = shared_sources(visit.client);
    if (visit.sources.empty() || request_open(visit.client, player) != 0) {
        soak_differ(soak, "%s cannot be opened", player.c_str());
        request_disconnect(visit.client);
        return;
    }
    for (int32_t left = 5 + draw(visit, 20); left > 0; --left) {
        if (one_request(visit) == REQUEST_FAILED) {
            soak_differ(soak, "a request on %s is not answered", player.c_str());
        }
        soak_add(soak, SOAK_REQUESTS);
        soak_pause(soak, random, 20000);
    }
    if (request_close(visit.client, player) != 0) {
        soak_differ(soak, "%s cannot be closed", player.c_str());
    }
    request_disconnect(visit.client);
}

/* Events of all sorts from several threads of the plug-in at once, and now and then the source goes
 * and comes back. */
void gust(soak& soak, fake_client& fake, const std::string& uid, std::mt19937& random) {
    static constexpr const char* events[] = {
        "position value=6000 repeat=5", "finished repeat=2", "error value=0",
        "changed node=/a/t1",           "browse_error",      "error value=1"};
    const std::string source = " uid=" + uid;
    std::vector<std::string> sent;
    std::string answer;
    (void)fake_execute(fake, "sessions", answer);
    const size_t end = answer.find(" play ms=");
    if (end != std::string::npos) { /* the oldest one; it may go before the events come */
        const size_t begin = answer.rfind('\n', end) + 1;
        const std::string session = " session=" + answer.substr(begin, end - begin);
        for (size_t i = 0; i < std::size(events); ++i) {
            if (random() % 3 == 0) {
                sent.push_back(events[i] + session + " thread=" + std::to_string(i + 1));
            }
        }
    }
    if (random() % 4 == 0) {
        sent.push_back("disconnected" + source);
        sent.push_back("status" + source + " value=1");
        sent.push_back("connected" + source);
        soak_add(soak, SOAK_UNPLUGS);
    }
    std::vector<std::string> tickets;
    for (const std::string& event : sent) {
        if (fake_execute(fake, "event " + event + " nowait=1", answer) == 0) {
            tickets.push_back(answer);
        }
    }
    for (const std::string& ticket : tickets) {
        (void)fake_execute(fake, "join " + ticket, answer);
    }
    soak_add(soak, SOAK_EVENTS);
}

} // namespace

void soak_shared_client(soak& soak, unsigned number) {
    std::mt19937 random(soak.seed * 100 + 10 + number);
    while (soak_turn(soak)) {
        visit_player(soak, random);
    }
}

void soak_wind(soak& soak, unsigned number) {
    static constexpr const char* sources[] = {"spare", "stick"};
    std::mt19937 random(soak.seed * 100 + 30 + number);
    const std::string uid = sources[number % std::size(sources)];
    fake_client fake = daemon_fake(soak.daemon, uid);
    while (soak_turn(soak)) {
        gust(soak, fake, uid, random);
        soak_pause(soak, random, 40000);
    }
    fake_close(fake);
}

/* A player that came back from an earlier life is kept open by the service. What is answered of it
 * must be what is published; then it is emptied, so that all quiet moments are alike. */
static void check_kept(soak& soak, request_client& client, const char* player) {
    static constexpr const char* words[] = {"::destroyed", "::idle", "::playing", "::paused",
                                            "::stopped"};
    const lyr_state_reply state =
        request_open(client, player) == 0 ? request_state(client) : lyr_state_reply{};
    const auto published = daemon_object(soak.daemon, player, "state");
    if (published.count("status") == 0 || state.status < LYR_STATUS_IDLE ||
        state.status > LYR_STATUS_STOPPED || published.at("status") != words[state.status]) {
        soak_differ(soak, "%s: status %d is answered, another published", player, state.status);
    }
    uint64_t ts_id = 0;
    int32_t length = 0;
    /* An empty session is not published. */
    if (request_session(client, &ts_id, &length) == 0 && length > 0) {
        const auto session = daemon_object(soak.daemon, player, "trksession");
        const request_track track = request_current(client);
        if (session.count("length") == 0 ||
            session.at("length") != ":n:" + std::to_string(length) || track.index >= length) {
            soak_differ(soak, "%s: session of %d tracks, another published", player, length);
        }
    }
    if (request_destroy(client, ts_id) == REQUEST_FAILED) {
        soak_differ(soak, "%s is not answered", player);
    }
    (void)request_close(client, player);
    soak_add(soak, SOAK_OBJECTS, 2);
}

void soak_check_shared(soak& soak) {
    request_client client;
    if (!request_connect(client, soak.daemon.service)) {
        soak_differ(soak, "a client cannot connect at a quiet moment");
        return;
    }
    for (const char* player : SOAK_SHARED) {
        if (soak.kept.count(player) != 0) {
            check_kept(soak, client, player);
        } else if (!daemon_object(soak.daemon, player, "state").empty()) {
            soak_differ(soak, "%s is published although all have closed it", player);
        }
    }
    constexpr size_t sources =
        3 + 4; /* of the models; the polite one's, spare, stick, the folder */
    const size_t found = request_sources(client).size();
    if (found != sources) {
        soak_differ(soak, "%zu sources, not %zu", found, sources);
    }
    request_disconnect(client);
}
