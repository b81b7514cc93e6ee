/* A thread that looks at the media sources whenever something has changed. */
#include "files_sources_watch.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <new>
#include <set>

#include <libmount.h>
#include <linux/netlink.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <veloran/lock.h>

#include "files_log.h"
#include "files_reader.h"
#include "files_source.h"
#include "plugin_thread.h"

static constexpr uint32_t NAME_EVENTS = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                        IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW;
/* Those about the folder itself. */
static constexpr uint32_t FOLDER_EVENTS = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

struct drop_monitor {
    void operator()(libmnt_monitor* monitor) const noexcept { mnt_unref_monitor(monitor); }
};

struct watched_folder {
    std::set<std::string> names;
    std::set<std::string> renewed; /* since files_watch_drop_names */
};

struct files_watch {
    /* Immutable once the thread runs. */
    files_watch_look look = nullptr;
    std::unique_ptr<libmnt_monitor, drop_monitor> mounts;
    vel_fd end;     /* an eventfd */
    vel_fd devices; /* the kernel's news about devices; -1: it gives none */
    std::string name;

    pthread_t thread = {}; /* [main] */
    std::atomic<bool> ending = false;
    vel_fd folders;                        /* [thread] of inotify; made for the first name */
    std::map<int, watched_folder> watched; /* [thread] by inotify's numbers */

    vel_mutex lock = {};
    pthread_cond_t changed = {}; /* with `lock` */
    bool looked VEL_GUARDED_BY(lock) = false;
    bool over VEL_GUARDED_BY(lock) = false;
    bool abandoned VEL_GUARDED_BY(lock) = false; /* the thread frees the record */
};

static void free_watch(files_watch* watch) noexcept {
    pthread_cond_destroy(&watch->changed);
    vel_mutex_destroy(&watch->lock);
    delete watch;
}

/* --- what has changed ----------------------------------------------------------------------- */

/* Takes the news about mounts; true when there were some. */
static bool mounts_changed(const files_watch& watch) {
    bool changed = false;
    while (mnt_monitor_next_change(watch.mounts.get(), nullptr, nullptr) == 0) {
        changed = true;
    }
    return changed;
}

static bool concerns(const files_watch& watch, const inotify_event& event, const char* name) {
    const auto folder = watch.watched.find(event.wd);
    if (folder == watch.watched.end()) {
        return (event.mask & IN_Q_OVERFLOW) != 0;
    }
    return (event.mask & FOLDER_EVENTS) != 0 ||
           (event.len != 0 && folder->second.names.count(name) != 0);
}

/* Takes the news about names; true when one of them is among those that are watched. */
static bool names_changed(const files_watch& watch) {
    alignas(inotify_event) char buffer[16384];
    bool changed = false;
    ssize_t length = 0;
    while ((length = read(watch.folders.value, buffer, sizeof buffer)) > 0) {
        for (ssize_t at = 0; at < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            changed = concerns(watch, *event, buffer + at + sizeof *event) || changed;
            at += static_cast<ssize_t>(sizeof *event + event->len);
        }
    }
    return changed;
}

/* Takes the news about devices; true when a block device was concerned, or when some news were
 * lost. */
static bool devices_changed(const files_watch& watch) {
    static constexpr char BLOCK[] = "SUBSYSTEM=block"; /* with its NUL */
    char buffer[8192];
    bool changed = false;
    for (;;) {
        const ssize_t length = recv(watch.devices.value, buffer, sizeof buffer, 0);
        if (length < 0 && errno == ENOBUFS) {
            changed = true;
        } else if (length < 0) {
            return changed;
        } else {
            changed = changed || memmem(buffer, static_cast<size_t>(length), BLOCK, sizeof BLOCK);
        }
    }
}

/* Sleeps until there is something to look at; false at the end. */
static bool wait(const files_watch& watch) {
    for (;;) {
        pollfd sources[] = {{watch.end.value, POLLIN, 0},
                            {mnt_monitor_get_fd(watch.mounts.get()), POLLIN, 0},
                            {watch.folders.value, POLLIN, 0},
                            {watch.devices.value, POLLIN, 0}};
        const int ready = poll(sources, std::size(sources), -1);
        if (watch.ending || (ready < 0 && errno != EINTR)) {
            return false;
        }
        const bool mounts = sources[1].revents != 0 && mounts_changed(watch);
        const bool names = sources[2].revents != 0 && names_changed(watch);
        const bool devices = sources[3].revents != 0 && devices_changed(watch);
        if (mounts || names || devices) {
            return true;
        }
    }
}

/* --- names ---------------------------------------------------------------------------------- */

