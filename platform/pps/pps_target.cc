#include "pps_target.h"

#include <cerrno>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <veloran/lock.h>
#include <veloran/paths.h>

namespace {

constexpr std::string_view PREFIX = "/pps/";
constexpr int32_t PLACE_FLAGS = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

struct option_name {
    std::string_view text;
    uint32_t option;
};
constexpr option_name OPTIONS[] = {
    {"nopersist", PPS_OPTION_NOPERSIST},
    {"wait", PPS_OPTION_WAIT},
    {"delta", PPS_OPTION_DELTA},
    {"deep", PPS_OPTION_DEEP},
};

} // namespace

static int32_t fail(int32_t error) {
    errno = error;
    return -1;
}

static bool parse_options(std::string_view text, uint32_t* options) {
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(','));
        text.remove_prefix(word.size() == text.size() ? word.size() : word.size() + 1);
        bool is_known = false;
        for (const option_name& entry : OPTIONS) {
            if (entry.text == word) {
                *options |= entry.option;
                is_known = true;
            }
        }
        if (!is_known) {
            return false;
        }
    }
    return true;
}

/* The first part of a relative path; *path moves on behind it. */
static std::string_view next_part(std::string_view* path) {
    const std::string_view part = path->substr(0, path->find('/'));
    path->remove_prefix(part.size() == path->size() ? part.size() : part.size() + 1);
    return part;
}

int32_t pps_target_parse(pps_target* target, const char* path) noexcept {
    std::string_view text = path == nullptr ? "" : path;
    if (text.size() >= PATH_MAX) {
        return fail(ENAMETOOLONG);
    }
    const size_t options = text.find('?');
    target->options = 0;
    if (options != std::string_view::npos) {
        if (!parse_options(text.substr(options + 1), &target->options)) {
            return fail(EINVAL);
        }
        text = text.substr(0, options);
    }
    if (!text.starts_with(PREFIX) || text.back() == '/') {
        return fail(EINVAL);
    }
    text.remove_prefix(PREFIX.size());
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view part = next_part(&rest);
        const bool is_all = rest.empty() && part == PPS_TARGET_ALL;
        if (part.empty() || (part.front() == '.' && !is_all)) {
            return fail(EINVAL);
        }
        if (part.size() > NAME_MAX) {
            return fail(ENAMETOOLONG);
        }
    }
    const size_t slash = text.rfind('/');
    const size_t length = slash == std::string_view::npos ? 0 : slash;
    const std::string_view name = slash == std::string_view::npos ? text : text.substr(slash + 1);
    target->directory[text.copy(target->directory, length)] = '\0';
    target->name[name.copy(target->name, NAME_MAX)] = '\0';
    return 0;
}

/* Opens a directory below another step by step, so that no part of the path can be a link. */
static int32_t open_below(int32_t base, const char* directory) {
    vel_fd place(base);
    std::string_view rest = directory;
    while (!rest.empty()) {
        const std::string_view part = next_part(&rest);
        char name[NAME_MAX + 1];
        name[part.copy(name, NAME_MAX)] = '\0';
        const int32_t below = openat(place.value, name, PLACE_FLAGS);
        if (below < 0) {
            return -1;
        }
        vel_fd above(place.release());
        place.value = below;
    }
    return place.release();
}

/* Opens "/pps" of the own runtime root. */
static int32_t open_own_base(const char* directory) {
    char real[PATH_MAX];
    if (paths_resolve("/pps", real, sizeof(real)) < 0) {
        return -1;
    }
    const int32_t base = open(real, PLACE_FLAGS);
    return base < 0 ? -1 : open_below(base, directory);
}

/* Makes "/pps" and the first directory of the path. */
static int32_t make_first_directories(const char* directory) {
    char real[PATH_MAX];
    std::string_view rest = directory;
    const std::string_view part = next_part(&rest);
    char path[NAME_MAX + sizeof("/pps//x")];
    size_t length = PREFIX.copy(path, PREFIX.size());
    length += part.copy(path + length, NAME_MAX);
    std::memcpy(path + length, part.empty() ? "x" : "/x", part.empty() ? 2 : 3);
    if (paths_resolve(path, real, sizeof(real)) < 0) {
        return -1;
    }
    return paths_make_parents(real);
}

int32_t pps_target_open_to_write(const char* directory) noexcept {
    const int32_t place = open_own_base(directory);
    if (place >= 0 || errno != ENOENT || make_first_directories(directory) != 0) {
        return place;
    }
    return open_own_base(directory);
}

int32_t pps_target_open_base(void) noexcept {
    return pps_target_open_to_write("");
}

int32_t pps_target_open_to_read(const char* directory) noexcept {
    char path[PATH_MAX + sizeof("/pps/")];
    char real[PATH_MAX];
    std::string_view rest = directory;
    size_t length = PREFIX.copy(path, PREFIX.size());
    length += rest.copy(path + length, PATH_MAX);
    length -= rest.empty() ? 1 : 0; /* "/pps" alone */
    path[length] = '\0';
    const int32_t real_length = paths_resolve_existing(path, real, sizeof(real));
    if (real_length < 0) {
        return -1;
    }
    /* The real path ends like the name: cut it behind "/pps" again, and walk from there. */
    const size_t below = rest.empty() ? 0 : rest.size() + 1;
    real[static_cast<size_t>(real_length) - below] = '\0';
    const int32_t base = open(real, PLACE_FLAGS & ~O_NOFOLLOW);
    vel_fd place(base < 0 ? -1 : open_below(base, directory));
    return place.value < 0 ? -1 : openat(place.value, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}
