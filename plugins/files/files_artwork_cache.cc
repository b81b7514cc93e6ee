/* A folder of pictures that is never larger than it may be.
 *
 * A picture's name is made from its bytes, so all tracks of an album share one. It is written under
 * another name first: what has its own name is whole. The time of a file is when it was last asked
 * for. */
#include "files_artwork_cache.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <veloran/lock.h>

/* A file that another process is writing is not much older than this. */
static constexpr time_t UNFINISHED_SECONDS = 3600;
/* How the names of unfinished files begin. */
static constexpr char UNFINISHED = '.';

/* One writes at a time; reading needs no lock. */
static vel_mutex write_lock;

struct close_folder {
    void operator()(DIR* folder) const noexcept { closedir(folder); }
};

const char* files_artwork_kind(const std::string& begin) noexcept {
    static constexpr char PNG[] = "\x89PNG\r\n\x1A\n";
    if (begin.starts_with("\xFF\xD8\xFF")) {
        return "jpg";
    }
    if (begin.starts_with(PNG)) {
        return "png";
    }
    if (begin.starts_with("GIF87a") || begin.starts_with("GIF89a")) {
        return "gif";
    }
    if (begin.starts_with("RIFF") && begin.compare(8, 4, "WEBP") == 0) {
        return "webp";
    }
    return nullptr;
}

/* --- names ---------------------------------------------------------------------------------- */

static std::string hexadecimal(uint64_t value) {
    std::string digits;
    for (int shift = 60; shift >= 0; shift -= 4) {
        digits += "0123456789abcdef"[value >> shift & 0xF];
    }
    return digits;
}

/* FNV-1a over the bytes, twice from different beginnings, and the length. */
static std::string name_of(const std::string& picture) {
    uint64_t one = UINT64_C(0xcbf29ce484222325);
    uint64_t two = UINT64_C(0x9e3779b97f4a7c15);
    for (const char byte : picture) {
        const auto value = static_cast<unsigned char>(byte);
        one = (one ^ value) * UINT64_C(0x100000001b3);
        two = (two ^ value) * UINT64_C(0x100000001b3) + (two >> 47);
    }
    return hexadecimal(one) + hexadecimal(two ^ picture.size());
}

/* --- the folder ----------------------------------------------------------------------------- */

struct kept_file {
    std::string name;
    int64_t size;
    timespec used;
};

static bool used_before(const kept_file& left, const kept_file& right) noexcept {
    return left.used.tv_sec != right.used.tv_sec ? left.used.tv_sec < right.used.tv_sec
                                                 : left.used.tv_nsec < right.used.tv_nsec;
}

/* The files of the folder; those that nobody finished are removed. */
static std::vector<kept_file> kept_files(const std::string& folder) {
    std::vector<kept_file> files;
    const std::unique_ptr<DIR, close_folder> stream(opendir(folder.c_str()));
    const time_t now = time(nullptr);
    while (stream != nullptr) {
        const dirent* entry = readdir(stream.get()); // NOLINT(concurrency-mt-unsafe): own stream
        struct stat facts = {};
        if (entry == nullptr) {
            break;
        }
        if (fstatat(dirfd(stream.get()), entry->d_name, &facts, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(facts.st_mode)) {
            continue;
        }
        const bool unfinished = entry->d_name[0] == UNFINISHED;
        if (unfinished && std::abs(now - facts.st_mtim.tv_sec) > UNFINISHED_SECONDS) {
            unlinkat(dirfd(stream.get()), entry->d_name, 0);
        } else if (!unfinished) {
            files.push_back({entry->d_name, facts.st_size, facts.st_mtim});
        }
    }
    return files;
}

static void trim(const std::string& folder, const std::string& but, int64_t most) {
    std::vector<kept_file> files = kept_files(folder);
    int64_t total = 0;
    for (const kept_file& file : files) {
        total += file.size;
    }
    std::sort(files.begin(), files.end(), used_before);
    for (const kept_file& file : files) {
        if (total <= most) {
            return;
        }
        if (file.name != but && unlink((folder + '/' + file.name).c_str()) == 0) {
            total -= file.size;
        }
    }
}

/* --- writing -------------------------------------------------------------------------------- */

static bool write_all(int fd, const std::string& bytes) noexcept {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t written = write(fd, bytes.data() + done, bytes.size() - done);
        if (written < 0 && errno != EINTR) {
            return false;
        }
        done += written > 0 ? static_cast<size_t>(written) : 0;
    }
    return true;
}

/* Other users' programs show the pictures: the file is for all to read. */
static bool write_file(const std::string& folder, const std::string& path,
                       const std::string& picture) {
    std::string unfinished = folder + '/' + UNFINISHED + "XXXXXX";
    vel_fd file(mkostemp(unfinished.data(), O_CLOEXEC));
    if (file.value < 0) {
        return false;
    }
    const bool whole = write_all(file.value, picture) && fchmod(file.value, 0644) == 0 &&
                       close(file.release()) == 0 && rename(unfinished.c_str(), path.c_str()) == 0;
    if (!whole) {
        const int error = errno;
        unlink(unfinished.c_str());
        errno = error;
    }
    return whole;
}

static bool is_kept(const std::string& path, const std::string& picture) noexcept {
    struct stat facts = {};
    if (stat(path.c_str(), &facts) != 0 || !S_ISREG(facts.st_mode) ||
        static_cast<uint64_t>(facts.st_size) != picture.size()) {
        return false;
    }
    utimensat(AT_FDCWD, path.c_str(), nullptr, 0);
    return true;
}

std::string files_artwork_cache_keep(const std::string& folder, const std::string& picture,
                                     int64_t most) {
    const char* kind = files_artwork_kind(picture);
    if (kind == nullptr || picture.size() > static_cast<uint64_t>(most)) {
        errno = kind == nullptr ? EINVAL : EFBIG;
        return "";
    }
    const std::string name = name_of(picture) + '.' + kind;
    std::string path = folder + '/' + name;
    if (is_kept(path, picture)) {
        return path;
    }
    vel_lock_guard one_by_one(write_lock);
    if (!write_file(folder, path, picture)) {
        return "";
    }
    trim(folder, name, most);
    return path;
}
