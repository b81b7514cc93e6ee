/* Which media sources there are now. */
#include "files_sources.h"

#include <algorithm>
#include <climits>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <veloran/lock.h>

#include "files_log.h"
#include "files_mounts.h"
#include "files_mounts_identity.h"
#include "files_scan.h"
#include "files_source.h"
#include "files_sources_watch.h"

/* Symbolic links on the way to a folder. */
static constexpr int LINKS_MOST = 40;

static const lyrane_internal_callbacks_table* calls; /* immutable while a watch runs */
static files_watch* folders_watch;                   /* [main] */
static files_watch* drives_watch;                    /* [main] */

/* Opens a folder for nothing but asking about it. */
static int open_folder(const std::string& path) {
    return open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
}

/* --- folders -------------------------------------------------------------------------------- */

/* The names of a path, the first one last. */
static std::vector<std::string> steps_of(const std::string& path) {
    std::vector<std::string> steps;
    for (size_t end = path.size(); end != 0;) {
        const size_t slash = path.rfind('/', end - 1);
        const size_t begin = slash == std::string::npos ? 0 : slash + 1;
        if (begin != end) {
            steps.push_back(path.substr(begin, end - begin));
        }
        end = slash == std::string::npos ? 0 : slash;
    }
    return steps;
}

static std::string link_target(const std::string& path) {
    char target[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    return {target, length > 0 ? static_cast<size_t>(length) : 0};
}

/* Watches every name that has a part in where a path leads, as far as it leads now. Each name is
 * watched before it is looked at, so none changes unseen. */
static void watch_path(files_watch* watch, const std::string& path) {
    std::vector<std::string> steps = steps_of(path);
    std::string at; /* the folder that was reached, without symbolic links; empty: the root */
    for (int links = 0; !steps.empty() && links <= LINKS_MOST;) {
        const std::string name = std::move(steps.back());
        steps.pop_back();
        if (name == ".") {
            continue;
        }
        if (name == "..") {
            at.erase(std::min(at.rfind('/'), at.size()));
            continue;
        }
        files_watch_name(watch, at.empty() ? "/" : at, name);
        const std::string next = at + '/' + name;
        struct stat facts = {};
        if (lstat(next.c_str(), &facts) != 0) {
            return;
        }
        if (S_ISLNK(facts.st_mode)) {
            const std::string target = link_target(next);
            const std::vector<std::string> more = steps_of(target);
            steps.insert(steps.end(), more.begin(), more.end());
            at = target.rfind('/', 0) == 0 ? "" : at;
            ++links;
        } else {
            at = next;
        }
    }
}

static void connect_folder(const files_plugin& plugin, const std::string& root,
                           const files_place& place) {
    auto source = std::make_shared<files_source>();
    source->plugin_id = plugin.plugin_id;
    source->uid = "folder-" + files_source_hash(root);
    source->root = root;
    source->name = files_source_last_part(root);
    source->place = place;
    source->settings = plugin.settings;
    files_source_connect(calls, source);
}

/* A folder whose mount has changed is another one: what was known of it does not hold. */
static void look_at_folder(const files_watch* watch, const files_plugin& plugin,
                           const std::string& root) {
    const vel_fd folder(open_folder(root));
    files_place place;
    const bool there = folder.value >= 0 && files_place_of(folder.value, &place) &&
                       !files_mounts_awaited(FILES_MOUNTS_PLAN, FILES_MOUNTS_TABLE, root);
    if (files_watch_ending(watch)) {
        return;
    }
    for (const files_source_ref& known : files_source_list(plugin.plugin_id, LYR_MS_TYPE_HDD)) {
        if (known->root != root) {
            continue;
        }
        if (there && files_place_same(known->place, place)) {
            files_source_confirm(calls, known);
            return;
        }
        files_source_disconnect(calls, known);
    }
    if (there && !files_watch_ending(watch)) {
        connect_folder(plugin, root, place);
    }
}

static void look_at_folders(files_watch* watch) noexcept {
    try {
        const std::vector<files_plugin> plugins = files_source_plugins();
        for (const files_plugin& plugin : plugins) {
            for (const std::string& root : plugin.settings->folders) {
                watch_path(watch, root);
            }
        }
        files_watch_drop_names(watch);
        for (const files_plugin& plugin : plugins) {
            for (const std::string& root : plugin.settings->folders) {
                look_at_folder(watch, plugin, root);
            }
        }
    } catch (...) {
        files_log(3, "no memory to look for folders");
    }
}

/* --- drives --------------------------------------------------------------------------------- */

struct seen_drive {
    files_mount mount;
    files_place place;
};

/* False for a mount whose device was pulled out. It stays in the table until somebody unmounts it,
 * and its files may even seem to be there, as far as they were read. */
static bool is_plugged_in(const files_mount& mount) {
    const dev_t number = mount.file_system;
    const std::string devices = "/sys/dev/block/";
    return major(number) == 0 || access(devices.c_str(), F_OK) != 0 ||
           access((devices + std::to_string(major(number)) + ':' + std::to_string(minor(number)))
                      .c_str(),
                  F_OK) == 0;
}

/* True when the path of a mount leads to it, and not to another one that covers it. */
static bool look_into(const files_mount& mount, files_place* place) {
    const vel_fd folder(open_folder(mount.root));
    if (folder.value < 0 || !files_place_of(folder.value, place)) {
        files_log(6, ("cannot be entered: " + mount.root).c_str());
        return false;
    }
    const uint64_t id = files_place_table_id(folder.value);
    return id != 0 ? id == mount.id
                   : major(mount.file_system) == 0 || place->device == mount.file_system;
}

/* The drives that can be reached; false when that is not to be found out. */
static bool see_drives(const files_settings& settings, std::vector<seen_drive>* seen) {
    std::vector<files_mount> drives;
    if (!files_mounts_read(FILES_MOUNTS_TABLE, settings.mounts, &drives)) {
        files_log(3, "the mount table cannot be read");
        return false;
    }
    for (files_mount& mount : drives) {
        files_place place;
        if (is_plugged_in(mount) && look_into(mount, &place)) {
            seen->push_back({std::move(mount), place});
        }
    }
    return true;
}

/* True when a source's drive stands where it stood. Where the kernel uses the numbers of mounts
 * again, another drive may have taken all that is its own but its identity. */
static bool is_where_it_was(const files_source& source, const std::vector<seen_drive>& seen) {
    return std::any_of(seen.begin(), seen.end(), [&source](const seen_drive& drive) {
        return drive.mount.root == source.root && files_place_same(drive.place, source.place) &&
               (source.place.unique || files_mounts_identify(drive.mount).uid == source.drive);
    });
}

/* A drive that is the copy of another one has the same uid; the later one gets a number. */
static std::string free_uid(const std::string& drive, const std::vector<files_source_ref>& known) {
    const auto taken = [&known](const std::string& uid) {
        return std::any_of(known.begin(), known.end(),
                           [&uid](const files_source_ref& source) { return source->uid == uid; });
    };
    std::string uid = drive;
    for (int number = 2; taken(uid); ++number) {
        uid = drive + '-' + std::to_string(number);
    }
    return uid;
}

static void connect_drive(const files_watch* watch, const files_plugin& plugin,
                          const seen_drive& drive) {
    const auto known = files_source_list(plugin.plugin_id, LYR_MS_TYPE_USB);
    const bool here =
        std::any_of(known.begin(), known.end(), [&drive](const files_source_ref& source) {
            return source->file_system == drive.mount.file_system;
        });
    if (here) {
        return;
    }
    const files_identity identity = files_mounts_identify(drive.mount);
    auto source = std::make_shared<files_source>();
    source->plugin_id = plugin.plugin_id;
    source->type = LYR_MS_TYPE_USB;
    source->drive = identity.uid;
    source->uid = free_uid(identity.uid, known);
    source->root = drive.mount.root;
    source->name = identity.name;
    source->place = drive.place;
    source->file_system = drive.mount.file_system;
    source->settings = plugin.settings;
    if (!files_watch_ending(watch)) {
        files_source_connect(calls, source);
    }
}

/* Those that have gone come first: one that has moved is disconnected before it is connected. */
static void look_at_drives_of(const files_watch* watch, const files_plugin& plugin) {
    std::vector<seen_drive> seen;
    if (!see_drives(*plugin.settings, &seen)) {
        return;
    }
    for (const files_source_ref& known : files_source_list(plugin.plugin_id, LYR_MS_TYPE_USB)) {
        const bool stays = is_where_it_was(*known, seen);
        if (files_watch_ending(watch)) {
            return;
        }
        if (stays) {
            files_source_confirm(calls, known);
        } else {
            files_source_disconnect(calls, known);
        }
    }
    for (const seen_drive& drive : seen) {
        connect_drive(watch, plugin, drive);
    }
}

static void look_at_drives(files_watch* watch) noexcept {
    try {
        for (const files_plugin& plugin : files_source_plugins()) {
            look_at_drives_of(watch, plugin);
        }
    } catch (...) {
        files_log(3, "no memory to look for drives");
    }
}

/* --- start and stop ------------------------------------------------------------------------- */

void files_sources_start(const lyrane_internal_callbacks_table* callbacks) {
    const std::vector<files_plugin> plugins = files_source_plugins();
    const auto any = [&plugins](std::vector<std::string> files_settings::*places) {
        return std::any_of(plugins.begin(), plugins.end(), [places](const files_plugin& plugin) {
            return !((*plugin.settings).*places).empty();
        });
    };
    if (folders_watch == nullptr && drives_watch == nullptr) { /* their threads read it */
        calls = callbacks;
    }
    if (folders_watch == nullptr && any(&files_settings::folders)) {
        folders_watch = files_watch_start("files-folders", look_at_folders);
    }
    if (drives_watch == nullptr && any(&files_settings::mounts)) {
        drives_watch = files_watch_start("files-drives", look_at_drives);
    }
}

void files_sources_stop() noexcept {
    files_watch_stop(folders_watch);
    files_watch_stop(drives_watch);
    folders_watch = nullptr;
    drives_watch = nullptr;
    files_scan_stop();
    files_source_detection_off();
}
