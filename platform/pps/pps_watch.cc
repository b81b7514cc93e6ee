/* A read goes: hand out the text at hand; else look at the next queued object and make its text;
 * else take the news from inotify, which fills the queue; else wait. An object that is queued more
 * often than it changed gives no second text, because its version is known. */
#include "pps_watch.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <veloran/lock.h>

static bool wants(const pps_watch* watch, uint32_t option) {
    return (watch->options & option) != 0;
}

/* The reader has been told that an object went, or never knew it: forget it. */
static bool tell_gone(pps_watch* watch, const std::string& label, bool was_known) {
    watch->objects.erase(label);
    if (was_known) {
        watch->text = "-@" + label + "\n";
    }
    return was_known;
}

/* What of an object cannot be read now may be read later, and is then queued again. */
static bool is_passing(int32_t error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == EINTR;
}

/* The attributes in a file's text; what is too much is left out. Null without memory. */
static pps_attributes parse_text(const std::string& text) {
    pps_attributes attributes(strm_dict_new());
    if (attributes != nullptr &&
        pps_content_merge(attributes.get(), text.data(), text.size(), pps_strictness::file) != 0 &&
        errno != EFBIG) {
        attributes.reset();
    }
    return attributes;
}

/* Makes the text that tells of an object's new version, which is loaded. */
static int32_t tell_version(pps_watch* watch, const std::string& label,
                            const watched_object& object) {
    const pps_attributes after = parse_text(watch->loaded);
    if (after == nullptr) {
        return -1;
    }
    if (!object.is_known || !wants(watch, PPS_OPTION_DELTA)) {
        pps_content_format(&watch->text, label, after.get());
        return 0;
    }
    const pps_attributes before = parse_text(object.text);
    if (before == nullptr) {
        return -1;
    }
    pps_content_format_change(&watch->text, label, before.get(), after.get());
    return 0;
}

/* Makes the text of one queued object: 1 with a text, 0 when there is nothing to tell, -1. */
static int32_t look_at(pps_watch* watch, const std::string& label) {
    watched_object& object = watch->objects.at(label);
    const auto directory = watch->directories.find(object.directory);
    pps_identity identity;
    if (directory == watch->directories.end()) {
        return tell_gone(watch, label, object.is_known) ? 1 : 0;
    }
    if (pps_content_load(directory->second.fd, object.name.c_str(), &watch->loaded, &identity) !=
        0) {
        if (is_passing(errno)) {
            return -1;
        }
        return tell_gone(watch, label, object.is_known) ? 1 : 0;
    }
    /* The text counts, too: a file system may use an inode's number again at once. */
    if (object.is_known && pps_identity_equal(identity, object.identity) &&
        watch->loaded == object.text) {
        return 0;
    }
    if (tell_version(watch, label, object) != 0) {
        return -1;
    }
    object.text = watch->loaded;
    object.identity = identity;
    object.is_known = true;
    return 1;
}

/* Looks at queued objects until one gives a text: 1, 0 when the queue is empty, -1. */
static int32_t next_text(pps_watch* watch) {
    watch->text.clear();
    watch->handed = 0;
    while (!watch->queue.empty()) {
        const std::string label = watch->queue.front();
        const int32_t result = look_at(watch, label);
        if (result < 0) {
            return -1;
        }
        watch->queue.pop_front();
        const auto object = watch->objects.find(label);
        if (object != watch->objects.end()) {
            object->second.is_queued = false;
        }
        if (result > 0) {
            return 1;
        }
    }
    return 0;
}

static size_t hand_out(pps_watch* watch, char* buffer, size_t size) {
    const size_t count = std::min(size, watch->text.size() - watch->handed);
    std::memcpy(buffer, watch->text.data() + watch->handed, count);
    watch->handed += count;
    return count;
}

/* Waits for inotify or the stop descriptor, which goes first. */
static int32_t wait_for_news(const pps_watch* watch, int32_t stop_fd) {
    pollfd waiting[2] = {{watch->notify, POLLIN, 0}, {stop_fd, POLLIN, 0}};
    while (poll(waiting, stop_fd < 0 ? 1 : 2, -1) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    if (stop_fd >= 0 && waiting[1].revents != 0) {
        errno = ECANCELED;
        return -1;
    }
    return 0;
}

/* The queue is empty: brings it news. 1 when the queue is worth another look, 0 when the read has
 * nothing to give, -1. */
static int32_t get_news(pps_watch* watch, int32_t stop_fd) {
    if (watch->is_root_gone) {
        errno = ENOENT;
        return -1;
    }
    if (watch->notify < 0) {
        watch->is_idle = !watch->is_idle;
        return watch->is_idle ? 0 : (pps_watch_rescan(watch) == 0 ? 1 : -1);
    }
    const int32_t taken = pps_watch_take_events(watch);
    if (taken != 0 || !wants(watch, PPS_OPTION_WAIT)) {
        return taken;
    }
    return wait_for_news(watch, stop_fd) == 0 ? 1 : -1;
}

ssize_t pps_watch_read(pps_watch* watch, char* buffer, size_t size, int32_t stop_fd) {
    while (watch->handed == watch->text.size()) {
        int32_t result = next_text(watch);
        if (result == 0) {
            result = get_news(watch, stop_fd);
        }
        if (result <= 0) {
            return result;
        }
    }
    return static_cast<ssize_t>(hand_out(watch, buffer, size));
}

/* Whether the one object is there: a reader of something that does not exist is told at once. */
static int32_t require_object(pps_watch* watch, int32_t fd) {
    pps_identity identity;
    if (watch->only.empty()) {
        return 0;
    }
    const int32_t result = pps_content_load(fd, watch->only.c_str(), &watch->loaded, &identity);
    if (result != 0 && errno == EINVAL) {
        struct stat status;
        const bool is_directory =
            fstatat(fd, watch->only.c_str(), &status, 0) == 0 && S_ISDIR(status.st_mode);
        errno = is_directory ? EISDIR : EINVAL;
    }
    return result;
}

int32_t pps_watch_init(pps_watch* watch, const pps_target* target) {
    watch->options = target->options;
    watch->only = std::strcmp(target->name, PPS_TARGET_ALL) == 0 ? "" : target->name;
    vel_fd directory(pps_target_open_to_read(target->directory));
    if (directory.value < 0 || require_object(watch, directory.value) != 0) {
        return -1;
    }
    if (wants(watch, PPS_OPTION_WAIT) || wants(watch, PPS_OPTION_DELTA)) {
        watch->notify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (watch->notify < 0) {
            return -1;
        }
    }
    return pps_watch_add(watch, directory.release(), "", 0);
}

void pps_watch_deinit(pps_watch* watch) noexcept {
    for (const auto& [key, directory] : watch->directories) {
        close(directory.fd);
    }
    watch->directories.clear();
    if (watch->notify >= 0) {
        close(watch->notify);
    }
    watch->notify = -1;
}
