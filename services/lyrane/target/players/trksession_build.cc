/* Creating track sessions: the first step and the build thread. */
#include "trksession_build.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

#include <veloran/process.h>

#include "mediasource.h"
#include "msglog.h"
#include "player_check.h"
#include "player_commands.h"
#include "player_publish.h"
#include "plugin_call.h"
#include "trksession_hold.h"
#include "trksession_walk.h"

/* The id of the next track session of this run; the first one is 0. */
static std::atomic<uint64_t> tsid_counter;

/* Stop count of a build thread when the client announced no number of tracks. */
static constexpr int32_t NO_STOP_COUNT = INT32_MAX - 1;

uint64_t trksession_new_id(void) noexcept {
    return tsid_counter.fetch_add(1);
}

static constexpr char MINI[] = "build_mini_trksession";
static constexpr char BUILD[] = "player_build_trksession";

/* The source and the player's session on it, ready to play. 0, or -1 with errno set. */
static int32_t find_source(control_block* control, int32_t ms_id, mediasource** source) noexcept {
    *source = mediasource_by_id(control, ms_id);
    if (*source == nullptr) {
        return player_refuse(ENODEV, "The requested media source is not connected");
    }
    if (mediasource_active(*source) == 0) {
        return player_refuse(ENODEV, "The requested media source is not active");
    }
    return 0;
}

static int32_t find_play_session(control_block* control, player* player, mediasource* source,
                                 mediasource_session** session) noexcept
    VEL_REQUIRES(player->lock) {
    *session = mediasource_get_session(control, player, source);
    if (*session == nullptr) {
        return player_refuse(errno, " Cannot find play session for the media source");
    }
    if (!plugin_call_can_play(*session)) {
        return player_refuse(ENOTSUP, " Cannot find play session for the media source");
    }
    return 0;
}

/* An empty session, made the player's. */
static trksession* add_session(player* player, mediasource* source,
                               mediasource_session* ms_session) noexcept
    VEL_REQUIRES(player->lock) {
    void* memory = calloc(1, sizeof(trksession));
    if (memory == nullptr) {
        msglog(1, "Cannot allocate memory for trksession");
        return nullptr;
    }
    trksession* session = new (memory) trksession();
    vel_mutex_init(&session->lock);
    pthread_cond_init(&session->build_over, nullptr);
    session->mediasource = source;
    session->ms_session = ms_session;
    session->ts_id = trksession_new_id();
    session->user = player->session_user;
    session->expected = -1;
    trksession_set(player, session);
    ++player->sessions_made;
    return session;
}

static int32_t replace_session(player* player) noexcept VEL_REQUIRES(player->lock) {
    if (player->trksession != nullptr && player_destroy_trksession(player) != 0) {
        msglog(3, "Cannot destroy the current trksession");
        return -1;
    }
    return 0;
}

/* First step, the requested child is a track: all tracks up to it are imported. The number of
 * tracks, or -1. */
static int32_t mini_of_leaves(player* player, trksession* session, medianode* children,
                              int32_t count) noexcept {
    auto* leaves = static_cast<medianode*>(calloc(static_cast<size_t>(count), sizeof(medianode)));
    if (leaves == nullptr) {
        msglog(1, "Cannot allocate media_nodes: %s", MINI);
        return -1;
    }
    int32_t n = 0;
    for (int32_t i = 0; i < count; ++i) {
        if (children[i].type == LYR_NODE_AUDIO || children[i].type == LYR_NODE_VIDEO) {
            leaves[n++] = children[i];
            children[i] = {}; /* the strings are the session's now */
        }
    }
    const int32_t result = player_trksession_import(player, leaves, n);
    if (result != 0) {
        msglog(3, "%s:track session import error:%d,media_node_id:%s", MINI, result,
               session->mn_id);
        free_medianodes(&leaves, n);
        return -1;
    }
    trksession_set_current(session, {n - 1, n - 1, 0});
    if (__atomic_load_n(&player->control->verbosity, __ATOMIC_RELAXED) == MSGLOG_LEVEL_MAX) {
        dump_minitrk(session->mn_id, n, leaves, n - 1);
    }
    free(leaves);
    return n;
}

/* First step, the requested child is a folder: the first track inside it. */
static int32_t mini_of_folder(player* player, trksession* session,
                              const medianode* child) noexcept {
    int32_t found = 0;
    int32_t ignored = 0;
    trksession_set_current(session, {0, 0, 0});
    return player_browse_recursive(player, child->id, 0, &found, 1, &ignored, 1) == 0 ? found : -1;
}

/* The first step: the number of tracks that the session holds afterwards, or -1. */
static int32_t build_mini(player* player, trksession* session) noexcept {
    const int32_t start = session->start_index;
    int32_t count = start == INT32_MAX ? INT32_MAX : start + 1;
    medianode* children = nullptr;
    if (media_node_children(session->ms_session, session->mn_id, &count, &children,
                            &session->cancelled) != 0) {
        return -1;
    }
    int32_t got = 0;
    if (count > start) {
        switch (children[start].type) {
        case LYR_NODE_AUDIO:
        case LYR_NODE_VIDEO:
            got = mini_of_leaves(player, session, children, start + 1);
            break;
        case LYR_NODE_FOLDER:
            got = mini_of_folder(player, session, &children[start]);
            break;
        default: /* neither can be played: an empty session, as for a folder that is too short */
            break;
        }
    }
    free_medianodes(&children, count);
    return got;
}

