/* The reading side: objects, the directories they are in, and what of them is still to be told. */
#ifndef VELORAN_PPS_WATCH_H
#define VELORAN_PPS_WATCH_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>

#include <sys/types.h>

#include "pps_content.h"
#include "pps_target.h"

struct watched_directory {
    int32_t fd = -1;    /* owned */
    std::string prefix; /* of its objects' labels: "", "radio/" */
    int32_t depth = 0;  /* below the directory that was asked for */
};

struct watched_object {
    int32_t directory = 0; /* key in `directories`; one that is not there any more means gone */
    std::string name;
    bool is_queued = false;
    bool is_known = false; /* the reader was told of it */
    pps_identity identity; /* of the version that the reader knows */
    std::string text;      /* of the same */
};

struct pps_watch {
    uint32_t options = 0;
    std::string only;    /* the name of the one object, empty for all */
    int32_t notify = -1; /* inotify, owned; -1 for a reader that neither waits nor wants changes */
    int32_t root = 0;    /* key of the directory that was asked for */
    bool is_root_gone = false;
    bool is_idle = false; /* a reader without inotify has been told everything: look again */
    std::map<int32_t, watched_directory> directories; /* by inotify watch; without it by count */
    std::map<std::string, watched_object> objects;    /* by label */
    std::deque<std::string> queue;                    /* labels to look at */
    std::string text;                                 /* what is being handed out, from `handed` */
    size_t handed = 0;
    std::string loaded; /* kept for its memory */
};

/* Begins to watch; ENOENT when there is no such object or directory. */
int32_t pps_watch_init(pps_watch* watch, const pps_target* target);
void pps_watch_deinit(pps_watch* watch) noexcept;
/* As pps_read. */
ssize_t pps_watch_read(pps_watch* watch, char* buffer, size_t size, int32_t stop_fd);

/* --- Shared by the two files of the watch --- */

/* Puts an object on the queue, unless it is there. */
void pps_watch_queue(pps_watch* watch, int32_t directory, const std::string& name);
/* Adds an opened directory (taken over) and queues what it holds, with the directories below when
 * asked to. */
int32_t pps_watch_add(pps_watch* watch, int32_t fd, const std::string& prefix, int32_t depth);
/* Forgets a directory and those below it; their objects are queued, to be told as gone. */
void pps_watch_drop(pps_watch* watch, const std::string& prefix);
/* Queues everything anew: what there is and what the reader knows. */
int32_t pps_watch_rescan(pps_watch* watch);
/* Takes what inotify has to say. 1 when it said something, 0 when not, -1 with errno set. */
int32_t pps_watch_take_events(pps_watch* watch);

#endif
