#include "plugin_opening.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <veloran/lock.h>
#include <veloran/paths.h>

#include "msglog.h"
#include "player.h"
#include "plugin_watch.h"

namespace {

constexpr uint64_t MAGIC =
    0x31474e494e45504f; /* "OPENING1", on the disk of a little-endian machine */
constexpr size_t NOTES = 256;
constexpr size_t SUSPECTS = 128;
constexpr int64_t NOT_NOW = INT64_MIN;

/* One session that has a node. Written under the lock of its player, read by a signal handler. */
struct note {
    std::atomic<const mediasource_session*> session; /* null: free */
    std::atomic<const char*> player;                 /* the text of its name */
    std::atomic<uint64_t> key;
    std::atomic<int64_t> since; /* seconds of the monotonic clock, or NOT_NOW */
};

/* What is in the file, and beyond its length. */
struct record {
    uint64_t magic;
    uint64_t keys[SUSPECTS];
};

note notes[NOTES];
std::atomic<uint64_t> suspects[SUSPECTS]; /* 0: none */
std::atomic<int> file = -1;
pid_t owner; /* the process that may write it; a child of a library has the descriptor, too */

int64_t seconds_now() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

/* FNV-1a, of a text with its NUL. Never 0. */
uint64_t hash(uint64_t value, const char* text) {
    do {
        value = (value ^ static_cast<unsigned char>(*text)) * 0x100000001b3;
    } while (*text++ != '\0');
    return value != 0 ? value : 1;
}

uint64_t key_of(const mediasource_session* session, const medianode* node) {
    return hash(hash(0xcbf29ce484222325, session->player->name),
                node->id != nullptr ? node->id : "");
}

note* find(const mediasource_session* session) {
    for (note& each : notes) {
        if (each.session == session) {
            return &each;
        }
    }
    return nullptr;
}

/* Null when there are too many. */
note* claim(const mediasource_session* session) {
    note* found = find(session);
    for (size_t i = 0; found == nullptr && i < NOTES; ++i) {
        const mediasource_session* nobody = nullptr;
        if (notes[i].session.compare_exchange_strong(nobody, session)) {
            found = &notes[i];
        }
    }
    return found;
}

std::atomic<uint64_t>* find_suspect(uint64_t key) {
    for (auto& each : suspects) {
        if (each == key) {
            return &each;
        }
    }
    return nullptr;
}

/* Opens it where nobody else can have put it. -1 with errno. */
int open_file(const char* path) {
    const char* last = nullptr;
    const vel_fd folder(paths_open_parent(path, &last));
    if (folder.value < 0) {
        return -1;
    }
    const int fd =
        openat(folder.value, last, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
               S_IRUSR | S_IWUSR);
    struct stat status = {};
    if (fd >= 0 && (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1 ||
                    status.st_uid != paths_user() || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0)) {
        close(fd);
        errno = EPERM;
        return -1;
    }
    return fd;
}

void read_suspects(int fd) {
    record saved = {};
    const ssize_t length = pread(fd, &saved, sizeof saved, 0);
    if (length < static_cast<ssize_t>(sizeof saved.magic) || saved.magic != MAGIC) {
        return;
    }
    for (size_t i = 0; i < SUSPECTS; ++i) {
        suspects[i] = saved.keys[i];
    }
}

void close_file() {
    const int fd = file.exchange(-1);
    if (fd >= 0) {
        close(fd);
    }
}

/* A library that calls exit(); the service itself ends without handlers. */
void exited() {
    if (getpid() == owner) {
        plugin_opening_crashed();
    }
}

} // namespace

void plugin_opening_load(const char* database) noexcept {
    close_file();
    owner = getpid();
    static const int registered = atexit(exited);
    (void)registered;
    char name[PATH_MAX];
    char path[PATH_MAX];
    errno = ENAMETOOLONG;
    if (snprintf(name, sizeof name, "%s.opening", database) < static_cast<int>(sizeof name) &&
        paths_resolve(name, path, sizeof path) >= 0) {
        file = open_file(path);
    }
    if (file < 0) {
        msglog(3, "%s.opening: %s; a track that crashes the service will be opened again", database,
               msglog_error_text(errno));
        return;
    }
    read_suspects(file);
}

void plugin_opening_saved(void) noexcept {
    if (file >= 0 && ftruncate(file, 0) != 0) {
        msglog(3, "Tracks that crashed the service are still passed over at the next start: %s",
               msglog_error_text(errno));
    }
    close_file();
    for (auto& each : suspects) {
        each = 0;
    }
}

void plugin_opening_begin(const mediasource_session* session, const medianode* node) noexcept {
    note* at = node != nullptr ? claim(session) : find(session);
    if (at == nullptr) {
        return;
    }
    if (node != nullptr) {
        at->since = NOT_NOW; /* of another key */
        at->player = session->player->name;
        at->key = key_of(session, node);
    }
    if (at->since == NOT_NOW) {
        at->since = seconds_now();
    }
}

void plugin_opening_rest(const mediasource_session* session) noexcept {
    note* at = find(session);
    if (at != nullptr) {
        at->since = NOT_NOW;
    }
}

void plugin_opening_heard(const mediasource_session* session) noexcept {
    const note* at = find(session);
    if (at != nullptr && at->since != NOT_NOW) {
        plugin_opening_over(session);
    }
}

void plugin_opening_over(const mediasource_session* session) noexcept {
    plugin_opening_rest(session);
    note* at = find(session);
    if (at != nullptr) {
        at->session = nullptr;
    }
}

bool plugin_opening_suspects(const mediasource_session* session, const medianode* node) noexcept {
    if (find_suspect(key_of(session, node)) == nullptr) {
        return false;
    }
    msglog(3,
           "Player %s: %s is passed over, the service crashed while it was opened; jump to it to "
           "try it again",
           session->player->name, node->id);
    return true;
}

void plugin_opening_trust(const mediasource_session* session, const medianode* node) noexcept {
    std::atomic<uint64_t>* found = find_suspect(key_of(session, node));
    if (found != nullptr) {
        *found = 0;
    }
}

/* The newest come first: what does not fit is the oldest. */
void plugin_opening_crashed(void) noexcept {
    static record saved;
    size_t count = 0;
    plugin_watch_call call = {};
    const bool is_known = plugin_watch_here(&call) && call.player != nullptr;
    const int64_t oldest = seconds_now() - PLUGIN_OPENING_SECONDS;
    for (const note& each : notes) {
        if (count < SUSPECTS && each.session != nullptr && each.since >= oldest &&
            (!is_known || each.player == call.player)) {
            saved.keys[count++] = each.key;
        }
    }
    if (count == 0 || file < 0) {
        return;
    }
    for (size_t i = 0; i < SUSPECTS && count < SUSPECTS; ++i) {
        if (suspects[i] != 0) {
            saved.keys[count++] = suspects[i];
        }
    }
    saved.magic = MAGIC;
    const size_t length = offsetof(record, keys) + count * sizeof saved.keys[0];
    if (pwrite(file, &saved, length, 0) < 0 || ftruncate(file, static_cast<off_t>(length)) != 0) {
        /* There is nobody left to tell. */
    }
}
