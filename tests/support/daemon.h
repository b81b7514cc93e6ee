/* Running whole daemons: a private runtime and state root, a configuration with scripted plug-ins,
 * start, stop, and waiting for what a daemon says and publishes. A wait that comes to its limit, or
 * whose daemon has died, fails the test with the daemon's log. */
#ifndef TEST_DAEMON_H
#define TEST_DAEMON_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

#include "fake_client.h"

constexpr int64_t DAEMON_LIMIT = 180000; /* ms that anything may take, sanitizers included */

/* A copy of the scripted plug-in, a plug-in of its own; or, with `library`, any other one. */
struct daemon_plugin {
    std::string name;
    std::string script; /* commands for its init, one a line */
    std::vector<std::pair<std::string, std::string>> settings;
    bool missing = false; /* configured, but there is no such file */
    std::string library = {};
};

struct test_daemon {
    std::string service = "lyrane.sys";
    std::vector<daemon_plugin> plugins;
    std::vector<std::string> options; /* of the command line, behind -b, -c and -s */
    std::map<std::string, std::string> player = {{"audio_output", "null"},
                                                 {"video_output", "null"},
                                                 {"update_interval", "1000"},
                                                 {"progression_mode", "ROSP"},
                                                 {"recursion_depth", "-1"}};
    std::string lastmode;         /* the object "lastmode_audio" as JSON; empty: none */
    std::string limits;           /* the object "limits" as JSON; empty: none */
    std::string umask;            /* VELORAN_UMASK; empty: not set */
    int64_t descriptor_limit = 0; /* soft and hard; 0: as it is */
    int standard_output = -1;     /* its descriptor; -1: the standard error's file */
    bool own_root = false;        /* not the runtime root of this process, see daemon_prepare */

    std::string root; /* folder with the files of this daemon */
    std::string run;  /* its runtime root */
    pid_t pid = -1;
    int pidfd = -1;
};

/* Makes the daemon's folder. The runtime root is the one of this process (so that the client
 * library of this process finds the service), unless own_root is set. */
void daemon_prepare(test_daemon& daemon);

/* Writes the configuration, starts the service in the foreground and waits until it serves. */
bool daemon_start(test_daemon& daemon);
/* The same without waiting. */
bool daemon_spawn(test_daemon& daemon);

/* Waits for the end: the exit status, 128 + a signal's number, or -1 at the limit. */
int daemon_wait(test_daemon& daemon);
/* SIGTERM, and the same. */
int daemon_stop(test_daemon& daemon);
void daemon_signal(const test_daemon& daemon, int signal);
/* Kills it if need be, and removes its files; what it left behind under the runtime root, too. */
void daemon_remove(test_daemon& daemon);

/* Connects to the scripted plug-in of that name. */
fake_client daemon_fake(const test_daemon& daemon, const std::string& name);

/* The log so far; waits for a text in it. daemon_log_mark is an offset to search from. */
std::string daemon_log(const test_daemon& daemon);
size_t daemon_log_mark(const test_daemon& daemon);
bool daemon_await_log(const test_daemon& daemon, const std::string& text, size_t from = 0);

/* The real path of a platform path under the daemon's runtime root. */
std::string daemon_path(const test_daemon& daemon, const std::string& path);
/* The attributes of an object of a player, name to the text behind it ("::playing"). */
std::map<std::string, std::string>
daemon_object(const test_daemon& daemon, const std::string& player, const std::string& object);
/* Waits until an attribute has a value; "" waits until the object or the attribute is missing. */
bool daemon_await_object(const test_daemon& daemon, const std::string& player,
                         const std::string& object, const std::string& attribute,
                         const std::string& value);

/* Descriptors, threads, resident memory (KiB) of the daemon. */
int64_t daemon_descriptors(const test_daemon& daemon);
int64_t daemon_threads(const test_daemon& daemon);
int64_t daemon_resident(const test_daemon& daemon);
/* Waits until a count has come down to `most`; what it was in the end. */
int64_t daemon_settle(const test_daemon& daemon, int64_t (*count)(const test_daemon&),
                      int64_t most);

#endif
