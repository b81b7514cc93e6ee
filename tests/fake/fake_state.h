/* Everything one image of the plug-in knows. One lock guards it all and one condition variable
 * tells of every change; no callback is ever made with the lock held. */
#ifndef FAKE_STATE_H
#define FAKE_STATE_H

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <pthread.h>

#include <lyrane/plugin.h>
#include <veloran/lock.h>

#include "fake_tree.h"
#include "fake_words.h"

struct fake_job; /* fake_events.h */

/* One call into the plug-in, or one callback that returned ("event.KIND"). */
struct fake_call {
    std::string entry;
    uint64_t session = 0; /* serial of the session; 0: none */
    std::optional<int64_t> ms = {};
    std::string value = {};
    std::optional<std::string> id = {};
    uint64_t serial = 0;
    int64_t result = 0;
};

struct fake_count {
    uint64_t entered = 0;
    uint64_t returned = 0;
};

struct fake_rule {
    std::string entry;
    std::optional<std::string> id;
    std::optional<int64_t> ms;
    int64_t skip = 0;
    int64_t times = INT64_MAX;
    fake_words words; /* the command; its options tell what the rule does */
};

struct fake_session {
    uint64_t serial = 0;
    bool plays = false; /* else it browses */
    int32_t ms_id = 0;
    void* data = nullptr;
    bool alive = true;
    uint32_t cancels = 0;
    /* The device, in device mode. */
    lyr_playback_state state = {LYR_SHUFFLE_OFF, LYR_REPEAT_OFF, LYR_STATUS_IDLE, 1.0F};
    std::string current;
};

struct fake_source {
    std::string uid;
    std::optional<std::string> name;
    std::optional<std::string> view_name;
    int32_t type = LYR_MS_TYPE_HDD;
    uint64_t capabilities = 0;
    int32_t status = 1;
    bool automatic = true;
    int32_t id = -1; /* the service's, once connected */
};

struct fake_worker {
    pthread_t thread = {};
    std::deque<std::shared_ptr<fake_job>> jobs;
};

struct fake_connection {
    pthread_t thread = {};
    int fd = -1; /* -1: its thread has ended, or is about to */
};

struct fake_state {
    fake_state();

    vel_mutex lock = {};
    pthread_cond_t changed = {}; /* signalled after every change of what anybody waits for */
    pthread_cond_t work = {};    /* for the event threads alone: each call would wake them */

    int32_t plugin_id VEL_GUARDED_BY(lock) = -1;
    const lyrane_internal_callbacks_table* callbacks VEL_GUARDED_BY(lock) = nullptr;
    std::map<std::string, std::string> settings VEL_GUARDED_BY(lock);
    uint32_t types VEL_GUARDED_BY(lock) = LYR_MS_TYPE_HDD;
    bool detecting VEL_GUARDED_BY(lock) = false;
    bool stopping VEL_GUARDED_BY(lock) = false;
    bool device VEL_GUARDED_BY(lock) = false;

    std::vector<fake_source> sources VEL_GUARDED_BY(lock);  /* in the order of their announcement */
    std::map<std::string, tree> trees VEL_GUARDED_BY(lock); /* by uid; "" for all others */
    std::map<std::string, std::map<std::string, std::string>> metadata VEL_GUARDED_BY(lock);
    std::map<std::string, std::map<std::string, std::string>> extended VEL_GUARDED_BY(lock);

    std::map<uint64_t, fake_session> sessions VEL_GUARDED_BY(lock);
    uint64_t next_session VEL_GUARDED_BY(lock) = 1;

    std::vector<fake_rule> rules VEL_GUARDED_BY(lock);
    std::set<std::string> open_gates VEL_GUARDED_BY(lock);
    std::map<std::string, int32_t> at_gate VEL_GUARDED_BY(lock);

    std::deque<fake_call> calls VEL_GUARDED_BY(lock);
    size_t calls_kept VEL_GUARDED_BY(lock) = 4096;
    std::map<std::string, fake_count> counts VEL_GUARDED_BY(lock);
    uint64_t next_call VEL_GUARDED_BY(lock) = 1;
    uint64_t first_call VEL_GUARDED_BY(lock) = 1; /* the first since `clear` */
    std::vector<std::string> violations VEL_GUARDED_BY(lock);

    std::map<int32_t, fake_worker> workers VEL_GUARDED_BY(lock);
    std::map<uint64_t, std::shared_ptr<fake_job>> tickets VEL_GUARDED_BY(lock);
    uint64_t next_ticket VEL_GUARDED_BY(lock) = 1;

    std::list<fake_connection> connections VEL_GUARDED_BY(lock);
};

/* The image's state. */
extern fake_state state;

/* Waits until `done` holds; false when the plug-in ends before, or at a limit that only a hang
 * reaches. */
bool fake_await(const std::function<bool()>& done) VEL_REQUIRES(state.lock);
void fake_wake();

/* Notes what the service did against the interface. */
void fake_violation(const std::string& what) VEL_REQUIRES(state.lock);

/* The source of an id that the service gave, or null. */
fake_source* fake_source_by_id(int32_t id) VEL_REQUIRES(state.lock);
fake_source* fake_source_by_uid(const std::string& uid) VEL_REQUIRES(state.lock);

/* The tree of a source; unknown sources have the common one. */
const tree& fake_tree_of(int32_t ms_id) VEL_REQUIRES(state.lock);

/* Handles are numbers that no allocation can have, so that a stale one stays stale. */
void* fake_handle(uint64_t serial);
uint64_t fake_handle_serial(const void* handle);

/* The session of a serial, also a destroyed one, or null. */
fake_session* fake_session_at(uint64_t serial) VEL_REQUIRES(state.lock);

/* The live session of a handle; notes a violation and returns null when there is none. */
fake_session* fake_session_of(const void* handle, bool plays, const char* entry)
    VEL_REQUIRES(state.lock);

/* The tables at first; the copies in use are in fake_table.cc. */
extern const lyr_play_api fake_play_entries;
extern const lyr_browse_api fake_browse_entries;

/* Takes a table entry out or puts it back; false for an unknown name. */
bool fake_table_set(const std::string& entry, bool present);
bool fake_table_knows(const std::string& entry);
void fake_table_name(const std::string& name);

/* Fills a record with malloc()ed copies, and frees them. */
void fake_fill_node(const tree_item& item, const fake_source* source, int32_t ms_id,
                    medianode& node);
void fake_free_node(medianode& node);

#endif
