/* The folder of what the plug-in can make again. */
#include "files_cache.h"

#include <cerrno>

#include <sys/stat.h>

static bool make_folder(const std::string& path, mode_t mode) noexcept {
    struct stat facts = {};
    if (mkdir(path.c_str(), mode) == 0) {
        return true;
    }
    if (errno != EEXIST) {
        return false;
    }
    if (stat(path.c_str(), &facts) != 0) {
        return false;
    }
    if (!S_ISDIR(facts.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    return true;
}

std::string files_cache_folder(const files_settings& settings, const char* name, mode_t mode) {
    if (settings.cache.empty()) {
        errno = ENOENT;
        return "";
    }
    const std::string path = settings.cache + '/' + name;
    if (make_folder(path, mode)) {
        return path;
    }
    if (errno != ENOENT) {
        return "";
    }
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        /* Others may look through what stands above; it is not ours alone. */
        if (!make_folder(path.substr(0, slash), 0755)) {
            return "";
        }
    }
    return make_folder(path, mode) ? path : "";
}
