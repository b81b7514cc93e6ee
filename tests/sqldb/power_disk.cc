#include "power_disk.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <random>
#include <vector>

#include <climits>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

extern "C" {
int __real_open(const char* path, int flags, ...);
ssize_t __real_write(int fd, const void* bytes, size_t count);
int __real_fsync(int fd);
int __real_rename(const char* from, const char* to);
int __real_unlink(const char* path);
int __wrap_open(const char* path, int flags, ...);
ssize_t __wrap_write(int fd, const void* bytes, size_t count);
int __wrap_fsync(int fd);
int __wrap_rename(const char* from, const char* to);
int __wrap_unlink(const char* path);
}

namespace {

constexpr size_t SECTOR = 512;

/* A write, or with `is_size` a new size. */
struct change {
    size_t at = 0;
    std::string bytes;
    bool is_size = false;
};

struct node {
    std::string present;
    std::string synced;
    std::vector<change> pending; /* what makes the one the other */
    timespec time = {};          /* of the last change */
};

/* A change of the names of a directory: `from` goes, `to` becomes `what`; either may be empty. */
struct naming {
    std::string from;
    std::string to;
    size_t what = 0;
};

struct disk {
    std::recursive_mutex lock;
    bool is_on = false;
    std::string directory;
    std::string image;
    std::mt19937 random;
    int64_t changes = 0; /* that count */
    int64_t cut_at = 0;
    bool counts_names_only = false;
    std::vector<node> nodes;
    std::map<std::string, size_t> present;
    std::map<std::string, size_t> synced;
    std::map<std::string, std::vector<naming>> pending; /* by directory */
};
disk the_disk;

using disk_guard = std::lock_guard<std::recursive_mutex>;

uint32_t chance(uint32_t below) {
    return static_cast<uint32_t>(the_disk.random() % below);
}

/* The index that SQLite shares between processes is made anew after a cut. */
bool is_noted(const std::string& path) {
    return the_disk.is_on && path.compare(0, the_disk.directory.size(), the_disk.directory) == 0 &&
           !path.ends_with("-shm");
}

std::string path_of(int fd) {
    char path[PATH_MAX];
    const ssize_t length =
        readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
    return {path, static_cast<size_t>(std::max<ssize_t>(length, 0))};
}

std::string parent_of(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

void apply(std::string* text, const change& one) {
    if (one.is_size) {
        text->resize(one.at);
        return;
    }
    if (text->size() < one.at + one.bytes.size()) {
        text->resize(one.at + one.bytes.size());
    }
    text->replace(one.at, one.bytes.size(), one.bytes);
}

/* Adds the parts of a write that lie within sectors, some of them only when it is torn. */
void add_sectors(std::vector<change>* kept, const change& one, bool is_torn) {
    for (size_t at = 0; at < one.bytes.size();) {
        const size_t length = std::min(SECTOR - (one.at + at) % SECTOR, one.bytes.size() - at);
        if (!is_torn || chance(2) == 0) {
            kept->push_back({one.at + at, one.bytes.substr(at, length), false});
        }
        at += length;
    }
}

/* What the disk holds of a file: `mood` 0 nothing unsynchronised, 1 all, else by chance. */
std::string remains(const node& file, uint32_t mood) {
    std::vector<change> kept;
    for (const change& one : file.pending) {
        const uint32_t fate = mood == 0 ? 0 : mood == 1 ? 2 : chance(3);
        if (fate == 0) {
            continue;
        }
        if (one.is_size) {
            kept.push_back(one);
        } else {
            add_sectors(&kept, one, fate == 1);
        }
    }
    if (mood == 2) {
        std::shuffle(kept.begin(), kept.end(), the_disk.random);
    }
    std::string text = file.synced;
    for (const change& one : kept) {
        apply(&text, one);
    }
    return text;
}

void rename_in(std::map<std::string, size_t>* names, const naming& one) {
    const auto found = names->find(one.from);
    if (found != names->end() && (one.to.empty() || found->second == one.what)) {
        names->erase(found);
    }
    if (!one.to.empty()) {
        (*names)[one.to] = one.what;
    }
}

/* The names that the disk holds: of each directory none of the later changes, or the first ones,
 * or any. */
std::map<std::string, size_t> remaining_names() {
    std::map<std::string, size_t> names = the_disk.synced;
    for (const auto& [directory, pending] : the_disk.pending) {
        const uint32_t mood = the_disk.counts_names_only ? 2 : chance(3);
        const size_t first = mood == 1 ? chance(static_cast<uint32_t>(pending.size()) + 1) : 0;
        for (size_t i = 0; i < pending.size(); ++i) {
            if (mood == 1 ? i < first : mood == 2 && chance(2) == 0) {
                rename_in(&names, pending[i]);
            }
        }
    }
    return names;
}

void write_image() {
    for (const auto& entry : fs::recursive_directory_iterator(the_disk.directory)) {
        const std::string to =
            the_disk.image + entry.path().string().substr(the_disk.directory.size());
        if (entry.is_directory()) {
            fs::create_directories(to);
        } else if (entry.path().string().ends_with("-shm") && chance(2) == 0) {
            fs::create_directories(parent_of(to));
            fs::copy_file(entry.path(), to);
        }
    }
    const uint32_t mood = chance(4);
    for (const auto& [path, number] : remaining_names()) {
        const node& file = the_disk.nodes[number];
        const std::string to = the_disk.image + path.substr(the_disk.directory.size());
        std::ofstream(to, std::ios::binary) << remains(file, mood);
        const timespec times[] = {file.time, file.time};
        utimensat(AT_FDCWD, to.c_str(), times, 0);
    }
}

/* Before each change; with the lock held. */
void step(bool is_of_names = false) {
    if (!is_of_names && the_disk.counts_names_only) {
        return;
    }
    if (++the_disk.changes == the_disk.cut_at) {
        disk_cut();
    }
}

node* node_at(const std::string& path) {
    const auto found = the_disk.present.find(path);
    return found == the_disk.present.end() ? nullptr : &the_disk.nodes[found->second];
}

void note_change(node* file, const change& one) {
    if (file != nullptr) {
        apply(&file->present, one);
        file->pending.push_back(one);
        clock_gettime(CLOCK_REALTIME, &file->time);
    }
}

void note_naming(const naming& one) {
    rename_in(&the_disk.present, one);
    the_disk.pending[parent_of(one.to.empty() ? one.from : one.to)].push_back(one);
}

void note_creation(const std::string& path) {
    the_disk.nodes.emplace_back();
    clock_gettime(CLOCK_REALTIME, &the_disk.nodes.back().time);
    note_naming({"", path, the_disk.nodes.size() - 1});
}

void note_sync(node* file) {
    if (file != nullptr) {
        file->synced = file->present;
        file->pending.clear();
    }
}

void note_directory_sync(const std::string& directory) {
    for (const naming& one : the_disk.pending[directory]) {
        rename_in(&the_disk.synced, one);
    }
    the_disk.pending.erase(directory);
}

sqlite3_vfs* ordinary;

/* An open file that is noted. */
struct noted_file {
    std::string path;
    const sqlite3_io_methods* methods = nullptr; /* the ordinary ones */
    bool syncs_its_name = false; /* at the first synchronisation, as those do for journals */
};
std::map<sqlite3_file*, noted_file> noted_files; /* guarded by the disk's lock */

int file_close(sqlite3_file* file) {
    const disk_guard guard(the_disk.lock);
    file->pMethods = noted_files[file].methods;
    noted_files.erase(file);
    return file->pMethods->xClose(file);
}
int file_write(sqlite3_file* file, const void* bytes, int count, sqlite3_int64 at) {
    const disk_guard guard(the_disk.lock);
    const noted_file& noted = noted_files[file];
    step();
    const int code = noted.methods->xWrite(file, bytes, count, at);
    if (code == SQLITE_OK) {
        note_change(node_at(noted.path),
                    {static_cast<size_t>(at),
                     std::string(static_cast<const char*>(bytes), static_cast<size_t>(count)),
                     false});
    }
    return code;
}
int file_truncate(sqlite3_file* file, sqlite3_int64 size) {
    const disk_guard guard(the_disk.lock);
    const noted_file& noted = noted_files[file];
    step();
    const int code = noted.methods->xTruncate(file, size);
    if (code == SQLITE_OK) {
        note_change(node_at(noted.path), {static_cast<size_t>(size), "", true});
    }
    return code;
}
int file_sync(sqlite3_file* file, int) {
    const disk_guard guard(the_disk.lock);
    noted_file& noted = noted_files[file];
    step();
    note_sync(node_at(noted.path));
    if (noted.syncs_its_name) {
        note_directory_sync(parent_of(noted.path));
        noted.syncs_its_name = false;
    }
    return SQLITE_OK; /* the real disk keeps its power */
}

/* The ordinary methods of a file but for those above, and without memory mapping: every change is a
 * write. */
const sqlite3_io_methods* methods_over(const sqlite3_io_methods* methods) {
    static sqlite3_io_methods ours = *methods;
    ours.iVersion = 2;
    ours.xClose = file_close;
    ours.xWrite = file_write;
    ours.xTruncate = file_truncate;
    ours.xSync = file_sync;
    return &ours;
}

int vfs_open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out) {
    const disk_guard guard(the_disk.lock);
    const std::string path = name == nullptr ? "" : name;
    const bool is_ours = is_noted(path);
    const bool is_new = is_ours && !exists(path);
    if (is_new && (flags & SQLITE_OPEN_CREATE) != 0) {
        step(true);
    }
    const int code = ordinary->xOpen(ordinary, name, file, flags, out);
    if (code != SQLITE_OK || !is_ours) {
        return code;
    }
    constexpr int JOURNALS = SQLITE_OPEN_WAL | SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_SUPER_JOURNAL;
    noted_files[file] = {path, file->pMethods,
                         (flags & SQLITE_OPEN_CREATE) != 0 && (flags & JOURNALS) != 0};
    file->pMethods = methods_over(file->pMethods);
    if (is_new) {
        note_creation(path);
    }
    return SQLITE_OK;
}

int vfs_delete(sqlite3_vfs*, const char* name, int syncs_directory) {
    const disk_guard guard(the_disk.lock);
    const bool is_ours = is_noted(name) && exists(name);
    if (is_ours) {
        step(true);
    }
    const int code = ordinary->xDelete(ordinary, name, 0);
    if (code == SQLITE_OK && is_ours) {
        note_naming({name, "", 0});
        if (syncs_directory != 0) {
            note_directory_sync(parent_of(name));
        }
    }
    return code;
}

} // namespace

