/* What a folder has for the index. */
#include "files_scan_folder.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "files_node.h"
#include "files_order.h"
#include "files_playlist.h"

struct close_folder {
    void operator()(DIR* folder) const noexcept { closedir(folder); }
};
using folder_stream = std::unique_ptr<DIR, close_folder>;

/* Facts about what an entry is, or leads to within the source. */
static bool facts_of(const files_source& source, const std::string& id, int folder,
                     const char* name, struct stat* facts) {
    if (fstatat(folder, name, facts, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    if (!S_ISLNK(facts->st_mode)) {
        return true;
    }
    const vel_fd target(files_node_open(source, files_index_id(id, name).c_str(), O_PATH));
    return target.value >= 0 && fstat(target.value, facts) == 0 && S_ISREG(facts->st_mode);
}

static void add_entry(const files_source& source, const std::string& id, int folder,
                      const dirent& entry, files_scan_found* found) {
    const char* name = entry.d_name;
    const int32_t type = files_node_media_type(name);
    const bool wanted = type != 0 || files_playlist_is(name);
    if (name[0] == '.' || (!wanted && entry.d_type != DT_DIR && entry.d_type != DT_UNKNOWN)) {
        return;
    }
    if (entry.d_type == DT_DIR) {
        found->folders.push_back(files_index_id(id, name));
        return;
    }
    struct stat facts = {};
    if (!facts_of(source, id, folder, name, &facts)) {
        return;
    }
    if (S_ISDIR(facts.st_mode)) {
        found->folders.push_back(files_index_id(id, name));
    } else if (S_ISREG(facts.st_mode) && wanted) {
        const int64_t changed = files_index_time(facts.st_mtim.tv_sec, facts.st_mtim.tv_nsec);
        found->files.push_back({name, {0, type, facts.st_size, changed}});
    }
}

static files_scan_state state_by_error() noexcept {
    const bool gone = errno == ENOENT || errno == ENOTDIR || errno == EACCES || errno == ELOOP ||
                      errno == EXDEV || errno == EINVAL;
    return gone ? files_scan_state::gone : files_scan_state::unclear;
}

/* Watched before it is read, so that no change is missed. */
files_scan_state files_scan_folder(const files_source_ref& of, const std::string& id,
                                   const files_cancel& cancel, files_scan_watch* watch,
                                   files_scan_found* found) {
    const files_source& source = *of;
    vel_fd fd(files_node_open(source, id.c_str(), O_RDONLY | O_DIRECTORY));
    struct stat facts = {};
    if (fd.value < 0 || fstat(fd.value, &facts) != 0) {
        return state_by_error();
    }
    files_scan_watch_add(watch, of, id, fd.value);
    const folder_stream stream(fdopendir(fd.value));
    if (stream == nullptr) {
        return files_scan_state::unclear;
    }
    fd.release();
    found->changed = files_index_time(facts.st_mtim.tv_sec, facts.st_mtim.tv_nsec);
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(stream.get()); // NOLINT(concurrency-mt-unsafe): own stream
        if (entry == nullptr || files_cancelled(cancel)) {
            break;
        }
        add_entry(source, id, dirfd(stream.get()), *entry, found);
        if (found->files.size() + found->folders.size() > FILES_ENTRIES_MOST) {
            *found = {};
            return files_scan_state::gone; /* it is not listed, either */
        }
    }
    if (errno != 0 || files_cancelled(cancel)) {
        return files_scan_state::unclear;
    }
    std::sort(found->files.begin(), found->files.end(), [](const auto& left, const auto& right) {
        return files_order_before(left.first.c_str(), right.first.c_str());
    });
    std::sort(found->folders.begin(), found->folders.end(),
              [](const std::string& left, const std::string& right) {
                  return files_order_before(left.c_str(), right.c_str());
              });
    return files_scan_state::read;
}
