/* Paths whose instructions bench/instructions/check counts. Each is taken a number of times on the
 * same input and then handed to valgrind under its name; without valgrind nothing is counted.
 *
 * request  get_current_state from the receive to the reply, in one thread
 * import   a page of 1,000 tracks into a session
 * encode   the packed form of a page of 1,000 records
 * publish  one object update
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <valgrind/callgrind.h>

#include <lyrane/client.h>

#include "bench.h"
#include "msg_header.h"
#include "msglog.h"
#include "msgserver.h"
#include "player_publish.h"
#include "player_registry.h"
#include "player_rig.h"
#include "record_encode.h"
#include "requests.h"
#include "service.h"
#include "trksession_build.h"
#include "wire.h"

namespace {

constexpr int32_t PAGE = 1000;
constexpr int REQUESTS = 1000;
constexpr int PAGES = 50;
constexpr int UPDATES = 1000;

/* Does it once for what only the first time needs, then counts the steps, not what prepares them.
 */
void count(const char* name, int times, const std::function<void(int)>& prepare,
           const std::function<void()>& step) {
    prepare(0);
    step();
    for (int i = 1; i <= times; ++i) {
        prepare(i);
        CALLGRIND_TOGGLE_COLLECT;
        step();
        CALLGRIND_TOGGLE_COLLECT;
    }
    CALLGRIND_DUMP_STATS_AT(name);
}

/* A page as a plug-in hands it over. */
std::vector<medianode> make_page(int32_t first) {
    std::vector<medianode> page(PAGE);
    for (int32_t i = 0; i < PAGE; ++i) {
        char id[32];
        std::snprintf(id, sizeof id, "/album/%07d.flac", first + i);
        medianode& node = page[static_cast<size_t>(i)];
        node.id = strdup(id);
        node.name = strdup(id);
        node.type = 2;
        node.ms_type = 1;
    }
    return page;
}

/* The message loop, one turn of it. */
void serve_one(msgserver* server) {
    (void)msgserver_receive(server);
    (void)msgserver_dispatch(server);
}

/* The service's side of a client in the same thread. */
void answer(msgserver* server, wire_client& client, const std::string& message) {
    if (!wire_send(client, message)) {
        bench_give_up("cannot send");
    }
    serve_one(server);
}

std::string putget(const wire_client& client, const std::string& request) {
    const auto length = static_cast<int32_t>(request.size());
    return wire_header(client, CSM_PUTGET, length, sizeof(lyr_state_reply)) + request;
}

/* A connection that has opened a player. */
void open_player(msgserver* server, wire_client& client, const std::string& path) {
    const std::string name = std::string("bench") + '\0';
    if (!wire_connect(client, path)) {
        bench_give_up("no connection");
    }
    answer(server, client,
           wire_header(client, CSM_OPEN, static_cast<int32_t>(name.size()), MSG_HEADER_SIZE) +
               name);
    const wire_reply opened = wire_receive(client);
    std::memcpy(&client.service_index, opened.data.data() + 4, sizeof client.service_index);
    std::memcpy(&client.connection_index, opened.data.data() + 6, sizeof client.connection_index);
    answer(server, client, putget(client, request_name(LYR_MSG_OPEN, "bench", 5)));
    (void)wire_receive(client);
}

void count_requests(const std::string& root) {
    msgserver* server = msgserver_create(65536, 5, MSGSERVER_BY_PATH);
    server->user_data = &mmcontrol;
    if (msgserver_add(server, "bench", nullptr, nullptr, 0, service_worker, service_connect,
                      service_disconnect) < 0) {
        bench_give_up("no service");
    }
    wire_client client;
    open_player(server, client, root + "/run/sys/csm/bench/default");
    const std::string request = putget(client, request_begin(LYR_MSG_GET_CURRENT_STATE));
    const auto prepare = [&](int done) {
        if (done > 0 &&
            wire_receive(client).data.size() != MSG_HEADER_SIZE + sizeof(lyr_state_reply)) {
            bench_give_up("no state");
        }
        (void)wire_send(client, request);
    };
    count("request", REQUESTS, prepare, [&] { serve_one(server); });
    wire_close(client);
    serve_one(server);
    msgserver_destroy(server);
}

void count_import(player* player) {
    std::vector<medianode> page;
    count(
        "import", PAGES, [&](int i) { page = make_page(i * PAGE); },
        [&] { (void)player_trksession_import(player, page.data(), PAGE); });
}

void count_encode() {
    const std::vector<medianode> page = make_page(0);
    std::vector<char> packed;
    count(
        "encode", 1, [](int) {},
        [&] {
            int32_t size = compute_media_node_size(page.data(), PAGE);
            packed.resize(static_cast<size_t>(size));
            pack_media_node(page.data(), PAGE, packed.data(), &size);
        });
}

void count_publish(player* player) {
    int32_t position = 100000;
    count(
        "publish", UPDATES, [&](int i) { position = 100000 + i; },
        [&] {
            vel_lock_guard guard(player->lock);
            player_publish_status(player, position);
        });
}

} // namespace

int main(int argc, char** argv) {
    bench_begin(argc, argv);
    player_rig& rig = rig_fresh();
    msglog_set_level(4);
    const int32_t source = rig_source(rig, "bench", "/a|tracks:1\n", LYR_CAP_PLAY | LYR_CAP_BROWSE);
    player* player = rig_player("bench", source, 0, -1, "/a");
    count_requests(rig.root);
    count_import(player);
    count_encode();
    count_publish(player);
    player_close(&mmcontrol, "bench");
    return EXIT_SUCCESS;
}