void disk_install() {
    static sqlite3_vfs vfs;
    ordinary = sqlite3_vfs_find(nullptr);
    vfs = *ordinary;
    vfs.zName = "power";
    vfs.xOpen = vfs_open;
    vfs.xDelete = vfs_delete;
    sqlite3_vfs_register(&vfs, 1);
}

void disk_begin(const std::string& directory, const std::string& image, uint32_t seed,
                int64_t cut_at, bool names_only) {
    const disk_guard guard(the_disk.lock);
    the_disk.directory = directory + '/';
    the_disk.image = image + '/';
    the_disk.random.seed(seed);
    the_disk.cut_at = cut_at;
    the_disk.counts_names_only = names_only;
    fs::create_directories(directory);
    fs::create_directories(image);
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        const std::string path = entry.path().string();
        struct stat status = {};
        if (!entry.is_regular_file() || path.ends_with("-shm") ||
            stat(path.c_str(), &status) != 0) {
            continue;
        }
        std::ifstream stream(path, std::ios::binary);
        node file;
        file.synced = {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
        file.present = file.synced;
        file.time = status.st_mtim;
        the_disk.present[path] = the_disk.synced[path] = the_disk.nodes.size();
        the_disk.nodes.push_back(std::move(file));
    }
    the_disk.is_on = true;
}

