/* A plug-in with one fault, which its setting "fault" names; without it, it keeps the rules. One
 * source with tracks "a" to "e", each of a second. */
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <lyrane/plugin.h>

#ifdef BROKEN_NAMES
__attribute__((visibility("default"))) int32_t player_play(void) {
    return 0;
}
#endif

enum { TRACKS = 5, SESSIONS = 64, LENGTH = 1000, TICK = 20 };

typedef struct session {
    uintptr_t handle; /* 0: free */
    void* data;
    int32_t attached, playing, position;
    int32_t destroyed; /* fault late: still reported */
} session;

static const lyrane_internal_callbacks_table* service;
static char fault_name[32];
static int32_t own_id, ms_id = -1;
static pthread_t worker;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static int32_t ending, cancelled;
static session sessions[SESSIONS];
static uintptr_t last;
static int32_t calls; /* of browse */
static char* kept;    /* a text that was handed over */
static int32_t shared_number;

static int fault(const char* name) {
    return strcmp(fault_name, name) == 0;
}

static session* of(void* handle) {
    return &sessions[(uintptr_t)handle % SESSIONS];
}

static void* play_create(int32_t source, void* data) {
    (void)source;
    pthread_mutex_lock(&lock);
    uintptr_t handle = fault("one_handle") && last != 0 ? last : ++last;
    *of((void*)handle) = (session){.handle = handle, .data = data};
    pthread_mutex_unlock(&lock);
    return (void*)handle;
}

static int32_t play_destroy(void* handle) {
    if (fault("destroy_joins")) {
        pthread_mutex_lock(&lock);
        ending = 1;
        pthread_mutex_unlock(&lock);
        pthread_join(worker, NULL);
    }
    pthread_mutex_lock(&lock);
    if (fault("late")) {
        of(handle)->destroyed = 1;
        of(handle)->playing = 1;
    } else {
        *of(handle) = (session){0};
    }
    pthread_mutex_unlock(&lock);
    return 0;
}

static int32_t attach(void* handle, const medianode* node) {
    const int32_t ours = strlen(node->id) == 1 && node->id[0] >= 'a' && node->id[0] < 'a' + TRACKS;
    if (!ours || fault("attach_fails")) {
        return -1;
    }
    pthread_mutex_lock(&lock);
    of(handle)->attached = 1;
    of(handle)->playing = 0;
    of(handle)->position = 0;
    pthread_mutex_unlock(&lock);
    return 0;
}

static int32_t play(void* handle) {
    if (fault("exits")) {
        exit(7);
    }
    if (fault("inside")) {
        service->position_updated(handle, of(handle)->data, 1);
    }
    if (fault("race")) {
        ++shared_number;
    }
    pthread_mutex_lock(&lock);
    const int32_t attached = of(handle)->attached;
    of(handle)->playing = attached && !fault("silent");
    pthread_mutex_unlock(&lock);
    return attached ? 0 : -1;
}

static int32_t halt(void* handle) {
    pthread_mutex_lock(&lock);
    of(handle)->playing = 0;
    pthread_mutex_unlock(&lock);
    return fault("pause_fails") ? -1 : 0;
}

static int32_t stop(void* handle) {
    pthread_mutex_lock(&lock);
    of(handle)->playing = 0;
    of(handle)->position = 0;
    pthread_mutex_unlock(&lock);
    return 0;
}

static void report(const session* now) {
    void* handle = (void*)now->handle;
    void* data = fault("wrong_data") ? (void*)&lock : now->data;
    if (now->position < LENGTH) {
        service->position_updated(handle, data, fault("negative") ? -1 : now->position);
        return;
    }
    /* So often that no host can have begun the track anew before each of them. */
    for (int32_t ends = fault("ends_twice") ? 50 : 1; ends > 0; --ends) {
        service->track_finished(handle, data);
    }
}

static void* work(void* unused) {
    const struct timespec time = {.tv_nsec = TICK * 1000000L};
    pthread_mutex_lock(&lock);
    while (!ending) {
        for (int32_t i = 0; i < SESSIONS && !ending; ++i) {
            session* s = &sessions[i];
            if (!s->playing) {
                continue;
            }
            s->position += TICK;
            const session now = *s;
            if (now.position >= LENGTH) {
                s->position = 0;
                s->playing = 0;
            }
            if (fault("lock_held")) {
                report(&now);
                continue;
            }
            pthread_mutex_unlock(&lock);
            report(&now);
            pthread_mutex_lock(&lock);
        }
        const int32_t again = fault("detection_stays") && ms_id >= 0;
        pthread_mutex_unlock(&lock);
        if (fault("race")) {
            ++shared_number; /* after the lock was given back: nothing orders it before play's */
        }
        if (again) {
            service->mediasource_connected(own_id, "broken", "Broken", NULL, LYR_MS_TYPE_USB,
                                           LYR_CAP_BROWSE, 1);
        }
        nanosleep(&time, NULL);
        pthread_mutex_lock(&lock);
    }
    pthread_mutex_unlock(&lock);
    return unused;
}

static void* browse_create(int32_t source, void* data) {
    (void)data;
    return fault("no_browse_session") ? NULL : (void*)((intptr_t)source + 1);
}