/* Attaches the requested track and shows the player as stopped, ready to play. */
static int32_t attach_first(player* player, trksession* session) noexcept
    VEL_REQUIRES(player->lock) {
    const trksession_place place = trksession_current(session);
    medianode track = {};
    medianode shown = {};
    if (trksession_copy_track(session, place.trk_id, &track) != 0 ||
        trksession_copy_track(session, place.cli_index, &shown) != 0) {
        return -1;
    }
    metadata* data = nullptr;
    if ((mediasource_capabilities(session->mediasource) & LYR_CAP_METADATA) != 0) {
        msglog(7, "Get metadata for media node: %s", track.id);
        data = trksession_fetch_metadata(session, track.id);
    }
    if (plugin_call_attach(session->ms_session, &track) != 0) {
        msglog(3, "Failed to attach media node during building trksession");
        free_metadata(&data);
        return -1;
    }
    player_need_track_writer(player);
    player_publish_track(player, session->ts_id, place.cli_index, &shown, data);
    free_metadata(&data);
    player_show_stopped(player);
    return 0;
}

static void start_build_thread(player* player, trksession* session) noexcept
    VEL_REQUIRES(player->lock) {
    /* The thread's first look at the session waits for its own entry here. */
    vel_lock_guard guard(session->lock);
    const int32_t error = process_thread_start("build_trksession", 0, player_trksession_thread,
                                               player, &session->build_thread);
    if (error != 0) {
        msglog(2, "Failed to create a trksession thread (%d:%s)", error, msglog_error_text(error));
        return;
    }
    session->build_started = 1;
}

/* The stop count of the build thread; 0 when the session already holds what was announced. */
static int32_t rest_to_build(const trksession* session) noexcept {
    if (session->expected == -1) {
        return NO_STOP_COUNT;
    }
    const int32_t rest = session->expected - session->ignore_count;
    return rest > 0 ? rest : 0;
}

static int32_t build_session(player* player, trksession* session, int32_t* expected) noexcept
    VEL_REQUIRES(player->lock) {
    msglog(7, "before minitrk:%s,expect=%d,idx=%d,%s", session->mn_id, *expected,
           session->start_index, BUILD);
    const int32_t got = build_mini(player, session);
    msglog(7, "after minitrk:%s,got(ignore)=%d,nidex=%d,ret=%d,%s", session->mn_id,
           got < 0 ? 0 : got, trksession_current(session).trk_id, got < 0 ? -1 : 0, BUILD);
    if (got < 0) {
        *expected = 0;
        return -1;
    }
    if (got == 0) {
        return 0;
    }
    session->ignore_count = got;
    if (attach_first(player, session) != 0) {
        return -1;
    }
    if (rest_to_build(session) > 0) {
        start_build_thread(player, session);
    }
    return 0;
}

extern "C" {

int32_t player_create_trksession(control_block* control, player* player, int32_t ms_id,
                                 const char* mn_id, int32_t* expected,
                                 int32_t start_index) noexcept {
    mediasource* source = nullptr;
    mediasource_session* ms_session = nullptr;
    if (replace_session(player) != 0 || find_source(control, ms_id, &source) != 0) {
        return -1;
    }
    if (*expected < -1) {
        return player_refuse(EINVAL, "Invalid offset or limit");
    }
    if (find_play_session(control, player, source, &ms_session) != 0) {
        return -1;
    }
    trksession* session = add_session(player, source, ms_session);
    if (start_index < 0) {
        return player_refuse(EINVAL, nullptr);
    }
    char* folder = strdup(mn_id);
    if (folder == nullptr) {
        msglog(1, "Cannot allocate memory for trksession");
        return -1;
    }
    {
        vel_lock_guard guard(session->lock); /* others find the session already */
        session->expected = *expected;
        session->start_index = start_index;
        session->mn_id = folder;
    }
    return build_session(player, session, expected);
}

int32_t player_create_trksession_v2(control_block* control, player* player, int32_t ms_id,
                                    medianode* nodes, int32_t count, int32_t index) noexcept {
    mediasource* source = nullptr;
    mediasource_session* ms_session = nullptr;
    if (replace_session(player) != 0 || find_source(control, ms_id, &source) != 0 ||
        find_play_session(control, player, source, &ms_session) != 0) {
        return -1;
    }
    trksession* session = add_session(player, source, ms_session);
    (void)player_trksession_import(player, nodes, count);
    trksession_set_current(session, {index, index, 0});
    return player_attach_walking(player, index, control->lastmode_max_try, LYR_REPEAT_ALL);
}

void* player_trksession_thread(void* argument) noexcept {
    player* owner = static_cast<player*>(argument);
    trksession* session = trksession_of_builder(owner);
    const int32_t stop_count = rest_to_build(session);
    if (stop_count > 0) {
        int32_t count = 0;
        msglog(7, "before browse_recursive:%s,idx=%d,stop=%d,ignore=%d,%s", session->mn_id,
               session->start_index, stop_count, session->ignore_count, "player_trksession_thread");
        const int32_t result =
            player_browse_recursive(owner, session->mn_id, session->start_index, &count, stop_count,
                                    &session->ignore_count, 0);
        msglog(7, "after browse_recursive:%s,count=%d,ignore=%d,ret=%d,%s", session->mn_id, count,
               session->ignore_count, result, "player_trksession_thread");
    }
    vel_lock_guard guard(session->lock);
    session->build_done = 1;
    pthread_cond_broadcast(&session->build_over);
    return nullptr;
}
}
