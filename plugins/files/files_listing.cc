/* The content of one folder. */
#include "files_listing.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <veloran/lock.h>

#include "files_node.h"
#include "files_order.h"

/* Times of a folder are as coarse as the kernel's tick: a folder that was read so shortly after
 * its last change may have changed again without a trace. */
static constexpr time_t SETTLED_SECONDS = 2;

/* Closes a stream of a folder. */
struct close_folder {
    void operator()(DIR* folder) const noexcept { closedir(folder); }
};
using folder_stream = std::unique_ptr<DIR, close_folder>;

static folder_stream open_folder(const files_source& source, const char* id) noexcept {
    vel_fd fd(files_node_open(source, id, O_RDONLY | O_DIRECTORY));
    if (fd.value < 0) {
        return nullptr;
    }
    folder_stream stream(fdopendir(fd.value));
    if (stream != nullptr) {
        fd.release();
    }
    return stream;
}

/* A link counts as the file that it leads to; one to a folder is left out: what is within the
 * source is listed where it stands, and no chain of folders comes back to itself. */
static int32_t linked_type(const files_source& source, const char* id, const char* name) {
    std::string path = id;
    if (path.back() != '/') {
        path += '/';
    }
    path += name;
    const int32_t type = files_node_type(source, path.c_str());
    return type == LYR_NODE_FOLDER ? 0 : type;
}

/* The type for a file system that does not tell it with the name. */
static unsigned char told_by_status(int folder, const char* name) noexcept {
    struct stat facts = {};
    if (fstatat(folder, name, &facts, AT_SYMLINK_NOFOLLOW) != 0) {
        return DT_UNKNOWN;
    }
    return static_cast<unsigned char>(IFTODT(facts.st_mode));
}

/* LYR_NODE_* of an entry, 0 when it is not listed. No system call for most. */
static int32_t entry_type(const files_source& source, const char* id, DIR* folder,
                          const dirent& entry) {
    if (entry.d_name[0] == '.') {
        return 0;
    }
    const unsigned char kind =
        entry.d_type == DT_UNKNOWN ? told_by_status(dirfd(folder), entry.d_name) : entry.d_type;
    switch (kind) {
    case DT_DIR:
        return LYR_NODE_FOLDER;
    case DT_REG:
        return files_node_media_type(entry.d_name);
    case DT_LNK:
        return files_node_media_type(entry.d_name) != 0 ? linked_type(source, id, entry.d_name) : 0;
    default:
        return 0;
    }
}

/* The next entry, or null at the end (errno 0) or after an error. */
static const dirent* next_entry(DIR* folder) noexcept {
    errno = 0;
    return readdir(folder); // NOLINT(concurrency-mt-unsafe): the stream is this thread's alone
}

static bool read_entries(const files_source& source, const char* id, DIR* folder,
                         const files_cancel& cancel, files_listing* listing) {
    while (const dirent* entry = next_entry(folder)) {
        if (files_cancelled(cancel)) {
            errno = ECANCELED;
            return false;
        }
        const int32_t type = entry_type(source, id, folder, *entry);
        if (type == 0) {
            continue;
        }
        if (listing->entries.size() >= FILES_ENTRIES_MOST) {
            errno = E2BIG;
            return false;
        }
        listing->entries.push_back({static_cast<uint32_t>(listing->names.size()), type});
        listing->names.append(entry->d_name, std::strlen(entry->d_name) + 1);
        listing->folders += type == LYR_NODE_FOLDER ? 1 : 0;
    }
    return errno == 0;
}

static void sort_entries(files_listing* listing) {
    const char* names = listing->names.data();
    std::sort(listing->entries.begin(), listing->entries.end(),
              [names](const files_entry& left, const files_entry& right) {
                  const bool left_folder = left.type == LYR_NODE_FOLDER;
                  if (left_folder != (right.type == LYR_NODE_FOLDER)) {
                      return left_folder;
                  }
                  return files_order_before(names + left.name, names + right.name);
              });
}

files_listing_ref files_listing_read(const files_source& source, const char* id,
                                     const files_cancel& cancel) {
    const folder_stream folder = open_folder(source, id);
    struct stat facts = {};
    if (folder == nullptr || fstat(dirfd(folder.get()), &facts) != 0) {
        return nullptr;
    }
    auto listing = std::make_shared<files_listing>();
    listing->changed = facts.st_mtim;
    clock_gettime(CLOCK_REALTIME, &listing->read);
    if (!read_entries(source, id, folder.get(), cancel, listing.get())) {
        return nullptr;
    }
    sort_entries(listing.get());
    return listing;
}

bool files_listing_fresh(const files_source& source, const char* id, const files_listing& listing) {
    const vel_fd folder(files_node_open(source, id, O_PATH | O_DIRECTORY));
    struct stat facts = {};
    return folder.value >= 0 && fstat(folder.value, &facts) == 0 &&
           facts.st_mtim.tv_sec == listing.changed.tv_sec &&
           facts.st_mtim.tv_nsec == listing.changed.tv_nsec &&
           listing.read.tv_sec - listing.changed.tv_sec > SETTLED_SECONDS;
}

int32_t files_listing_count(const files_source& source, const char* id, int32_t most) noexcept {
    const folder_stream folder = open_folder(source, id);
    if (folder == nullptr) {
        return 0;
    }
    int32_t count = 0;
    try {
        while (const dirent* entry = next_entry(folder.get())) {
            count += entry_type(source, id, folder.get(), *entry) != 0 ? 1 : 0;
            if (count > most) {
                return 0;
            }
        }
    } catch (...) {
        return 0;
    }
    return count;
}
