#include "world.h"

#include <gtest/gtest.h>

bool world_start(world& world) {
    daemon_prepare(world.daemon);
    world.daemon.plugins.push_back(
        {"disk", "source disk name=\"Hard drive\" caps=0xf045f status=1", {}});
    if (!daemon_start(world.daemon)) {
        return false;
    }
    world.disk = daemon_fake(world.daemon, "disk");
    fake_tree(world.disk, "", "/album/a|A|First\n/album/b|A|Second\n");
    fake_do(world.disk, "meta /album/a title=First artist=Band duration=180000 track=1");
    fake_do(world.disk, "ext /album/a mood calm");
    return true;
}

void world_end(world& world) {
    fake_close(world.disk);
    EXPECT_EQ(daemon_stop(world.daemon), 0) << daemon_log(world.daemon);
    daemon_remove(world.daemon);
}

bool world_connect(const world& world, wire_client& client) {
    return wire_connect(client,
                        daemon_path(world.daemon, "/sys/csm/" + world.daemon.service + "/default"));
}
