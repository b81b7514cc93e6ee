/* Nodes of a source. */
#include "files_node.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <veloran/lock.h>

/* Longest ending in the tables, without the dot. */
static constexpr size_t ENDING_MOST = 4;
/* How often a look-up is tried again that a rename elsewhere has disturbed. */
static constexpr int OPEN_TRIES = 16;

static constexpr const char* AUDIO_ENDINGS[] = {"mp3", "flac", "ogg", "oga", "opus", "m4a", "m4b",
                                                "aac", "wav",  "wma", "aif", "aiff", "ape", "mpc",
                                                "wv",  "mp2",  "mka", "spx", "tta",  "ac3", "dts",
                                                "amr", "au",   "caf", "dsf", "mpa",  "weba"};
static constexpr const char* VIDEO_ENDINGS[] = {"mp4",  "m4v", "mkv", "webm", "avi", "mpg",
                                                "mpeg", "mov", "wmv", "ogv",  "ts",  "m2ts",
                                                "flv",  "3gp", "3g2", "asf"};

static char folded(char byte) noexcept {
    return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

int32_t files_node_media_type(const char* name) noexcept {
    const char* dot = std::strrchr(name, '.');
    if (dot == nullptr || dot == name || std::strlen(dot + 1) > ENDING_MOST) {
        return 0;
    }
    char ending[ENDING_MOST + 1] = {};
    for (size_t i = 0; dot[i + 1] != '\0'; ++i) {
        ending[i] = folded(dot[i + 1]);
    }
    for (const char* known : AUDIO_ENDINGS) {
        if (std::strcmp(known, ending) == 0) {
            return LYR_NODE_AUDIO;
        }
    }
    for (const char* known : VIDEO_ENDINGS) {
        if (std::strcmp(known, ending) == 0) {
            return LYR_NODE_VIDEO;
        }
    }
    return 0;
}

bool files_node_id_valid(const char* id) noexcept {
    if (id == nullptr || id[0] != '/' || strnlen(id, PATH_MAX) >= PATH_MAX) {
        return false;
    }
    if (id[1] == '\0') {
        return true;
    }
    /* Behind each slash a name begins: not with a slash or a dot, and not with the end. */
    for (const char* at = id; *at != '\0'; ++at) {
        if (*at == '/' && (at[1] == '/' || at[1] == '.' || at[1] == '\0')) {
            return false;
        }
    }
    return true;
}

/* Looks a path up below a folder for kernels without openat2: name by name, and no symbolic link
 * is followed at all. `path` is not empty and has no slash at its begin. */
static int open_by_names(int folder, const char* path, int flags) noexcept {
    vel_fd held;
    for (;;) {
        const size_t length = std::strcspn(path, "/");
        char name[NAME_MAX + 1];
        if (length > NAME_MAX) {
            errno = ENAMETOOLONG;
            return -1;
        }
        std::memcpy(name, path, length);
        name[length] = '\0';
        const int from = held.value >= 0 ? held.value : folder;
        const bool last = path[length] == '\0';
        const int step = last ? flags : O_PATH | O_DIRECTORY;
        const int next = openat(from, name, step | O_NOFOLLOW | O_CLOEXEC);
        if (next < 0 || last) {
            return next;
        }
        if (held.value >= 0) {
            close(held.value);
        }
        held.value = next;
        path += length + 1;
    }
}

static int open_beneath(int folder, const char* path, int flags) noexcept {
    open_how how = {};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
    how.resolve = RESOLVE_BENEATH;
    for (int tries = 0; tries < OPEN_TRIES; ++tries) {
        const long opened = syscall(SYS_openat2, folder, path, &how, sizeof how);
        if (opened >= 0) {
            return static_cast<int>(opened);
        }
        if (errno == ENOSYS || errno == EPERM) {
            return open_by_names(folder, path, flags);
        }
        if (errno != EAGAIN && errno != EINTR) {
            return -1;
        }
    }
    return -1;
}

int files_node_open(const files_source& source, const char* id, int flags) noexcept {
    if (!files_node_id_valid(id)) {
        errno = EINVAL;
        return -1;
    }
    if (source.gone) {
        errno = ENODEV;
        return -1;
    }
    vel_fd root(open(source.root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (root.value < 0) {
        return -1;
    }
    files_place place;
    if (source.type == LYR_MS_TYPE_USB &&
        !(files_place_of(root.value, &place) && files_place_same(place, source.place))) {
        errno = ENODEV;
        return -1;
    }
    return open_beneath(root.value, id[1] == '\0' ? "." : id + 1, flags);
}

int32_t files_node_type(const files_source& source, const char* id) noexcept {
    const vel_fd node(files_node_open(source, id, O_PATH));
    struct stat facts = {};
    if (node.value < 0 || fstat(node.value, &facts) != 0) {
        return 0;
    }
    if (S_ISDIR(facts.st_mode)) {
        return LYR_NODE_FOLDER;
    }
    return S_ISREG(facts.st_mode) ? files_node_media_type(std::strrchr(id, '/') + 1) : 0;
}

std::string files_node_path(const files_source& source, const char* id) {
    std::string path = source.root == "/" ? "" : source.root;
    path += id;
    if (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

std::string files_node_uri(const files_source& source, const char* id) {
    return files_node_path_uri(files_node_path(source, id));
}

std::string files_node_path_uri(const std::string& path) {
    static constexpr const char* PLAIN = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                         "0123456789-._~/";
    static constexpr const char* DIGITS = "0123456789ABCDEF";
    std::string uri = "file://";
    for (const char byte : path) {
        if (std::strchr(PLAIN, byte) != nullptr) {
            uri += byte;
        } else {
            const auto value = static_cast<unsigned char>(byte);
            uri += '%';
            uri += DIGITS[value >> 4];
            uri += DIGITS[value & 0xF];
        }
    }
    return uri;
}
