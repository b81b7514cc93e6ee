/* Looking through a source, or a folder of it.
 *
 * A file whose size and time of change are those in the index is not opened; a time that differs
 * counts in either direction, as clocks are set. Files that are found no more are removed, once it
 * is clear that the source stands where it stood: a share that was unmounted leaves an empty folder
 * in its place. */
#include "files_scan_walk.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <deque>
#include <functional>
#include <iterator>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "files_index_write.h"
#include "files_log.h"
#include "files_node.h"
#include "files_reader.h"
#include "files_scan_folder.h"

/* What was found is visible after so many changes, or after this time. */
static constexpr int32_t COMMIT_CHANGES = 500;
static constexpr std::chrono::milliseconds COMMIT_AFTER{1000};

using known_files = std::map<std::string, files_index_file>;

/* A file of the present folder that was handed to the reader. */
struct reading_file {
    vel_fd fd;
    std::string name;
    files_index_file file;
};

struct scan_run {
    const files_scan_task* task;
    files_cancel cancel;
    files_scan_watch* watch;
    files_index_writer writer;
    std::chrono::steady_clock::time_point committed;
    bool missed = false; /* a folder could not be read though it may be there */
    int32_t tracks = 0, read = 0, removed = 0;
    std::deque<reading_file> reading;
    files_reader_hold reader; /* from the first file on; given back before the files are closed */
};

uint64_t files_scan_key(const std::string& id) noexcept {
    return std::hash<std::string>{}(id);
}

static bool may_go_on(const scan_run& run) noexcept {
    return run.writer.code == SQLITE_OK && !files_cancelled(run.cancel);
}