void disk_cut() {
    const disk_guard guard(the_disk.lock);
    the_disk.is_on = false; /* the image is written to a disk with power */
    try {
        write_image();
    } catch (const std::exception& failure) {
        fprintf(stderr, "no image: %s\n", failure.what());
        _exit(1);
    }
    _exit(DISK_CUT);
}

extern "C" {

int __wrap_open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const disk_guard guard(the_disk.lock);
    const bool is_new = (flags & O_CREAT) != 0 && is_noted(path) && !exists(path);
    if (is_new) {
        step(true);
    }
    const int fd = __real_open(path, flags, mode);
    if (is_new && fd >= 0) {
        note_creation(path);
    }
    return fd;
}

ssize_t __wrap_write(int fd, const void* bytes, size_t count) {
    const disk_guard guard(the_disk.lock);
    const std::string path = the_disk.is_on ? path_of(fd) : "";
    if (!is_noted(path)) {
        return __real_write(fd, bytes, count);
    }
    step();
    const off_t at = lseek(fd, 0, SEEK_CUR);
    const ssize_t done = __real_write(fd, bytes, count);
    if (done > 0) {
        note_change(node_at(path),
                    {static_cast<size_t>(at),
                     std::string(static_cast<const char*>(bytes), static_cast<size_t>(done)),
                     false});
    }
    return done;
}

int __wrap_fsync(int fd) {
    const disk_guard guard(the_disk.lock);
    const std::string path = the_disk.is_on ? path_of(fd) : "";
    if (!is_noted(path)) {
        return __real_fsync(fd);
    }
    struct stat status = {};
    const bool is_directory = fstat(fd, &status) == 0 && S_ISDIR(status.st_mode);
    step(is_directory);
    if (is_directory) {
        note_directory_sync(path);
    } else {
        note_sync(node_at(path));
    }
    return 0;
}

int __wrap_rename(const char* from, const char* to) {
    const disk_guard guard(the_disk.lock);
    const auto found = the_disk.present.find(from);
    const bool is_ours = is_noted(from) && found != the_disk.present.end();
    if (is_ours) {
        step(true);
    }
    const size_t number = is_ours ? found->second : 0;
    const int result = __real_rename(from, to);
    if (result == 0 && is_ours) {
        note_naming({from, to, number});
    }
    return result;
}

int __wrap_unlink(const char* path) {
    const disk_guard guard(the_disk.lock);
    const bool is_ours = is_noted(path) && exists(path);
    if (is_ours) {
        step(true);
    }
    const int result = __real_unlink(path);
    if (result == 0 && is_ours) {
        note_naming({path, "", 0});
    }
    return result;
}
}
