/* The service's rules without the service around them: players, sessions and events in the test's
 * process, a scripted plug-in, objects in a private runtime root, the log in a file. */
#ifndef PLAYER_RIG_H
#define PLAYER_RIG_H

#include <cstdint>
#include <string>
#include <vector>

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

/* Announces a source with these capabilities, its tree given as for the plug-in; its id. */
int32_t rig_source(player_rig& rig, const std::string& uid, uint64_t capabilities,
                   const std::string& tree);

/* Opens a player and builds a session; the player, to be closed with player_close. */
player* rig_player(player_rig& rig, const std::string& name, int32_t ms_id,
                   const std::string& folder, int32_t start, int32_t expected);

/* Waits until the session's build thread, if any, has done its work. */
void rig_await_build(player* player);

/* Ids of the session's tracks, joined with blanks; the track at an index; the current index. */
std::string rig_tracks(player* player);
int32_t rig_current(player* player);

/* Value of an attribute ("::playing"), or "" when it is not there. */
std::string rig_attribute(const player_rig& rig, const std::string& player,
                          const std::string& object, const std::string& attribute);

/* How often a text stands in the log since rig_fresh. */
int32_t rig_logged(const player_rig& rig, const std::string& text);

/* Commands under the player lock, as the dispatcher gives them. */
int32_t rig_do(player* player, int32_t (*command)(::player*));
int32_t rig_do(player* player, int32_t (*command)(::player*, int32_t), int32_t number);
int32_t rig_create(player* player, int32_t ms_id, const std::string& folder, int32_t start,
                   int32_t* expected);
int32_t rig_destroy(player* player);

#endif
