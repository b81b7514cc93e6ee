/* Folders that the system tells changes of, through inotify. */
#include "files_scan_watch.h"

#include <array>
#include <cerrno>

#include <sys/inotify.h>
#include <unistd.h>

static constexpr uint32_t CHANGES = IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                                    IN_MOVED_TO | IN_ONLYDIR | IN_EXCL_UNLINK;

void files_scan_watch_open(files_scan_watch* watch) noexcept {
    watch->fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
}

void files_scan_watch_close(files_scan_watch* watch) noexcept {
    if (watch->fd >= 0) {
        close(watch->fd);
    }
    watch->fd = -1;
    watch->folders.clear();
}

void files_scan_watch_add(files_scan_watch* watch, const files_source_ref& source,
                          const std::string& id, int folder) {
    if (watch->fd < 0 || watch->folders.size() >= FILES_SCAN_WATCHES) {
        return;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(folder);
    const int number = inotify_add_watch(watch->fd, path.c_str(), CHANGES);
    if (number >= 0) {
        watch->folders.insert_or_assign(number, files_scan_watched{source, id});
    }
}

void files_scan_watch_purge(files_scan_watch* watch) noexcept {
    std::erase_if(watch->folders, [watch](const auto& entry) {
        if (!entry.second.source->gone) {
            return false;
        }
        inotify_rm_watch(watch->fd, entry.first);
        return true;
    });
}

std::vector<files_scan_watched> files_scan_watch_read(files_scan_watch* watch, bool* lost) {
    std::vector<files_scan_watched> changed;
    alignas(inotify_event) std::array<char, 16384> events;
    for (;;) {
        const ssize_t length = read(watch->fd, events.data(), events.size());
        if (length <= 0) {
            return changed;
        }
        for (ssize_t at = 0; at < length;) {
            const char* place = events.data() + at;
            const auto* event = static_cast<const inotify_event*>(static_cast<const void*>(place));
            at += static_cast<ssize_t>(sizeof *event + event->len);
            const auto found = watch->folders.find(event->wd);
            if ((event->mask & IN_Q_OVERFLOW) != 0) {
                *lost = true;
            } else if ((event->mask & IN_IGNORED) != 0 && found != watch->folders.end()) {
                watch->folders.erase(found);
            } else if (found != watch->folders.end()) {
                changed.push_back(found->second);
            }
        }
    }
}
