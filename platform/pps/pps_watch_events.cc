/* The watch's directories and inotify. A directory is watched before it is listed, so nothing that
 * is made meanwhile is missed; what is seen twice does no harm. */
#include "pps_watch.h"

#include <cerrno>
#include <charconv>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <veloran/lock.h>

namespace {

/* Objects appear by a rename, or are closed after a stranger wrote into them. */
constexpr uint32_t NEWS = IN_MOVED_TO | IN_MOVED_FROM | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE |
                          IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;
constexpr size_t EVENTS_SIZE = 4096; /* bytes of one read of events */

} // namespace

void pps_watch_queue(pps_watch* watch, int32_t directory, const std::string& name) {
    const watched_directory& place = watch->directories.at(directory);
    const bool is_asked_for =
        watch->only.empty() || (directory == watch->root && name == watch->only);
    if (!is_asked_for || name.empty() || name[0] == '.') {
        return;
    }
    const std::string label = place.prefix + name;
    watched_object& object = watch->objects[label];
    object.directory = directory;
    object.name = name;
    if (!object.is_queued) {
        watch->queue.push_back(label);
        object.is_queued = true;
    }
}

/* Adds a directory inside another one, if the watch goes down so far. One that has gone again, or
 * is a link, or may not be read, is passed over. */
static int32_t add_below(pps_watch* watch, int32_t directory, const std::string& name) {
    const watched_directory& above = watch->directories.at(directory);
    if ((watch->options & PPS_OPTION_DEEP) == 0 || !watch->only.empty() || name[0] == '.' ||
        above.depth == PPS_DEPTH_MAX) {
        return 0;
    }
    const int32_t fd =
        openat(above.fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return errno == EMFILE || errno == ENFILE || errno == ENOMEM ? -1 : 0;
    }
    return pps_watch_add(watch, fd, above.prefix + name + "/", above.depth + 1);
}

static bool is_directory(int32_t place, const dirent* entry) {
    struct stat status;
    if (entry->d_type != DT_UNKNOWN) {
        return entry->d_type == DT_DIR;
    }
    return fstatat(place, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(status.st_mode);
}

/* Queues what a directory holds. */
static int32_t list_directory(pps_watch* watch, int32_t key) {
    const int32_t place = watch->directories.at(key).fd;
    const int32_t fd = openat(place, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(fd < 0 ? nullptr : fdopendir(fd), closedir);
    if (listing == nullptr) {
        const vel_fd unused(fd);
        return errno == ENOENT ? 0 : -1; /* removed meanwhile */
    }
    while (const dirent* entry = readdir(listing.get())) {
        if (!is_directory(fd, entry)) {
            pps_watch_queue(watch, key, entry->d_name);
        } else if (add_below(watch, key, entry->d_name) != 0) {
            return -1;
        }
    }
    return 0;
}

/* The number by which a directory is known: inotify's, through the descriptor, so that it is this
 * very directory; or just a number. */
static int32_t watch_number(const pps_watch* watch, int32_t fd) {
    if (watch->notify < 0) {
        return watch->directories.empty() ? 1 : watch->directories.rbegin()->first + 1;
    }
    char path[48] = "/proc/self/fd/";
    *std::to_chars(path + 14, path + sizeof(path) - 1, fd).ptr = '\0';
    return inotify_add_watch(watch->notify, path, NEWS);
}

int32_t pps_watch_add(pps_watch* watch, int32_t fd, const std::string& prefix, int32_t depth) {
    vel_fd opened(fd);
    const int32_t key = watch_number(watch, fd);
    if (key < 0) {
        return -1;
    }
    watched_directory& directory = watch->directories[key];
    if (directory.fd >= 0) {
        close(directory.fd); /* the same one again, perhaps under another name */
    }
    directory.fd = opened.release();
    directory.prefix = prefix;
    directory.depth = depth;
    if (depth == 0) {
        watch->root = key;
    }
    if (!watch->only.empty()) {
        pps_watch_queue(watch, key, watch->only);
        return 0;
    }
    return list_directory(watch, key);
}

/* Queues an object that the reader knows, under its label, whatever became of its directory. */
static void queue_known(pps_watch* watch, const std::string& label, watched_object* object) {
    if (!object->is_queued) {
        watch->queue.push_back(label);
        object->is_queued = true;
    }
}

void pps_watch_drop(pps_watch* watch, const std::string& prefix) {
    for (auto at = watch->directories.begin(); at != watch->directories.end();) {
        if (at->first != watch->root && at->second.prefix.starts_with(prefix)) {
            if (watch->notify >= 0) {
                inotify_rm_watch(watch->notify, at->first);
            }
            close(at->second.fd);
            at = watch->directories.erase(at);
        } else {
            ++at;
        }
    }
    for (auto& [label, object] : watch->objects) {
        if (label.starts_with(prefix)) {
            queue_known(watch, label, &object);
        }
    }
}

int32_t pps_watch_rescan(pps_watch* watch) {
    pps_watch_drop(watch, "");
    if (!watch->only.empty()) {
        pps_watch_queue(watch, watch->root, watch->only);
        return 0;
    }
    return list_directory(watch, watch->root);
}

/* The directory that was asked for has gone: the reader learns of its objects' end, then no more.
 */
static void lose_root(pps_watch* watch) {
    pps_watch_drop(watch, "");
    const auto root = watch->directories.find(watch->root);
    if (root != watch->directories.end()) {
        close(root->second.fd);
        watch->directories.erase(root);
    }
    watch->is_root_gone = true;
}

static int32_t take_event(pps_watch* watch, const inotify_event* event) {
    if ((event->mask & IN_Q_OVERFLOW) != 0) {
        return pps_watch_rescan(watch);
    }
    const auto directory = watch->directories.find(event->wd);
    if (directory == watch->directories.end()) {
        return 0; /* the last words of one that was dropped */
    }
    if ((event->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT)) != 0) {
        if (event->wd == watch->root) {
            lose_root(watch);
        } else {
            pps_watch_drop(watch, std::string(directory->second.prefix));
        }
        return 0;
    }
    const std::string name = event->len == 0 ? "" : event->name;
    if (name.empty()) {
        return 0;
    }
    if ((event->mask & IN_ISDIR) == 0) {
        if ((event->mask & IN_CREATE) == 0) { /* what is made here is told when it is whole */
            pps_watch_queue(watch, event->wd, name);
        }
        return 0;
    }
    if ((event->mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
        return add_below(watch, event->wd, name);
    }
    if ((event->mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
        pps_watch_drop(watch, directory->second.prefix + name + "/");
    }
    return 0;
}

int32_t pps_watch_take_events(pps_watch* watch) {
    alignas(inotify_event) char events[EVENTS_SIZE];
    const ssize_t length = read(watch->notify, events, sizeof(events));
    if (length < 0) {
        return errno == EAGAIN || errno == EINTR ? 0 : -1;
    }
    int32_t result = length > 0 ? 1 : 0;
    for (ssize_t at = 0; at < length;) {
        const auto* event = reinterpret_cast<const inotify_event*>(events + at);
        if (take_event(watch, event) != 0) {
            result = -1;
        }
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
    return result;
}
