/* The walk through a folder tree that collects a session's tracks.
 *
 * When the child at the start index is a folder, that folder, the other
 * folders, then the folder's own tracks; otherwise its own tracks first. Below the start folder
 * the index is 0. The walk keeps its own stack: trees come from devices, and a device may be deep
 * or contain itself.
 *
 * Tracks that the first step has imported are met again here. They are known by their ids, each as
 * often as the first step has it, and not by their number, so that a tree that changed in between
 * loses nothing and gives nothing twice. */
#include "trksession_build.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "msglog.h"
#include "trksession_hold.h"

/* Folders below each other, whatever the configured depth. */
static constexpr int32_t DEPTH_MAX = 1000;

static constexpr char WALK[] = "player_browse_recursive";

/* One folder of the path that is being walked. Owns its children; those whose strings were moved
 * into the session are marked by a null id. */
struct folder {
    char* mn_id; /* owned */
    medianode* children;
    int32_t count;
    int32_t first; /* the child to enter first, or -1: tracks before folders */
    int32_t next;  /* next child to look at for a folder */
    int32_t depth;
    bool tracks_done;
    bool first_done;
};

/* An id of the first step, and how often it is still to be skipped. */
struct held_id {
    const char* id;
    int32_t left;
};

struct walk {
    ::player* player;
    mediasource_session session; /* a copy: the player may fill a missing half meanwhile */
    const std::atomic<int32_t>* cancelled;
    int32_t* count;
    int32_t stop_count;
    int32_t* ignore_count;
    held_id* held; /* owned; sorted by id, each once */
    int32_t held_count;
    folder* path; /* owned; a stack */
    int32_t path_count;
    int32_t path_capacity;
};

static bool is_leaf(const medianode* node) noexcept {
    return node->type == LYR_NODE_AUDIO || node->type == LYR_NODE_VIDEO;
}

static bool is_folder(const medianode* node) noexcept {
    return node->type == LYR_NODE_FOLDER;
}

static bool by_id(const held_id& a, const held_id& b) noexcept {
    return strcmp(a.id, b.id) < 0;
}

/* Remembers the ids of the tracks that are not to be imported again. */
static void hold_ids(walk* w, trksession* session) noexcept {
    const int32_t wanted = *w->ignore_count;
    if (wanted <= 0) {
        return;
    }
    vel_lock_guard guard(session->lock);
    const int32_t n = std::min(wanted, session->length);
    w->held = static_cast<held_id*>(calloc(static_cast<size_t>(n) + 1, sizeof(held_id)));
    if (w->held == nullptr) {
        msglog(1, "Cannot allocate memory for:lmn_deepfree.%s:", WALK);
        return;
    }
    for (int32_t i = 0; i < n; ++i) {
        w->held[i].id = session->tracks[i].id; /* stays until destruction, which joins us */
        w->held[i].left = 1;
    }
    std::sort(w->held, w->held + n, by_id);
    for (int32_t i = 0; i < n; ++i) {
        if (w->held_count > 0 && strcmp(w->held[w->held_count - 1].id, w->held[i].id) == 0) {
            ++w->held[w->held_count - 1].left;
        } else {
            w->held[w->held_count++] = w->held[i];
        }
    }
}

/* True for a track that the first step has, as often as it has it. */
static bool skip_held(walk* w, const char* id) noexcept {
    if (*w->ignore_count <= 0) {
        return false;
    }
    held_id* end = w->held + w->held_count;
    held_id* at = std::lower_bound(w->held, end, held_id{id, 0}, by_id);
    if (at == end || strcmp(at->id, id) != 0 || at->left == 0) {
        return false;
    }
    --at->left;
    --*w->ignore_count;
    return true;
}

static bool enough(const walk* w) noexcept {
    return *w->count >= w->stop_count;
}

static void folder_free(folder* f) noexcept {
    free_medianodes(&f->children, f->count);
    free(f->mn_id);
}

static void walk_free(walk* w) noexcept {
    while (w->path_count > 0) {
        folder_free(&w->path[--w->path_count]);
    }
    free(w->path);
    free(w->held);
}

/* A folder whose id stands on the path already contains itself. */
static bool on_path(const walk* w, const char* mn_id) noexcept {
    for (int32_t i = 0; i < w->path_count; ++i) {
        if (strcmp(w->path[i].mn_id, mn_id) == 0) {
            return true;
        }
    }
    return false;
}

static folder* push_folder(walk* w) noexcept {
    if (w->path_count == w->path_capacity) {
        const int32_t wanted = w->path_capacity == 0 ? 16 : w->path_capacity * 2;
        void* moved = realloc(w->path, static_cast<size_t>(wanted) * sizeof(folder));
        if (moved == nullptr) {
            msglog(1, "Cannot allocate memory for:folder_list.%s", WALK);
            return nullptr;
        }
        w->path = static_cast<folder*>(moved);
        w->path_capacity = wanted;
    }
    folder* f = &w->path[w->path_count++];
    *f = {};
    f->first = -1;
    return f;
}

