/* The service that docs/protocol.md describes: one media source "disk" with two tracks in a folder,
 * and nobody connected. */
#ifndef TEST_WORLD_H
#define TEST_WORLD_H

#include <string>

#include "daemon.h"
#include "wire.h"

struct world {
    test_daemon daemon;
    fake_client disk;
};

/* False (and a failed test) when the service does not come up. */
bool world_start(world& world);
void world_end(world& world);

/* Connects a bare socket; does not open. */
bool world_connect(const world& world, wire_client& client);

#endif
