/* The service's rules without the service around them: players, sessions and events in the test's
 * process, a scripted plug-in, objects in a private runtime root, the log in a file. */
#ifndef PLAYER_RIG_H
#define PLAYER_RIG_H

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fake_client.h>

#include "control.h"
#include "player.h"

struct player_rig {
    fake_client fake;
    std::string root; /* runtime root */
    std::string log;  /* the log's file */
    uintmax_t log_start = 0;
};

/* The process's rig, set up at the first call; each call drops the rules, the log and the counters
 * of earlier tests, and sets the player settings back. */
player_rig& rig_fresh();

/* Every capability. */
constexpr uint64_t RIG_ALL = 0xF045F;

/* Announces a source, its tree given as for the plug-in; its id. */
int32_t rig_source(player_rig& rig, const std::string& uid, const std::string& tree,
                   uint64_t capabilities = RIG_ALL);

/* Builds a session, or destroys it; `told` receives the number of tracks that the service then
 * expects. */
int32_t rig_create(player* player, int32_t ms_id, int32_t start, int32_t expected,
                   const char* folder = "/", int32_t* told = nullptr);
int32_t rig_destroy(player* player);
/* Waits until the session's build thread, if any, has done its work. */
void rig_await_build(player* player);

/* Opens a player and builds a session; rig_player waits until it is whole. */
player* rig_begin(const std::string& name, int32_t ms_id, int32_t start, int32_t expected,
                  const char* folder = "/");
player* rig_player(const std::string& name, int32_t ms_id, int32_t start, int32_t expected,
                   const char* folder = "/");

/* Ids of the session's tracks, joined with blanks; the track at an index; the current index. */
std::string rig_tracks(player* player);
int32_t rig_current(player* player);

/* Value of an attribute ("::playing"), or "" when it is not there. */
std::string rig_attribute(const player_rig& rig, const std::string& player,
                          const std::string& object, const std::string& attribute);

/* How often a text stands in the log since rig_fresh. */
int32_t rig_logged(const player_rig& rig, const std::string& text);

/* An event on a thread of the plug-in: what rig_join takes, which returns its result. */
std::string rig_event(player_rig& rig, const std::string& event);
int64_t rig_join(player_rig& rig, const std::string& ticket);

/* Waits until so many hold on to the player; the registry and the player's own thread are two. */
void rig_await_pins(const player* player, int32_t wanted);

/* Commands under the player lock, as the dispatcher gives them. */
int32_t rig_do(player* player, int32_t (*command)(::player*));
int32_t rig_do(player* player, int32_t (*command)(::player*, int32_t), int32_t number);

/* A test with a fresh rig, whose players are closed at its end. */
struct player_test : testing::Test {
    player_rig& rig = rig_fresh();
    void TearDown() override;
};

#endif
