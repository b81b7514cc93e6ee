/* A small host for the plug-in: loads it, answers its callbacks the way the service does, and keeps
 * what was reported. One host at a time. */
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
    enum { position, finished, error } kind;
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
    size_t report; /* how many reports came before */
};

/* Loads the library and calls init with the settings; detection is off. Drives are not looked for
 * unless the settings have "mounts"; the cache is the test program's unless they have "cache". */
const lyrp_api* host_start(const std::map<std::string, std::string>& settings);
/* Loads another file than the built plug-in from now on; null: the built one again. */
void host_use(const char* plugin);
/* Calls cleanup and closes the library. Reported events can still be read. */
void host_stop();

/* What was reported, in order. */
std::vector<host_source> host_sources();
/* The sources that are connected now: id to the last report. */
std::map<int32_t, host_source> host_connected();
/* Waits until the connected sources satisfy `enough`; false after a generous time. */
bool host_wait_connected(const std::function<bool(const std::map<int32_t, host_source>&)>& enough);
std::vector<host_event> host_events();
/* Forgets the events. */
void host_forget();
/* Waits until the events satisfy `enough`; false after a generous time. */
bool host_wait(const std::function<bool(const std::vector<host_event>&)>& enough);

/* Called at the begin of mediasource_connected with the id that will be returned. */
void host_on_connected(std::function<void(int32_t)> call);
/* Called at the begin of mediasource_disconnected, where the service destroys the sessions. */
void host_on_disconnected(std::function<void(int32_t)> call);
/* Called inside track_finished and play_error_occurred, with the player lock held. */
void host_on_track(std::function<void(const host_event&)> call);

/* The lock that callbacks of play sessions take, as they do in the service. */
extern vel_mutex host_player_lock;
/* How many playback callbacks have begun, those that wait for the lock included. */
int32_t host_begun();
bool host_wait_begun(int32_t least);

#endif