/* True when the source's path leads to where it led when it was connected. */
static bool stands(const files_source& source) noexcept {
    const vel_fd root(open(source.root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    files_place place;
    return !source.gone && root.value >= 0 && files_place_of(root.value, &place) &&
           files_place_same(place, source.place);
}

/* --- bringing the index up to date ---------------------------------------------------------- */

static void commit_if_due(scan_run* run) {
    const auto now = std::chrono::steady_clock::now();
    if (run->writer.changes >= COMMIT_CHANGES ||
        (run->writer.changes > 0 && now - run->committed > COMMIT_AFTER)) {
        files_index_write_commit(&run->writer);
        run->committed = now;
    }
}

/* True when a file is still what was found, and can be read: what was read of it counts. */
static bool is_the_same(int fd, const files_index_file& file) noexcept {
    struct stat facts = {};
    char byte = '\0';
    return fstat(fd, &facts) == 0 && facts.st_size == file.size &&
           files_index_time(facts.st_mtim.tv_sec, facts.st_mtim.tv_nsec) == file.changed &&
           pread(fd, &byte, 1, 0) >= 0;
}

static void put_file(scan_run* run, const std::string& folder, const std::string& name,
                     const files_index_file& file, const files_reader_found& found) {
    if (may_go_on(*run)) {
        files_index_write_put(&run->writer, folder, name, file, found);
        ++run->read;
        commit_if_due(run);
    }
}

/* Enters the file that was handed to the reader first. */
static void finish_file(scan_run* run, const std::string& folder) {
    const reading_file& reading = run->reading.front();
    files_index_file file = reading.file;
    files_reader_found found;
    const files_reader_end end =
        files_reader_take(run->reader.get(), *run->task->source, run->cancel, &found);
    if (end == files_reader_end::cancelled || !is_the_same(reading.fd.value, file)) {
        run->missed = true; /* it is being written, or pulled out: another look finds it */
    } else {
        file.changed = end == files_reader_end::for_now ? 0 : file.changed; /* looked at again */
        put_file(run, folder, reading.name, file, found);
    }
    run->reading.pop_front();
}

static void finish_files(scan_run* run, const std::string& folder, size_t but) {
    while (run->reading.size() > but) {
        finish_file(run, folder);
    }
}

static bool have_reader(scan_run* run) {
    if (run->reader == nullptr) {
        run->reader = files_reader_begin(files_reader_use::scan, run->cancel);
    }
    return run->reader != nullptr;
}

/* Enters a file that is new or has changed, which may take until others are handed to the reader.
 * One that may not be opened is found by its name. */
static void enter_file(scan_run* run, const std::string& folder, const std::string& name,
                       const files_index_file& file) {
    files_reader_job job;
    if (file.type == 0) {
        put_file(run, folder, name, file, {});
    } else if (!files_reader_open(*run->task->source, files_index_id(folder, name), &job)) {
        if (errno == EACCES || errno == EPERM) {
            put_file(run, folder, name, file, {});
        } else {
            run->missed = true;
        }
    } else {
        reading_file& reading = run->reading.emplace_back();
        reading.fd.value = job.fd;
        reading.name = name;
        reading.file = file;
        job.wish = {FILES_READ_RECORD, 0};
        if (!have_reader(run)) {
            run->reading.pop_back();
            return;
        }
        files_reader_put(run->reader.get(), *run->task->source, std::move(job));
        finish_files(run, folder, FILES_READER_AHEAD - 1);
    }
}

static void remove_files(scan_run* run, const known_files& files) {
    if (files.empty() || !stands(*run->task->source)) {
        return;
    }
    for (const auto& [name, file] : files) {
        if (!files_index_write_remove(&run->writer, file.row, true)) {
            return;
        }
        ++run->removed;
    }
    commit_if_due(run);
}

static void note_time(const scan_run& run, const std::string& id, int64_t changed) {
    files_index& index = *run.task->index;
    vel_lock_guard hold(index.times_lock);
    index.times[files_scan_key(id)] = changed;
}

/* Brings one folder up to date, and gives those in it. */
static files_scan_state update_folder(scan_run* run, const std::string& id,
                                      std::vector<std::string>* folders) {
    files_scan_found found;
    known_files known;
    const files_scan_state state =
        files_scan_folder(run->task->source, id, run->cancel, run->watch, &found);
    if (state == files_scan_state::unclear || !may_go_on(*run) ||
        !files_index_write_list(&run->writer, id, &known)) {
        return files_scan_state::unclear;
    }
    for (auto& [name, file] : found.files) {
        const auto before = known.find(name);
        const bool same = before != known.end() && before->second.type == file.type &&
                          before->second.size == file.size &&
                          before->second.changed == file.changed;
        if (before != known.end()) {
            file.row = before->second.row;
            known.erase(before);
        }
        if (!same) {
            enter_file(run, id, name, file);
        }
        if (!may_go_on(*run)) {
            return files_scan_state::unclear;
        }
        run->tracks += file.type != 0 ? 1 : 0;
    }
    finish_files(run, id, 0);
    remove_files(run, known);
    if (state == files_scan_state::read) {
        note_time(*run, id, found.changed);
    }
    *folders = std::move(found.folders);
    return state;
}

/* --- walking -------------------------------------------------------------------------------- */

/* All folders that have files in the index and were not met have gone. */
static void remove_folders(scan_run* run, const std::set<std::string>& folders) {
    for (const std::string& id : folders) {
        known_files files;
        if (!may_go_on(*run) || !files_index_write_list(&run->writer, id, &files)) {
            return;
        }
        remove_files(run, files);
    }
}

static void walk_all(scan_run* run) {
    std::set<std::string> unmet;
    files_index_write_folders(&run->writer, "/", &unmet);
    std::vector<std::string> stack = {"/"};
    while (!stack.empty() && may_go_on(*run)) {
        const std::string id = std::move(stack.back());
        stack.pop_back();
        std::vector<std::string> below;
        if (update_folder(run, id, &below) == files_scan_state::unclear) {
            run->missed = true;
        }
        unmet.erase(id);
        std::move(below.rbegin(), below.rend(), std::back_inserter(stack));
    }
    if (!run->missed && may_go_on(*run)) {
        remove_folders(run, unmet);
    }
}

static bool is_known(const scan_run& run, const std::string& id) {
    files_index& index = *run.task->index;
    vel_lock_guard hold(index.times_lock);
    return index.times.count(files_scan_key(id)) != 0;
}

/* Removes a folder that has gone, with those below it. */
static void remove_below(scan_run* run, const std::string& id) {
    std::set<std::string> all = {id};
    files_index_write_folders(&run->writer, id, &all);
    {
        files_index& index = *run->task->index;
        vel_lock_guard hold(index.times_lock);
        for (const std::string& folder : all) {
            index.times.erase(files_scan_key(folder));
        }
    }
    remove_folders(run, all);
}

/* Removes the folders that were in a folder and are not any more. */
static void remove_missing_below(scan_run* run, const std::string& id,
                                 const std::vector<std::string>& there) {
    const size_t begin = id == "/" ? 1 : id.size() + 1;
    std::set<std::string> below;
    files_index_write_folders(&run->writer, id, &below);
    std::set<std::string> missing;
    for (const std::string& folder : below) {
        if (folder.size() > begin) {
            missing.insert(folder.substr(0, folder.find('/', begin)));
        }
    }
    for (const std::string& folder : there) {
        missing.erase(folder);
    }
    for (const std::string& folder : missing) {
        remove_below(run, folder);
    }
}

static void walk_some(scan_run* run) {
    std::vector<std::string> stack(run->task->folders.begin(), run->task->folders.end());
    while (!stack.empty() && may_go_on(*run)) {
        const std::string id = std::move(stack.back());
        stack.pop_back();
        std::vector<std::string> below;
        const files_scan_state state = update_folder(run, id, &below);
        if (state == files_scan_state::gone) {
            remove_below(run, id);
        } else if (state == files_scan_state::read) {
            remove_missing_below(run, id, below);
            std::copy_if(below.begin(), below.end(), std::back_inserter(stack),
                         [run](const std::string& folder) { return !is_known(*run, folder); });
        }
    }
}

/* --- one run -------------------------------------------------------------------------------- */

static void begin_times(files_index* index) {
    vel_lock_guard hold(index->times_lock);
    index->times.clear();
    index->complete = false;
}

static void log_end(const scan_run& run) {
    const files_scan_task& task = *run.task;
    const std::string counts = std::to_string(run.tracks) + " tracks, " + std::to_string(run.read) +
                               " read, " + std::to_string(run.removed) + " gone";
    files_log(task.whole ? 6 : 7, (task.source->uid + " is indexed: " + counts).c_str());
}

/* Those that were found out here, and by listeners meanwhile. */
static void write_unread(scan_run* run) {
    for (const files_unread_file& file : files_unread_take(*run->task->source)) {
        const size_t slash = file.id.rfind('/');
        files_index_write_unread(&run->writer, slash == 0 ? "/" : file.id.substr(0, slash),
                                 file.id.substr(slash + 1), file.size, file.changed);
    }
}

/* True when all was done. */
static bool walk_once(scan_run* run) {
    if (run->task->whole) {
        begin_times(run->task->index.get());
        walk_all(run);
    } else {
        walk_some(run);
    }
    write_unread(run);
    files_index_write_trim(&run->writer);
    files_index_write_commit(&run->writer);
    return run->writer.code == SQLITE_OK && !files_cancelled(run->cancel);
}

/* True when it is to be done once more, with a new index. */
static bool walk(const files_scan_task& task, const files_cancel& cancel, files_scan_watch* watch) {
    scan_run run = {};
    run.task = &task;
    run.cancel = cancel;
    run.watch = watch;
    run.committed = std::chrono::steady_clock::now();
    if (!files_index_write_begin(task.index.get(), &run.writer)) {
        return false;
    }
    if (walk_once(&run)) {
        run.writer = {}; /* all of it is in the file when it is said */
        files_index_log_success();
        if (task.whole) {
            vel_lock_guard hold(task.index->times_lock);
            task.index->complete = true;
            pthread_cond_broadcast(&task.index->completed);
        }
        log_end(run);
        return false;
    }
    if (files_index_is_damage(run.writer.code)) {
        task.index->damaged = true; /* opened once more, it is made anew */
        return true;
    }
    if (run.writer.code != SQLITE_OK) {
        files_index_log_failure(*task.index, run.writer.database.get());
    }
    return false;
}

void files_scan_walk(const files_scan_task& task, const files_cancel& cancel,
                     files_scan_watch* watch) {
    if (walk(task, cancel, watch)) {
        files_scan_task again = task;
        again.whole = true;
        walk(again, cancel, watch);
    }
}
