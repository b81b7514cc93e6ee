/* An update: merge into a copy of the content, write that to a new file on the stage, rename it
 * over the object. The copy becomes the content only when all that went well.
 *
 * Writers of one directory share its descriptor: the places. */
#include "pps_writer.h"

#include <cerrno>
#include <new>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <veloran/lock.h>

#include "pps_stage.h"
#include "pps_tree.h"

/* An opened directory, shared by its writers. */
struct pps_place {
    dev_t device;
    ino_t inode;
    int32_t fd;    /* owned */
    int32_t users; /* guarded by places_lock, like `next` */
    pps_place* next;
};

namespace {

constexpr uint32_t REMADE_MODE = 0777; /* of a directory that somebody took away */
constexpr int32_t TRIES = 4;           /* to get something out of the way of an update */

vel_mutex places_lock;
pps_place* places VEL_GUARDED_BY(places_lock);

} // namespace

/* The place of an opened directory; takes over the descriptor. Null with errno set. */
static pps_place* place_acquire(int32_t fd) {
    vel_fd opened(fd);
    struct stat status;
    if (fd < 0 || fstat(fd, &status) != 0) {
        return nullptr;
    }
    vel_lock_guard guard(places_lock);
    for (pps_place* place = places; place != nullptr; place = place->next) {
        if (place->inode == status.st_ino && place->device == status.st_dev) {
            ++place->users;
            return place;
        }
    }
    auto* place = new (std::nothrow) pps_place{status.st_dev, status.st_ino, fd, 1, places};
    if (place == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    opened.release();
    places = place;
    return place;
}

static void place_release(pps_place* place) {
    if (place == nullptr) {
        return;
    }
    vel_lock_guard guard(places_lock);
    if (--place->users > 0) {
        return;
    }
    pps_place** link = &places;
    while (*link != place) {
        link = &(*link)->next;
    }
    *link = place->next;
    close(place->fd);
    delete place;
}

/* Makes a directory and those above it. */
static int32_t make_directories(const std::string& directory) {
    for (size_t end = 0; end != std::string::npos;) {
        end = directory.find('/', end + 1);
        const std::string path = "/pps/" + directory.substr(0, end);
        if (pps_mkdir(path.c_str(), REMADE_MODE) != 0 && errno != EEXIST) {
            return -1;
        }
    }
    return 0;
}

/* Opens the directory by its path again, after it was found to be gone, and makes it when it is
 * missing, or when somebody else's has taken its place. */
static int32_t reopen_place(pps_writer* writer) {
    const std::string path = "/pps/" + writer->directory;
    if (!writer->directory.empty() && pps_mkdir(path.c_str(), REMADE_MODE) != 0 &&
        errno != EEXIST && (errno != ENOENT || make_directories(writer->directory) != 0)) {
        return -1;
    }
    pps_place* place = place_acquire(pps_target_open_to_write(writer->directory.c_str()));
    if (place == nullptr) {
        return -1;
    }
    place_release(writer->place);
    writer->place = place;
    return 0;
}

/* Closes the file in any case. It must be closed before it gets its name: closing a file that was
 * written is news to whoever watches its directory, and would wake every watcher a second time. */
static int32_t write_and_close(int32_t fd, const std::string& text) {
    const vel_fd file(fd);
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = write(file.value, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR) {
            return -1;
        }
        written += count < 0 ? 0 : static_cast<size_t>(count);
    }
    return 0;
}

/* Renames the staged file over the object, and clears the way where it is blocked. */
static int32_t rename_into_place(pps_writer* writer, const char* staged) {
    for (int32_t i = 0; i < TRIES; ++i) {
        if (renameat(writer->stage, staged, writer->place->fd, writer->name.c_str()) == 0) {
            return 0;
        }
        if (errno == EISDIR) {
            if (pps_stage_take(writer->place->fd, writer->name.c_str()) != 0 && errno != ENOENT) {
                return -1;
            }
        } else if (errno != ENOENT || reopen_place(writer) != 0) {
            return -1;
        }
    }
    return -1;
}

/* Replaces the object by a text. */
static int32_t publish(pps_writer* writer, const std::string& text) {
    if (text.size() > PPS_OBJECT_MAX) {
        errno = EFBIG;
        return -1;
    }
    char staged[PPS_STAGE_NAME];
    const int32_t file = pps_stage_create(writer->stage, staged, writer->mode);
    if (file < 0) {
        return -1;
    }
    if (write_and_close(file, text) == 0 && rename_into_place(writer, staged) == 0) {
        return 0;
    }
    const int32_t error = errno;
    unlinkat(writer->stage, staged, 0);
    errno = error;
    return -1;
}

/* Takes over the content of the object that is there. ENOENT when there is none to be read. */
static int32_t load_present(pps_writer* writer) {
    pps_identity identity;
    if (pps_content_load(writer->place->fd, writer->name.c_str(), &writer->incoming, &identity) !=
        0) {
        errno = errno == EINVAL || errno == EFBIG ? ENOENT : errno;
        return -1;
    }
    return pps_content_merge(writer->content.get(), writer->incoming.data(),
                             writer->incoming.size(), pps_strictness::file);
}

int32_t pps_writer_init(pps_writer* writer, const pps_target* target, int32_t flags,
                        uint32_t mode) {
    writer->directory = target->directory;
    writer->name = target->name;
    writer->mode = mode;
    writer->stage = pps_stage_open();
    writer->content.reset(strm_dict_new());
    if (writer->stage < 0 || writer->content == nullptr) {
        return -1;
    }
    writer->place = place_acquire(pps_target_open_to_write(target->directory));
    if (writer->place == nullptr) {
        return -1;
    }
    if ((flags & O_TRUNC) == 0) {
        if (load_present(writer) == 0) {
            return 0;
        }
        if (errno != ENOENT || (flags & O_CREAT) == 0) {
            return -1;
        }
    }
    return pps_writer_update(writer, nullptr, 0);
}

void pps_writer_deinit(pps_writer* writer) noexcept {
    place_release(writer->place);
    writer->place = nullptr;
}

int32_t pps_writer_update(pps_writer* writer, const struct iovec* pieces, size_t count) {
    writer->incoming.clear();
    for (size_t i = 0; i < count; ++i) {
        writer->incoming.append(static_cast<const char*>(pieces[i].iov_base), pieces[i].iov_len);
    }
    pps_attributes merged(strm_dict_clone(writer->content.get()));
    if (merged == nullptr ||
        pps_content_merge(merged.get(), writer->incoming.data(), writer->incoming.size(),
                          pps_strictness::update) != 0) {
        return -1;
    }
    pps_content_format(&writer->outgoing, writer->name, merged.get());
    if (publish(writer, writer->outgoing) != 0) {
        return -1;
    }
    writer->content = std::move(merged);
    return 0;
}
