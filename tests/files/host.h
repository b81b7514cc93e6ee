/* A small host for the plug-in: loads it, answers its callbacks the way the service does, and keeps
 * what was reported and logged. One host at a time. */
#ifndef LYRANE_TEST_HOST_H
#define LYRANE_TEST_HOST_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <lyrane/plugin.h>

#include <veloran/lock.h>

/* One playback callback. */
struct host_event {
    enum what { position, finished, error } kind;
    void* session;
    void* data;
    int32_t value; /* position in ms, or LYR_PLAY_ERROR_* */
};

struct host_source {
    int32_t id;
    std::string uid;
    std::string name;
    std::string view_name;
    int32_t type;
    uint64_t capabilities;
};

/* What has happened since host_start. It can still be read after host_stop. */
struct host_record {
    std::vector<host_source> sources;         /* all reports, in order */
    std::map<int32_t, host_source> connected; /* those that are there now: id to the last report */
    std::vector<host_event> events;           /* since host_forget */
    int32_t begun = 0;                        /* playback callbacks, with those that wait */
    std::vector<std::string> lines;           /* of the log */
};

/* Loads the library and calls init with the settings; detection is off. Drives are not looked for
 * unless the settings have "mounts"; the cache is the test program's unless they have "cache".
 * `plugin` is another file than the one that was built. */
const lyrp_api* host_start(const std::map<std::string, std::string>& settings,
                           const std::string& plugin = "");
/* Calls cleanup and closes the library, if it is loaded. */
void host_stop();

host_record host_now();
/* Waits until the record is as it should be; false after a generous time. */
bool host_wait(const std::function<bool(const host_record&)>& enough);
/* Waits until so many sources are connected. */
bool host_wait_sources(size_t count);
/* Waits until more playback callbacks have begun than so many. */
bool host_wait_begun(int32_t before);
/* Forgets the events. */
void host_forget();
/* How many events of a kind have a value within these bounds. */
int32_t host_events(host_event::what kind, int32_t least = INT32_MIN, int32_t most = INT32_MAX);
/* Waits until there is one. */
bool host_wait_event(host_event::what kind, int32_t least = INT32_MIN, int32_t most = INT32_MAX);
/* How many lines of the log contain the text. */
int32_t host_log_count(const std::string& text);
/* Waits until there are so many. */
bool host_log_wait(const std::string& text, int32_t least);

/* Called at the begin of mediasource_connected with the id that will be returned, and of
 * mediasource_disconnected, where the service destroys the sessions. */
void host_on_source(std::function<void(int32_t)> call);
/* Called inside track_finished and play_error_occurred, with the player lock held. */
void host_on_track(std::function<void(const host_event&)> call);

/* The lock that callbacks of play sessions take, as they do in the service. */
extern vel_mutex host_player_lock;

#endif
