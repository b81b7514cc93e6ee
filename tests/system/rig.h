/* What most tests of the whole service begin and end with: a daemon with one scripted plug-in
 * "disk" that has one media source of the same name (id 0), and one client. */
#ifndef TEST_RIG_H
#define TEST_RIG_H

#include <string>

#include "daemon.h"
#include "requests.h"

struct rig {
    test_daemon daemon;
    fake_client disk;
    request_client client;
};

/* `tree` is the source's media tree. False (and a failed test) when the daemon does not come up. */
bool rig_start(rig& rig, const std::string& tree);

/* SIGTERM: an end with status 0 that leaves no socket and no player directory. */
void rig_end(rig& rig);

/* Whether the service left a socket or a player directory behind. */
void rig_expect_clean(const test_daemon& daemon);

/* Whether a player's directory exists. */
bool rig_has_player(const test_daemon& daemon, const std::string& player);

std::string rig_socket(const test_daemon& daemon);

#endif