bool files_watch_name(files_watch* watch, const std::string& folder, const std::string& name) {
    if (watch->folders.value < 0) {
        watch->folders.value = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    }
    const int number = inotify_add_watch(watch->folders.value, folder.c_str(), NAME_EVENTS);
    if (number < 0) {
        return false;
    }
    watched_folder& entry = watch->watched[number];
    entry.names.insert(name);
    entry.renewed.insert(name);
    return true;
}

void files_watch_drop_names(files_watch* watch) {
    for (auto at = watch->watched.begin(); at != watch->watched.end();) {
        at->second.names.swap(at->second.renewed);
        at->second.renewed.clear();
        if (at->second.names.empty()) {
            inotify_rm_watch(watch->folders.value, at->first);
            at = watch->watched.erase(at);
        } else {
            ++at;
        }
    }
}

/* --- the thread ----------------------------------------------------------------------------- */

static void tell(files_watch* watch) {
    vel_lock_guard hold(watch->lock);
    watch->looked = true;
    pthread_cond_broadcast(&watch->changed);
}

/* The thread touches nothing any more; true when nobody waits for that. */
static bool leave(files_watch* watch) {
    vel_lock_guard hold(watch->lock);
    watch->over = true;
    pthread_cond_broadcast(&watch->changed);
    return watch->abandoned;
}

static void* thread_body(void* argument) {
    auto* watch = static_cast<files_watch*>(argument);
    pthread_setname_np(pthread_self(), watch->name.c_str());
    do {
        watch->look(watch);
        tell(watch);
        /* Not earlier: the start of the service waits for the first look. */
        if (files_source_any()) {
            files_reader_prepare();
        }
    } while (wait(*watch));
    if (leave(watch)) {
        free_watch(watch);
    }
    return nullptr;
}

/* Waits until one of the guarded flags is set; false when the time is up. */
static bool await(files_watch* watch, const bool* flag, int seconds) VEL_REQUIRES(watch->lock) {
    const timespec limit = vel_deadline(int64_t{seconds} * 1000);
    while (!*flag && vel_wait_until(&watch->changed, &watch->lock, limit)) {
    }
    return *flag;
}

/* --- life ----------------------------------------------------------------------------------- */

/* A socket on which the kernel tells of devices; -1 where it does not. */
static int open_devices() {
    vel_fd news(
        socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT));
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = 1; /* the kernel's own, not those of the device manager */
    const bool bound =
        news.value >= 0 &&
        bind(news.value, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    return bound ? news.release() : -1;
}

static bool open_sources(files_watch* watch) {
    watch->end.value = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    watch->devices.value = open_devices();
    watch->mounts.reset(mnt_new_monitor());
    return watch->end.value >= 0 && watch->mounts != nullptr &&
           mnt_monitor_enable_kernel(watch->mounts.get(), 1) == 0 &&
           mnt_monitor_get_fd(watch->mounts.get()) >= 0;
}

static files_watch* make_watch(const char* name, files_watch_look look) noexcept {
    auto* watch = new (std::nothrow) files_watch;
    if (watch == nullptr) {
        return nullptr;
    }
    vel_mutex_init(&watch->lock);
    pthread_cond_init(&watch->changed, nullptr);
    watch->look = look;
    watch->name = name;
    return watch;
}

files_watch* files_watch_start(const char* name, files_watch_look look) noexcept {
    files_watch* watch = make_watch(name, look);
    if (watch == nullptr || !open_sources(watch) ||
        !plugin_thread_start(&watch->thread, thread_body, watch)) {
        files_log(3, "cannot watch for media sources");
        if (watch != nullptr) {
            free_watch(watch);
        }
        return nullptr;
    }
    vel_lock_guard hold(watch->lock);
    if (!await(watch, &watch->looked, FILES_WATCH_FIRST_MOST)) {
        files_log(4, "a drive or folder is slow to answer; it will be reported when it does");
    }
    return watch;
}

/* True when the thread is about to end; else it frees the record one day. */
static bool await_end(files_watch* watch) {
    vel_lock_guard hold(watch->lock);
    watch->abandoned = !await(watch, &watch->over, FILES_WATCH_END_MOST);
    return !watch->abandoned;
}

void files_watch_stop(files_watch* watch) noexcept {
    if (watch == nullptr) {
        return;
    }
    watch->ending = true;
    eventfd_write(watch->end.value, 1);
    const pthread_t thread = watch->thread;
    if (await_end(watch)) {
        pthread_join(thread, nullptr);
        free_watch(watch);
    } else {
        pthread_detach(thread);
        files_log(3, "a drive or folder does not answer; the thread that asks it is left behind");
    }
}

bool files_watch_ending(const files_watch* watch) noexcept {
    return watch->ending;
}
