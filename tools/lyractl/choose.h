/* Which player and which media source a command is meant for.
 *
 * A name that is not there is an error that says what is there; nothing is made by accident. */
#ifndef LYRACTL_CHOOSE_H
#define LYRACTL_CHOOSE_H

#include <string>
#include <vector>

#include "request.h"

/* The players that exist, sorted: the directories below the service's own in the name space. */
std::vector<std::string> choose_players(void);

/* Whether there is an arbiter of the audio focus, which may refuse to let a player play. */
bool choose_arbiter_runs(void);

/* The player that is wanted; without a wish (empty) the only one there is. Null with the reason in
 * *why. Points into `wanted` or `players`. */
const std::string* choose_player(const std::string& wanted, const std::vector<std::string>& players,
                                 std::string* why);

/* The media source with this id, uid (letter case aside) or name; without a wish (empty) the only
 * one there is. Null with the reason in *why. Points into `sources`. */
const request_source* choose_source(const std::string& wanted,
                                    const std::vector<request_source>& sources, std::string* why);

/* The same, asked of the service. False with the reason in the connection's `why`. */
bool choose_source_id(connection* to, const std::string& wanted, int32_t* id);

/* The media node id of a folder given as a path of names from the top, "Artist/Album", or as an id
 * as it stands: names go first, and text that leads to no folder is taken for an id. False with the
 * reason in the connection's `why` when the service cannot be asked. */
bool choose_folder(connection* to, int32_t source, const std::string& wanted, std::string* id);

/* The same for a node of any kind. */
bool choose_node(connection* to, int32_t source, const std::string& wanted, std::string* id);

#endif