static void name_node(medianode* node, int32_t number) {
    const char id[] = {(char)('a' + number), '\0'};
    node->id = fault("null_id") ? NULL : strdup(id);
    node->name = strdup(id);
    node->type = LYR_NODE_AUDIO;
    node->ms_id = ms_id + (fault("wrong_source") ? 1 : 0);
    node->ms_type = LYR_MS_TYPE_USB;
    if (fault("static_text")) {
        static char text[] = "this is not from malloc";
        free(node->name);
        node->name = text;
    }
    if (fault("freed_text")) {
        free(kept);
        kept = node->name; /* and yet it was handed over */
    }
}

static int32_t browse(void* handle, const char* id, int32_t offset, int32_t* count,
                      medianode** nodes) {
    (void)handle;
    pthread_mutex_lock(&lock);
    const int32_t turn = ++calls;
    const int32_t dead = fault("sticky_cancel") && cancelled;
    pthread_mutex_unlock(&lock);
    if (strcmp(id, "/") != 0 || dead) {
        *nodes = fault("array_of_failure") ? calloc(1, sizeof **nodes) : NULL;
        return -1;
    }
    int32_t first = fault("rewinds") ? 0 : offset;
    if (fault("end_fails") && offset >= TRACKS) {
        return -1;
    }
    int32_t n = first < TRACKS ? TRACKS - first : 0;
    n = *count >= 0 && *count < n ? *count : n;
    n += fault("over") && *count > 0 && first + n < TRACKS;
    *count = fault("no_array") ? 3 : n;
    *nodes = n > 0 && !fault("no_array") ? calloc((size_t)n, sizeof **nodes) : NULL;
    for (int32_t i = 0; *nodes != NULL && i < n; ++i) {
        name_node(&(*nodes)[i], fault("unstable") ? (first + i + turn) % TRACKS : first + i);
    }
    return 0;
}

static int32_t get_metadata(void* handle, const char* id, metadata** data) {
    (void)handle;
    if (fault("null_crash") && id[0] == 'x') {
        return 1;
    }
    *data = id != NULL && strlen(id) == 1 ? calloc(1, sizeof **data) : NULL;
    if (*data != NULL) {
        (*data)->title = strdup(id);
        (*data)->duration = LENGTH;
    }
    if (fault("leak")) {
        *data = NULL;
    }
    return 0;
}

static int32_t get_extended(void* handle, const char* id, const char* const* keys, char** values) {
    (void)handle, (void)id;
    for (int32_t i = 0; keys[i] != NULL; ++i) {
        values[i] = fault("any_key") || strcmp(keys[i], "codec") == 0 ? strdup("FLAC") : NULL;
    }
    return 0;
}

static int32_t cancel(void* handle) {
    (void)handle;
    pthread_mutex_lock(&lock);
    cancelled = 1;
    pthread_mutex_unlock(&lock);
    return 0;
}

static lyr_play_api play_api = {.create = play_create,
                                .destroy = play_destroy,
                                .attach_medianode = attach,
                                .play = play,
                                .pause = halt,
                                .stop = stop};
static lyr_browse_api browse_api = {.create = browse_create,
                                    .browse = browse,
                                    .get_metadata = get_metadata,
                                    .get_extended_metadata = get_extended,
                                    .cancel_browse = cancel};
__attribute__((visibility("default"))) extern lyrp_api lyrp;

static int32_t init(int32_t plugin_id, const strm_dict* settings,
                    const lyrane_internal_callbacks_table* callbacks, uint32_t* types) {
    const char* name = strm_dict_find(settings, "fault");
    strncpy(fault_name, name != NULL ? name : "", sizeof fault_name - 1);
    own_id = plugin_id;
    service = callbacks;
    *types = LYR_MS_TYPE_USB;
    if (fault("no_attach")) {
        play_api.attach_medianode = NULL;
    } else if (fault("no_play_table")) {
        lyrp.play_api = NULL;
    } else if (fault("no_pause")) {
        play_api.pause = NULL;
    } else if (fault("umask")) {
        (void)umask(0777);
    } else if (fault("init_reports")) {
        callbacks->mediasource_connected(plugin_id, "early", NULL, NULL, LYR_MS_TYPE_USB, 0, 1);
    }
    return fault("init_fails") || pthread_create(&worker, NULL, work, NULL) != 0 ? -1 : 0;
}

static int32_t detection(int32_t enable) {
    const uint64_t can = LYR_CAP_PLAY | LYR_CAP_PAUSE | LYR_CAP_STOP | LYR_CAP_BROWSE |
                         LYR_CAP_METADATA | LYR_CAP_EXTENDED_METADATA;
    if (enable != 0 && fault("open_file")) {
        (void)!open("/", O_RDONLY);
    }
    if (enable != 0 && fault("no_uid")) {
        service->mediasource_connected(own_id, NULL, NULL, NULL, LYR_MS_TYPE_USB, can, 1);
    }
    if (enable != 0) {
        const int32_t id = service->mediasource_connected(own_id, "broken", "Broken", NULL,
                                                          LYR_MS_TYPE_USB, can, 1);
        pthread_mutex_lock(&lock);
        ms_id = id;
        pthread_mutex_unlock(&lock);
    }
    return 0;
}

static int32_t cleanup(void) {
    if (fault("thread_stays")) {
        pthread_detach(worker);
        return 0;
    }
    pthread_mutex_lock(&lock);
    const int32_t ended = ending;
    ending = 1;
    pthread_mutex_unlock(&lock);
    return ended || pthread_join(worker, NULL) == 0 ? 0 : -1;
}

lyrp_api lyrp = {.name = "broken",
                 .init = init,
                 .set_mediasource_detection = detection,
                 .cleanup = cleanup,
                 .play_api = &play_api,
                 .browse_api = &browse_api};