/* Opens a folder: 0 and a new top of the path, 0 and none when there is nothing to walk, or -1. */
static int32_t enter(walk* w, const char* mn_id, int32_t index, int32_t depth) noexcept {
    msglog(7, "%s:enter:%s,index=%d,*count=%d,stop_count=%d,*ignore_count=%d,recursive_depth=%d",
           WALK, mn_id, index, *w->count, w->stop_count, *w->ignore_count, depth);
    const int32_t limit = w->player->config->recursion_depth;
    if (limit != -1 && depth > limit) {
        return 0;
    }
    if (depth > DEPTH_MAX || on_path(w, mn_id)) {
        msglog(3, "%s: %s is left out: it contains itself or lies too deep", WALK, mn_id);
        return 0;
    }
    int32_t n = -1;
    medianode* children = nullptr;
    if (media_node_children(&w->session, mn_id, &n, &children, w->cancelled) != 0) {
        *w->count = 0;
        return -1;
    }
    if (n == 0 || index >= n) {
        free_medianodes(&children, n);
        return 0;
    }
    char* own_id = strdup(mn_id);
    folder* f = own_id != nullptr ? push_folder(w) : nullptr;
    if (f == nullptr) {
        msglog(1, "Cannot allocate memory for:folder_list.%s", WALK);
        return -1;
    }
    f->mn_id = own_id;
    f->children = children;
    f->count = n;
    f->depth = depth;
    f->first = index >= 0 && is_folder(&children[index]) ? index : -1;
    f->first_done = f->first < 0;
    return 0;
}

/* Imports what `take` chose of a folder's children, whose strings then are the session's. */
static int32_t import_chosen(walk* w, folder* f, const int32_t* chosen, int32_t k,
                             int32_t place) noexcept {
    if (k == 0) {
        return 0;
    }
    auto* nodes = static_cast<medianode*>(calloc(static_cast<size_t>(k), sizeof(medianode)));
    if (nodes == nullptr) {
        msglog(2, "%s", "%:cannot allocate memory for:");
        return -1;
    }
    for (int32_t i = 0; i < k; ++i) {
        nodes[i] = f->children[chosen[i]];
    }
    const int32_t result = player_trksession_import(w->player, nodes, k);
    free(nodes);
    if (result != 0) {
        msglog(3, "%s:track session import error(%d):%d,media_node_id:%s", WALK, place, result,
               f->mn_id);
        return result;
    }
    for (int32_t i = 0; i < k; ++i) {
        f->children[chosen[i]] = {};
    }
    return 0;
}

static bool has_folders(const folder* f) noexcept {
    return std::any_of(f->children, f->children + f->count,
                       [](const medianode& node) { return is_folder(&node); });
}

/* The number by which the log tells the places of an import apart. */
static int32_t import_place(const folder* f, bool folders) noexcept {
    if (!folders) {
        return f->count == 1 ? 1 : 2;
    }
    return f->first >= 0 ? 3 : 4;
}

/* Imports the folder's own tracks, as long as more are wanted: its leaves, or every child, whatever
 * its type, when there is no folder among them. */
static int32_t import_tracks(walk* w, folder* f) noexcept {
    f->tracks_done = true;
    const bool folders = has_folders(f);
    auto* chosen = static_cast<int32_t*>(calloc(static_cast<size_t>(f->count), sizeof(int32_t)));
    if (chosen == nullptr) {
        msglog(1, "Cannot allocate memory for:leaf_list.%s:", WALK);
        return -1;
    }
    const int64_t room = static_cast<int64_t>(w->stop_count) - *w->count;
    int32_t k = 0;
    for (int32_t i = 0; i < f->count && k < room; ++i) {
        const medianode* child = &f->children[i];
        if ((!folders || is_leaf(child)) && !skip_held(w, child->id)) {
            chosen[k++] = i;
        }
    }
    *w->count += k;
    const int32_t place = import_place(f, folders);
    const int32_t result = import_chosen(w, f, chosen, k, place);
    free(chosen);
    if (result != 0 && place != 2) {
        *w->count -= k;
    }
    return result;
}

/* Position of the next folder to enter, or -1. */
static int32_t next_folder(folder* f) noexcept {
    if (!f->first_done) {
        f->first_done = true;
        return f->first;
    }
    while (f->next < f->count) {
        const int32_t at = f->next++;
        if (at != f->first && is_folder(&f->children[at])) {
            return at;
        }
    }
    return -1;
}

/* One step on the folder at the top of the path. */
static int32_t step(walk* w) noexcept {
    folder* top = &w->path[w->path_count - 1];
    if (top->first < 0 && !top->tracks_done) {
        return import_tracks(w, top);
    }
    const int32_t child = enough(w) ? -1 : next_folder(top);
    if (child >= 0) {
        return enter(w, top->children[child].id, 0, top->depth + 1);
    }
    if (!top->tracks_done && !enough(w)) {
        const int32_t result = import_tracks(w, top);
        if (result != 0) {
            return result;
        }
    }
    msglog(7, "%s:exit, lcount=%d,*count=%d, *ignore_count=%d, recursive_depth=%d", WALK,
           top->count, *w->count, *w->ignore_count, top->depth);
    folder_free(top);
    --w->path_count;
    return 0;
}

extern "C" {

int32_t player_browse_recursive(player* player, const char* mn_id, int32_t index, int32_t* count,
                                int32_t stop_count, int32_t* ignore_count,
                                int32_t recursive_depth) noexcept {
    trksession* session = trksession_of_builder(player);
    walk w = {};
    w.player = player;
    w.session = *session->ms_session;
    w.cancelled = &session->cancelled;
    w.count = count;
    w.stop_count = stop_count;
    w.ignore_count = ignore_count;
    hold_ids(&w, session);
    int32_t result = enter(&w, mn_id, index, recursive_depth);
    while (result == 0 && w.path_count > 0) {
        result = step(&w);
    }
    if (result != 0 && w.path_count > 1) {
        *count = 0; /* a folder below failed */
    }
    walk_free(&w);
    return result;
}
}
