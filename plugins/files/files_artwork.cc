/* Pictures of media files. */
#include "files_artwork.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <veloran/lock.h>

#include "files_artwork_cache.h"
#include "files_cache.h"
#include "files_log.h"
#include "files_node.h"

/* Every way to write a name is tried by itself: to read a large folder would take longer. */
static constexpr const char* NAMES[] = {"cover", "folder", "front", "album", "albumart"};
static constexpr const char* ENDINGS[] = {".jpg", ".jpeg", ".png", ".webp"};
enum class spelling { lower, title, upper };
static constexpr spelling SPELLINGS[] = {spelling::lower, spelling::title, spelling::upper};

/* How many bytes tell what a picture is. */
static constexpr size_t KIND_BYTES = 12;

/* Said once, until it works again. */
static std::atomic<bool> cache_failed{false};

static char upper(char byte) noexcept {
    return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 'a' + 'A') : byte;
}

static std::string spelled(const char* name, const char* ending, spelling way) {
    std::string text = std::string(name) + ending;
    const size_t large = way == spelling::upper ? text.size() : way == spelling::title ? 1 : 0;
    for (size_t i = 0; i < large; ++i) {
        text[i] = upper(text[i]);
    }
    return text;
}

/* True when there is a picture at the id. */
static bool is_picture(const files_source& source, const char* id) noexcept {
    const vel_fd file(files_node_open(source, id, O_RDONLY | O_NONBLOCK | O_NOCTTY));
    struct stat facts = {};
    if (file.value < 0 || fstat(file.value, &facts) != 0 || !S_ISREG(facts.st_mode)) {
        return false;
    }
    std::array<char, KIND_BYTES> begin;
    const ssize_t length = read(file.value, begin.data(), begin.size());
    return length > 0 && files_artwork_kind({begin.data(), static_cast<size_t>(length)}) != nullptr;
}

static std::string beside(const files_source& source, const char* id) {
    const std::string folder(id, static_cast<size_t>(std::strrchr(id, '/') - id) + 1);
    for (const char* name : NAMES) {
        for (const char* ending : ENDINGS) {
            for (const spelling way : SPELLINGS) {
                const std::string cover = folder + spelled(name, ending, way);
                if (is_picture(source, cover.c_str())) {
                    return files_node_uri(source, cover.c_str());
                }
            }
        }
    }
    return "";
}

/* The path of a picture in the cache, or empty. */
static std::string keep(const files_settings& settings, const std::string& picture) {
    const std::string folder = files_cache_folder(settings, "artwork", 0755);
    std::string path;
    if (!folder.empty()) {
        path = files_artwork_cache_keep(folder, picture, FILES_ARTWORK_MOST);
    }
    if (!path.empty()) {
        cache_failed = false;
    } else if (!settings.cache.empty() && errno != EINVAL) {
        const std::string why = std::strerror(errno); // NOLINT(concurrency-mt-unsafe): own buffer
        if (!cache_failed.exchange(true)) {
            files_log(3, ("pictures cannot be kept in " + settings.cache + ": " + why).c_str());
        }
    }
    return path;
}

std::string files_artwork_uri(const files_source& source, const char* id,
                              const std::string& picture) {
    if (!picture.empty()) {
        const std::string kept = keep(*source.settings, picture);
        if (!kept.empty()) {
            return files_node_path_uri(kept);
        }
    }
    return beside(source, id);
}
