/* A radio: a media source with a track for each station. It makes no sound, but keeps time like
 * something that does. docs/plugins.md walks through it. Settings: "stations", names with commas
 * between them; "length", the ms until a station's programme ends.
 *     cc -std=c11 -fPIC -shared -fvisibility=hidden -pthread radio.c -o radio.so */
#define _POSIX_C_SOURCE 200809L
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <lyrane/plugin.h>

enum { STATIONS = 32, SESSIONS = 256, NS_PER_MS = 1000000 };
enum { CAN = LYR_CAP_PLAY | LYR_CAP_PAUSE | LYR_CAP_STOP | LYR_CAP_BROWSE | LYR_CAP_METADATA };

typedef struct session {
    uintptr_t handle; /* 0: free */
    void* data;       /* the service's; goes back with each callback */
    int32_t attached, playing, position;
} session;
static const lyrane_internal_callbacks_table* service;
static int32_t own_id, station_count, length, interval; /* the last two in ms */
static char *list, *stations[STATIONS];                 /* the names lie in the list */
static pthread_t worker;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER; /* of what follows; free in callbacks */
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
static int32_t ending, players; /* sessions that play */
static session sessions[SESSIONS];
static uintptr_t last; /* handles are numbers, never used twice: a late event stays a stale one */

static session* of(void* handle) {
    return &sessions[(uintptr_t)handle % SESSIONS];
}

static void* play_create(int32_t ms_id, void* callback_data) {
    uintptr_t handle = 0;
    pthread_mutex_lock(&lock);
    for (int32_t i = 0; i < SESSIONS && handle == 0; ++i) {
        handle = sessions[++last % SESSIONS].handle == 0 ? last : 0;
    }
    if (handle != 0) {
        *of((void*)handle) = (session){.handle = handle, .data = callback_data};
    }
    pthread_mutex_unlock(&lock);
    return (void)ms_id, (void*)handle; /* there is one source, and we offer to play no others */
}

static int32_t play_destroy(void* handle) { /* waits for nobody: the worker may wait for us */
    pthread_mutex_lock(&lock);
    players -= of(handle)->playing;
    *of(handle) = (session){0};
    pthread_mutex_unlock(&lock);
    return 0;
}

static int32_t is_station(const char* id) { /* ids of tracks are the stations' names */
    int32_t i = 0;
    while (i < station_count && strcmp(id, stations[i]) != 0) {
        ++i;
    }
    return i < station_count;
}

static int32_t steer(void* handle, int32_t attached, int32_t playing, int32_t rewind) {
    session* s = of(handle);
    pthread_mutex_lock(&lock);
    attached = s->attached |= attached;
    s->position = rewind ? 0 : s->position;
    playing = playing && attached;
    players += playing - s->playing;
    s->playing = playing;
    pthread_cond_signal(&changed);
    pthread_mutex_unlock(&lock);
    return attached ? 0 : -1;
}

static int32_t attach(void* handle, const medianode* node) {
    return is_station(node->id) ? steer(handle, 1, 0, 1) : -1;
}
static int32_t start(void* handle) {
    return steer(handle, 0, 1, 0);
}
static int32_t halt(void* handle) {
    return steer(handle, 0, 0, 0);
}
static int32_t stop(void* handle) {
    return steer(handle, 0, 0, 1);
}

/* Moves a session on and says so with the lock free: whoever is inside an entry of ours may hold
 * what the callback waits for, and a callback may come back into one. */
static void tick(session* s) {
    const session now = *s;
    const int32_t position = now.position + interval < length ? now.position + interval : 0;
    if (now.playing) {
        s->position = position;
        s->playing = position > 0; /* an end is said once */
        players -= position == 0;
        pthread_mutex_unlock(&lock);
        if (position > 0) {
            service->position_updated((void*)now.handle, now.data, position);
        } else {
            service->track_finished((void*)now.handle, now.data);
        }
        pthread_mutex_lock(&lock);
    }
}

static void* work(void* unused) {
    const struct timespec time = {interval / 1000, interval % 1000 * (long)NS_PER_MS};
    pthread_mutex_lock(&lock);
    while (!ending) {
        for (int32_t i = 0; i < SESSIONS && !ending; ++i) {
            tick(&sessions[i]);
        }
        while (players == 0 && !ending) {
            pthread_cond_wait(&changed, &lock);
        }
        pthread_mutex_unlock(&lock);
        nanosleep(&time, NULL);
        pthread_mutex_lock(&lock);
    }
    pthread_mutex_unlock(&lock);
    return unused;
}

