/* The play half of the plug-in: play sessions on top of the playing module. */
#include "files_play.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>

#include <fcntl.h>
#include <sys/stat.h>

#include <veloran/lock.h>

#include "files_log.h"
#include "files_node.h"
#include "files_source.h"
#include "gst_loader.h"

static std::atomic<const lyrane_internal_callbacks_table*> service_callbacks{nullptr};

/* The player is made with the first track, so that a session that only browses needs none. The
 * address is the handle that callbacks carry; while a thread may still make one, the memory is
 * not given to another session. */
struct play_session {
    files_source_ref source;
    void* callback_data;
    const gst_player_api* api; /* null as long as there is no player */
    gst_player* player;
};

static play_session* session_of(void* handle) noexcept {
    return static_cast<play_session*>(handle);
}

static void* files_play_create(int32_t ms_id, void* callback_data) noexcept {
    files_source_ref source = files_source_find(ms_id);
    if (source == nullptr) {
        return nullptr;
    }
    return new (std::nothrow) play_session{std::move(source), callback_data, nullptr, nullptr};
}

/* [worker] No callback of the session can come any more. */
static void released(void* handle) noexcept {
    delete session_of(handle);
}

static int32_t files_play_destroy(void* handle) noexcept {
    play_session* session = session_of(handle);
    if (session->player != nullptr) {
        session->api->destroy(session->player);
    } else {
        delete session;
    }
    return 0;
}

/* Opens the plain file at the id; -1 with the reason in *why. Anything else may have come into its
 * place since somebody looked, so nothing here waits for it. [any thread] */
static int32_t open_track(void* handle, const char* id, const char** why) noexcept {
    vel_fd file(files_node_open(*session_of(handle)->source, id, O_RDONLY | O_NONBLOCK | O_NOCTTY));
    struct stat facts = {};
    if (file.value < 0 || fstat(file.value, &facts) != 0) {
        *why = errno == EXDEV ? "it is a link out of its source"
                              : std::strerror(errno); // NOLINT(concurrency-mt-unsafe): own buffer
        return -1;
    }
    if (!S_ISREG(facts.st_mode)) {
        *why = "it is no plain file";
        return -1;
    }
    return file.release();
}

static bool can_be_opened(play_session* session, const char* id) noexcept {
    const char* why = nullptr;
    return vel_fd(open_track(session, id, &why)).value >= 0;
}

static bool make_player(play_session* session) noexcept {
    const gst_player_api* api = gst_loader_get(files_log);
    if (api == nullptr) {
        return false;
    }
    const files_settings& settings = *session->source->settings;
    const gst_player_config config = {
        .callbacks = service_callbacks.load(),
        .play_session = session,
        .callback_data = session->callback_data,
        .released = released,
        .open = open_track,
        .log = files_log,
        .group = &files_play_table,
        .audio_output = settings.audio_output.c_str(),
        .video_output = settings.video_output.c_str(),
        .update_interval = settings.update_interval,
    };
    session->api = api;
    session->player = api->create(&config);
    return session->player != nullptr;
}

/* The id counts, not the url: that is only where the file was when somebody looked. What is in the
 * file is found out when it is played, and by then it is opened anew. */
static int32_t files_attach_medianode(void* handle, const medianode* node) noexcept {
    play_session* session = session_of(handle);
    if (node == nullptr || !can_be_opened(session, node->id)) {
        if (session->player != nullptr) {
            session->api->stop(session->player);
        }
        return -1;
    }
    try {
        const std::string uri = files_node_uri(*session->source, node->id);
        if (session->player == nullptr && !make_player(session)) {
            return -1;
        }
        return session->api->attach(session->player, node->id, uri.c_str(), node->type);
    } catch (...) {
        return -1;
    }
}

static int32_t files_play(void* handle) noexcept {
    const play_session* session = session_of(handle);
    return session->player != nullptr ? session->api->play(session->player) : -1;
}

static int32_t files_pause(void* handle) noexcept {
    const play_session* session = session_of(handle);
    return session->player != nullptr ? session->api->pause(session->player) : -1;
}

static int32_t files_stop(void* handle) noexcept {
    const play_session* session = session_of(handle);
    return session->player != nullptr ? session->api->stop(session->player) : 0;
}

static int32_t files_set_playback_rate(void* handle, float rate) noexcept {
    const play_session* session = session_of(handle);
    return session->player != nullptr ? session->api->set_rate(session->player, rate) : -1;
}

static int32_t files_seek(void* handle, int32_t position) noexcept {
    const play_session* session = session_of(handle);
    return session->player != nullptr ? session->api->seek(session->player, position) : -1;
}

void files_play_set_callbacks(const lyrane_internal_callbacks_table* callbacks) noexcept {
    service_callbacks.store(callbacks);
}

void files_play_shutdown() noexcept {
    const gst_player_api* api = gst_loader_loaded();
    if (api != nullptr) {
        api->shutdown(&files_play_table);
    }
}

const lyr_play_api files_play_table = {
    .create = files_play_create,
    .destroy = files_play_destroy,
    .reserved = nullptr,
    .attach_medianode = files_attach_medianode,
    .play = files_play,
    .pause = files_pause,
    .stop = files_stop,
    .set_playback_rate = files_set_playback_rate,
    .seek = files_seek,
    .next = nullptr,
    .previous = nullptr,
    .shuffle = nullptr,
    .repeat = nullptr,
};
