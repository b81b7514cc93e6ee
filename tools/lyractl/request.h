/* The requests that the commands are made of, one function each.
 *
 * All return true when the service did what was asked, else false with the reason in the
 * connection's `why`. Those that act on a player act on the one that the connection has opened. */
#ifndef LYRACTL_REQUEST_H
#define LYRACTL_REQUEST_H

#include <cstdint>
#include <string>
#include <vector>

#include "connection.h"

/* Strings that the service left out are empty. */
struct request_source {
    int32_t id = -1;
    std::string uid;
    std::string name;
    std::string view_name;
    int32_t type = 0;   /* mask of LYR_MS_TYPE_* */
    int32_t status = 0; /* the plug-in's */
    uint64_t capabilities = 0;
};

struct request_node {
    std::string id;
    std::string name;
    int32_t type = 0;    /* LYR_NODE_*, or the plug-in's own */
    int32_t count = 0;   /* children of a folder */
    int32_t source = -1; /* id of its media source */
};

struct request_metadata {
    std::string title;
    std::string artist;
    std::string album;
    std::string genre;
    std::string year;
    std::string artwork;
    int32_t duration = 0; /* ms; 0: not known */
    int32_t disc = 0;
    int32_t track = 0;
};

struct request_track {
    int32_t index = -1; /* from 0 */
    uint64_t session = 0;
    request_node node;
    bool described = false; /* `metadata` is there */
    request_metadata metadata;
};

struct request_session {
    bool exists = false;
    uint64_t id = 0;
    int32_t length = 0; /* tracks so far */
};

/* The connected media sources. Needs no player. */
bool request_sources(connection* to, std::vector<request_source>* sources);

/* Children of a folder, at most `limit` (-1: as many as the service gives at once). None at all
 * means that there are no more from `offset` on. */
bool request_children(connection* to, int32_t source, const std::string& folder, int32_t offset,
                      int32_t limit, std::vector<request_node>* children);

/* The same for what a media source finds for a text; the filter, which may be empty, is the
 * plug-in's own. */
bool request_search(connection* to, int32_t source, const std::string& filter,
                    const std::string& text, int32_t offset, int32_t limit,
                    std::vector<request_node>* found);

/* The same for the tracks of the player's session. */
bool request_tracks(connection* to, uint64_t session, int32_t offset, int32_t limit,
                    std::vector<request_node>* tracks);

/* Metadata of a node; *described is false when it has none. */
bool request_describe(connection* to, int32_t source, const std::string& node, bool* described,
                      request_metadata* known);

/* Extended metadata: a value for each key, empty when there is none. */
bool request_values(connection* to, int32_t source, const std::string& node,
                    const std::vector<std::string>& keys, std::vector<std::string>* values);

/* Makes a track session of a folder and what is below it. */
bool request_make_session(connection* to, int32_t source, const std::string& folder,
                          int32_t expected, int32_t start, uint64_t* id);

/* The player's track session, if it has one. */
bool request_get_session(connection* to, request_session* session);

bool request_state(connection* to, lyr_state_reply* state);
bool request_position(connection* to, int32_t* position); /* ms */

/* The current track; needs a track session that is not empty. */
bool request_current(connection* to, request_track* track);

/* A command without fields: play, pause, stop, next, previous. *result is what it returned. */
bool request_command(connection* to, uint16_t type, int32_t* result);

/* A command with one number (jump, seek, shuffle, repeat), with a rate, with a track session. */
bool request_number(connection* to, uint16_t type, int32_t number, int32_t* result);
bool request_rate(connection* to, float rate, int32_t* result);
bool request_destroy(connection* to, uint64_t session, int32_t* result);

#endif
