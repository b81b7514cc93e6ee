/* What the command line says, for all commands together. */
#ifndef LYRACTL_ARGUMENTS_H
#define LYRACTL_ARGUMENTS_H

#include <cstdint>
#include <string>
#include <vector>

#include <lyrane/client.h>

#include "session.h"

struct arguments {
    std::string service = LYR_SERVICE_NAME;
    bool json = false;
    std::string player;            /* empty: the only one there is */
    std::string source;            /* empty: the only one there is */
    std::string folder;            /* empty: the top one */
    std::string text;              /* what is searched for, a position, a media node */
    std::string filter;            /* of a search */
    std::vector<std::string> keys; /* of extended metadata; empty: plain metadata */
    std::string mode;              /* of shuffle and repeat */
    int32_t number = 0;            /* of a track, from 1 */
    float rate = 1.0F;
    int32_t offset = 0;
    int32_t limit = -1; /* -1: all */
    int32_t start = SESSION_START_FIRST;
    int32_t expected = -1; /* -1: not known */
    bool create = false;   /* make the player when it is not there */
    bool play = false;     /* begin to play what was made */
    bool hold = false;     /* keep the player open as long as the command runs */
    bool playlist = false; /* the screen makes a track session of `source` and `folder` */
    int32_t resume = -1;   /* seconds to wait for a session to go on with; -1: never goes on */
    int32_t seconds = -1;  /* -1: without end */
    std::string note;
    std::string config = "/etc/lyrane.cfg"; /* of the service, for the doctor */
};

#endif
