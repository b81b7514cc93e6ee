/* The drives of the mount table. */
#include "files_mounts.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <iterator>
#include <memory>

#include <libmount.h>
#include <sys/sysmacros.h>

struct drop_table {
    void operator()(libmnt_table* table) const noexcept { mnt_unref_table(table); }
};
struct drop_iterator {
    void operator()(libmnt_iter* iterator) const noexcept { mnt_free_iter(iterator); }
};

static std::string text(const char* value) {
    return value != nullptr ? value : "";
}

/* True for a mount that is planned, but not made without being asked for. */
static bool is_on_demand(libmnt_fs* entry) {
    const char* options = mnt_fs_get_options(entry);
    return options != nullptr && mnt_optstr_get_option(options, "noauto", nullptr, nullptr) == 0;
}

/* All mounts of a table or a plan; false when it cannot be read. */
static bool read_all(const char* path, std::vector<files_mount>* mounts) {
    const std::unique_ptr<libmnt_table, drop_table> table(mnt_new_table());
    const std::unique_ptr<libmnt_iter, drop_iterator> at(mnt_new_iter(MNT_ITER_FORWARD));
    if (table == nullptr || at == nullptr || mnt_table_parse_file(table.get(), path) != 0) {
        return false;
    }
    libmnt_fs* entry = nullptr;
    while (mnt_table_next_fs(table.get(), at.get(), &entry) == 0) {
        if (is_on_demand(entry)) {
            continue;
        }
        mounts->push_back({text(mnt_fs_get_target(entry)), text(mnt_fs_get_srcpath(entry)),
                           text(mnt_fs_get_fstype(entry)), mnt_fs_get_devno(entry),
                           static_cast<uint64_t>(mnt_fs_get_id(entry)),
                           text(mnt_fs_get_root(entry)) == "/"});
    }
    return true;
}

/* A file system on a block device has the number of the device. Some have a number of their own
 * and are known by their names: the kernel gives them nothing else than a block device. */
static bool is_on_block_device(const files_mount& mount) {
    return major(mount.file_system) != 0 || mount.type == "btrfs" || mount.type == "bcachefs" ||
           mount.type == "fuseblk" || mount.type.rfind("fuseblk.", 0) == 0;
}

/* The table has paths without symbolic links; a path of ours may have some, or lead nowhere. */
static std::string resolved(const std::string& path) {
    char real[PATH_MAX];
    return realpath(path.c_str(), real) != nullptr ? real : path;
}

static bool is_at_or_below(const std::string& path, const std::string& place) {
    return place == "/" || path == place ||
           (path.size() > place.size() && path[place.size()] == '/' &&
            path.compare(0, place.size(), place) == 0);
}

/* True when a mount is nothing but another view of what is mounted elsewhere: of the system's own
 * file system, or of a folder of one that is mounted as a whole. */
static bool is_a_view(const files_mount& mount, const std::vector<files_mount>& all) {
    return std::any_of(all.begin(), all.end(), [&mount](const files_mount& other) {
        return other.file_system == mount.file_system &&
               (other.root == "/" || (other.whole && !mount.whole));
    });
}

bool files_mounts_read(const char* table, const std::vector<std::string>& places,
                       std::vector<files_mount>* drives) {
    std::vector<files_mount> all;
    if (!read_all(table, &all)) {
        return false;
    }
    std::vector<std::string> real;
    std::transform(places.begin(), places.end(), std::back_inserter(real), resolved);
    std::copy_if(all.begin(), all.end(), std::back_inserter(*drives), [&](const auto& mount) {
        return is_on_block_device(mount) && !is_a_view(mount, all) &&
               std::any_of(real.begin(), real.end(), [&mount](const std::string& place) {
                   return is_at_or_below(mount.root, place);
               });
    });
    std::stable_partition(drives->begin(), drives->end(),
                          [](const files_mount& mount) { return mount.whole; });
    return true;
}

bool files_mounts_awaited(const char* plan, const char* table, const std::string& folder) {
    std::vector<files_mount> planned;
    std::vector<files_mount> mounted;
    if (!read_all(plan, &planned) || !read_all(table, &mounted)) {
        return false;
    }
    const std::string real = resolved(folder);
    return std::any_of(planned.begin(), planned.end(), [&](const files_mount& entry) {
        const std::string place = entry.root.rfind('/', 0) == 0 ? resolved(entry.root) : "/";
        return place != "/" &&
               (is_at_or_below(folder, entry.root) || is_at_or_below(real, place)) &&
               std::none_of(mounted.begin(), mounted.end(),
                            [&place](const files_mount& mount) { return mount.root == place; });
    });
}
