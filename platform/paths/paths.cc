#include <veloran/paths.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* SYSTEM_RUNTIME_ROOT = "/run/veloran";
constexpr const char* SYSTEM_STATE_ROOT = "/var/lib/veloran";
constexpr mode_t MASK = 022;
constexpr mode_t MASK_MAX = 077;

struct root_table {
    char runtime[PATH_MAX];
    char state[PATH_MAX];
    bool runtime_named; /* by $VELORAN_RUN */
    mode_t mask;
    const char* mask_refused;
};
root_table roots; /* constant once resolved */
pthread_once_t roots_once = PTHREAD_ONCE_INIT;

enum class path_kind { plain, runtime, state };

struct prefix {
    const char* text;
    path_kind kind;
};
constexpr prefix PREFIXES[] = {
    {"/pps", path_kind::runtime},       {"/sys/csm", path_kind::runtime},
    {"/dev/sqldb", path_kind::runtime}, {"/dev/authman", path_kind::runtime},
    {"/fs/tmpfs", path_kind::runtime},  {"/db", path_kind::state},
    {"/var/db", path_kind::state},
};

/* Appends to a text of PATH_MAX bytes; what does not fit empties it for good. */
void append(char* text, const char* more) {
    const size_t length = strlen(text);
    const size_t more_length = strlen(more);
    if (length + more_length >= PATH_MAX) {
        text[0] = '\0';
        return;
    }
    memcpy(text + length, more, more_length + 1);
}

/* The value of a variable, or null when it is unset or empty. A program with raised privileges
 * does not let its caller choose. */
const char* variable(const char* name) {
    const char* value = secure_getenv(name);
    return value != nullptr && value[0] != '\0' ? value : nullptr;
}

void set_absolute(char* root, const char* path) {
    root[0] = '\0';
    if (path[0] != '/') {
        if (getcwd(root, PATH_MAX) == nullptr) {
            root[0] = '\0';
            return;
        }
        append(root, "/");
        if (root[0] == '\0') {
            return;
        }
    }
    append(root, path);
    for (size_t length = strlen(root); length > 1 && root[length - 1] == '/'; length--) {
        root[length - 1] = '\0';
    }
}

/* base + tail, both kept whole or the root stays empty. */
void set_below(char* root, const char* base, const char* tail) {
    set_absolute(root, base);
    if (root[0] != '\0') {
        append(root, tail);
    }
}

void resolve_runtime_root() {
    const char* named = variable("VELORAN_RUN");
    const char* session = variable("XDG_RUNTIME_DIR");
    roots.runtime_named = named != nullptr;
    if (named != nullptr) {
        set_absolute(roots.runtime, named);
    } else if (geteuid() == 0) {
        set_absolute(roots.runtime, SYSTEM_RUNTIME_ROOT);
    } else if (session != nullptr && session[0] == '/') {
        set_below(roots.runtime, session, "/veloran");
    } else {
        char number[16] = "";
        *std::to_chars(number, number + sizeof number - 1, geteuid()).ptr = '\0';
        set_below(roots.runtime, "/tmp/veloran-", number);
    }
}

void resolve_state_root() {
    const char* named = variable("VELORAN_STATE");
    const char* state_home = variable("XDG_STATE_HOME");
    const char* home = variable("HOME");
    if (named != nullptr) {
        set_absolute(roots.state, named);
    } else if (geteuid() == 0) {
        set_absolute(roots.state, SYSTEM_STATE_ROOT);
    } else if (state_home != nullptr && state_home[0] == '/') {
        set_below(roots.state, state_home, "/veloran");
    } else if (home != nullptr) {
        set_below(roots.state, home, "/.local/state/veloran");
    } else {
        /* No home: the state lives as long as the runtime root does. */
        set_below(roots.state, roots.runtime, "/state");
    }
}

/* A mask that takes the owner's own rights is none. */
void resolve_mask() {
    const char* text = variable("VELORAN_UMASK");
    roots.mask = MASK;
    if (text == nullptr) {
        return;
    }
    const char* end = text + strlen(text);
    mode_t value = 0;
    const std::from_chars_result parsed = std::from_chars(text, end, value, 8);
    const bool is_usable = parsed.ec == std::errc() && parsed.ptr == end && value <= MASK_MAX;
    roots.mask = is_usable ? value : MASK;
    roots.mask_refused = is_usable ? nullptr : text;
}

void resolve_roots() {
    resolve_runtime_root();
    resolve_state_root();
    resolve_mask();
}

path_kind kind_of(const char* path) {
    for (const prefix& entry : PREFIXES) {
        const size_t length = strlen(entry.text);
        if (strncmp(path, entry.text, length) == 0 &&
            (path[length] == '\0' || path[length] == '/')) {
            return entry.kind;
        }
    }
    return path_kind::plain;
}

int32_t join(const char* root, const char* path, char* buffer, size_t size) {
    const size_t root_length = strlen(root);
    const size_t path_length = strlen(path);
    if (root_length + path_length >= size || root_length + path_length > INT32_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(buffer, root, root_length);
    memcpy(buffer + root_length, path, path_length + 1);
    return static_cast<int32_t>(root_length + path_length);
}

bool is_own_directory(const char* path) {
    struct stat status;
    return lstat(path, &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid() &&
           (status.st_mode & S_IWOTH) == 0;
}

} // namespace

const char* paths_runtime_root(void) noexcept {
    pthread_once(&roots_once, resolve_roots);
    return roots.runtime;
}

const char* paths_state_root(void) noexcept {
    pthread_once(&roots_once, resolve_roots);
    return roots.state;
}

mode_t paths_mode(mode_t asked) noexcept {
    pthread_once(&roots_once, resolve_roots);
    return asked & ~roots.mask;
}

const char* paths_umask_refused(void) noexcept {
    pthread_once(&roots_once, resolve_roots);
    return roots.mask_refused;
}

int32_t paths_resolve(const char* path, char* buffer, size_t size) noexcept {
    const path_kind kind = kind_of(path);
    if (kind == path_kind::plain) {
        return join("", path, buffer, size);
    }
    const char* root = kind == path_kind::runtime ? paths_runtime_root() : paths_state_root();
    if (root[0] == '\0') {
        errno = ENAMETOOLONG;
        return -1;
    }
    return join(root, path, buffer, size);
}

int32_t paths_resolve_existing(const char* path, char* buffer, size_t size) noexcept {
    const int32_t own = paths_resolve(path, buffer, size);
    if (own < 0 || kind_of(path) != path_kind::runtime || roots.runtime_named) {
        return own;
    }
    const bool is_trusted = is_own_directory(roots.runtime);
    if (is_trusted && access(buffer, F_OK) == 0) {
        return own;
    }
    const int32_t common = join(SYSTEM_RUNTIME_ROOT, path, buffer, size);
    if (!is_trusted || (common >= 0 && access(buffer, F_OK) == 0)) {
        return common;
    }
    return paths_resolve(path, buffer, size);
}
