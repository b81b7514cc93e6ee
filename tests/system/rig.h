/* What most tests of the whole service begin and end with: a daemon with one scripted plug-in
 * "disk" that has one media source of the same name (id 0), and one client. */
#ifndef TEST_RIG_H
#define TEST_RIG_H

#include <csignal>
#include <string>

#include "daemon.h"
#include "requests.h"

/* With a sanitizer a test takes fewer rounds, freed memory stays, and some signals are its own. */
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool RIG_SANITIZED = true;
#elif defined(__has_feature)
constexpr bool RIG_SANITIZED = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool RIG_SANITIZED = false;
#endif

struct rig {
    test_daemon daemon;
    fake_client disk;
    request_client client;
};

/* `tree` is the source's media tree. False (and a failed test) when the daemon does not come up. */
bool rig_start(rig& rig, const std::string& tree);
/* The same with a daemon that was prepared, or has ended; the tree is the one of all sources of its
 * first plug-in, if that is a scripted one ("": as its script says). */
bool rig_run(rig& rig, const std::string& tree = "");

/* Opens a player and makes a session on a folder of source 0 that begins with a track; waits until
 * all tracks are there. The session's id. */
uint64_t rig_session(rig& rig, const std::string& player, const std::string& folder, int32_t tracks,
                     int32_t start = 0);

void rig_hang_up(rig& rig);
/* Hangs up and sends a signal; how the daemon ended, as of daemon_wait. */
int rig_stop(rig& rig, int signal = SIGTERM);
/* SIGTERM: an end with status 0 that leaves no socket and no player directory. */
void rig_end(rig& rig);

/* Whether the service left a socket or a player directory behind. */
void rig_expect_clean(const test_daemon& daemon);

/* Whether a player's directory exists. */
bool rig_has_player(const test_daemon& daemon, const std::string& player);

std::string rig_socket(const test_daemon& daemon);

#endif