static void* browse_create(int32_t ms_id, void* callback_data) {
    return (void)callback_data, (void*)((intptr_t)ms_id + 1); /* all that a session has to know */
}

static int32_t browse(void* handle, const char* node_id, int32_t offset, int32_t* count,
                      medianode** nodes) {
    if (strcmp(node_id, "/") != 0) {
        return -1; /* ids come from clients: they may be anything */
    }
    int32_t n = offset < station_count ? station_count - offset : 0;
    n = *count >= 0 && *count < n ? *count : n;
    medianode* page = n > 0 ? calloc((size_t)n, sizeof *page) : NULL;
    for (int32_t i = 0; i < n; ++i) {
        if (page == NULL || (page[i].id = strdup(stations[offset + i])) == NULL) {
            free_medianodes(&page, n); /* a failure hands nothing over */
            return -1;
        }
        page[i].name = strdup(stations[offset + i]);
        page[i].type = LYR_NODE_AUDIO;
        page[i].ms_id = (int32_t)((intptr_t)handle - 1);
        page[i].ms_type = LYR_MS_TYPE_DLNA;
    }
    *count = n;
    *nodes = page;
    return 0;
}

static int32_t get_metadata(void* handle, const char* node_id, metadata** data) {
    if (node_id != NULL && is_station(node_id) && (*data = calloc(1, sizeof **data)) != NULL) {
        (*data)->title = strdup(node_id);
        (*data)->duration = length;
    }
    return (void)handle, 0;
}

static int32_t update_medianodes(void* handle, int32_t count, medianode* nodes) {
    for (int32_t i = 0; i < count; ++i) { /* their ids are names, so they are still right */
        nodes[i].ms_id = (int32_t)((intptr_t)handle - 1);
    }
    return 0;
}

static int32_t number_of(const strm_dict* settings, const char* key, int32_t most, int32_t other) {
    const char* text = strm_dict_find(settings, key);
    const long number = text != NULL ? strtol(text, NULL, 10) : 0;
    return number > 0 && number <= most ? (int32_t)number : other;
}

static int32_t init(int32_t plugin_id, const strm_dict* settings,
                    const lyrane_internal_callbacks_table* callbacks, uint32_t* types) {
    const char* names = strm_dict_find(settings, "stations");
    (void)types; /* we play our own source only */
    if (service != NULL || (list = strdup(names != NULL ? names : "Jazz,News,Classics")) == NULL) {
        return -1; /* configured twice: these variables are there once */
    }
    own_id = plugin_id;
    service = callbacks;
    length = number_of(settings, "length", 24 * 3600 * 1000, 60000);
    interval = number_of(settings, "update_interval", 5000, 1000);
    char* rest = list;
    for (char* name; station_count < STATIONS && (name = strtok_r(rest, ",", &rest)) != NULL;) {
        stations[station_count++] = name;
    }
    return pthread_create(&worker, NULL, work, NULL) == 0 ? 0 : -1;
}

static int32_t detection(int32_t enable) {
    return enable == 0 || service->mediasource_connected(own_id, "radio", "Radio", NULL,
                                                         LYR_MS_TYPE_DLNA, CAN, 1) >= 0
               ? 0
               : -1;
}

static int32_t cleanup(void) { /* here no lock of the service is held, so we may join */
    pthread_mutex_lock(&lock);
    ending = 1;
    pthread_cond_signal(&changed);
    pthread_mutex_unlock(&lock);
    pthread_join(worker, NULL);
    return free(list), 0;
}

static const lyr_play_api play_api = {.create = play_create,
                                      .destroy = play_destroy,
                                      .attach_medianode = attach,
                                      .play = start,
                                      .pause = halt,
                                      .stop = stop};
static const lyr_browse_api browse_api = {.create = browse_create,
                                          .browse = browse,
                                          .get_metadata = get_metadata,
                                          .update_medianodes = update_medianodes};
__attribute__((visibility("default")))
const lyrp_api lyrp = {.name = "radio",
                       .init = init,
                       .set_mediasource_detection = detection,
                       .cleanup = cleanup,
                       .play_api = &play_api,
                       .browse_api = &browse_api};
