#include "bench_service.h"

#include <cstdlib>

void bench_service_start(bench_service& service, const daemon_plugin& plugin, size_t players) {
    bench_use_memory();
    static const std::string folder =
        bench_folder(); /* of this process: roots are looked up once */
    daemon_prepare(service.daemon);
    service.daemon.run = folder + "/run";
    setenv("VELORAN_RUN", service.daemon.run.c_str(), 1);
    service.daemon.plugins.push_back(plugin);
    if (!daemon_start(service.daemon)) {
        bench_give_up("the service does not start");
    }
    service.clients.resize(players);
    for (size_t i = 0; i < players; ++i) {
        if (!request_connect(service.clients[i], service.daemon.service) ||
            request_open(service.clients[i], "player" + std::to_string(i)) != 0) {
            bench_give_up("the service refuses a client");
        }
    }
}

void bench_service_stop(bench_service& service) {
    for (request_client& client : service.clients) {
        request_disconnect(client);
    }
    (void)daemon_stop(service.daemon);
    daemon_remove(service.daemon);
    service.clients.clear();
}

daemon_plugin bench_scripted() {
    return {"disk", "source disk", {}};
}
