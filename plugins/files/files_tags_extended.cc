/* What is known of a node beside its metadata. */
#include "files_tags_extended.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>

#include <veloran/lock.h>

#include "files_node.h"
#include "files_reader.h"
#include "files_tags_text.h"

/* The same key may be asked for again and again; after so many bytes of values there are no more.
 */
static constexpr size_t ALL_VALUES_MOST = 1024 * 1024;

/* A node that is asked about. */
struct node_facts {
    std::string path;
    struct statx status = {};
};

/* "2026-11-23T03:46:00Z"; nothing for a time that is not known. */
static std::string moment(const statx_timestamp& when) {
    const auto seconds = static_cast<time_t>(when.tv_sec);
    std::tm parts = {};
    std::array<char, 32> text;
    if (seconds <= 0 || gmtime_r(&seconds, &parts) == nullptr || parts.tm_year > 9999 - 1900 ||
        std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) {
        return "";
    }
    return text.data();
}

static std::string path(const node_facts& facts) {
    return facts.path;
}
static std::string file_size(const node_facts& facts) {
    const bool plain = S_ISREG(facts.status.stx_mode);
    return plain ? std::to_string(facts.status.stx_size) : "";
}
/* When the file came to where it is; some file systems only know when it was written. */
static std::string date_added(const node_facts& facts) {
    const bool known = (facts.status.stx_mask & STATX_BTIME) != 0;
    return moment(known ? facts.status.stx_btime : facts.status.stx_mtime);
}
static std::string date_modified(const node_facts& facts) {
    return moment(facts.status.stx_mtime);
}

/* Keys that need no look into the file. */
static constexpr struct {
    const char* name;
    std::string (*value)(const node_facts& facts);
} OUTER_KEYS[] = {
    {"date_added", date_added},
    {"date_modified", date_modified},
    {"file_size", file_size},
    {"path", path},
};

/* The place of a key in FILES_READER_KEYS, or behind its end. */
static size_t inner_key(const char* name) noexcept {
    const auto* found =
        std::find_if(std::begin(FILES_READER_KEYS), std::end(FILES_READER_KEYS),
                     [name](const char* key) { return std::strcmp(key, name) == 0; });
    return static_cast<size_t>(found - std::begin(FILES_READER_KEYS));
}

static uint32_t inner_keys(const char* const* keys) noexcept {
    uint32_t wanted = 0;
    for (size_t i = 0; keys[i] != nullptr; ++i) {
        const size_t key = inner_key(keys[i]);
        wanted |= key < FILES_READER_KEY_COUNT ? 1U << key : 0;
    }
    return wanted;
}

static std::string value_of(const node_facts& facts, const files_reader_found& found,
                            const char* name) {
    const size_t inner = inner_key(name);
    if (inner < FILES_READER_KEY_COUNT) {
        return found.values[inner];
    }
    for (const auto& key : OUTER_KEYS) {
        if (std::strcmp(key.name, name) == 0) {
            return key.value(facts);
        }
    }
    return "";
}

bool files_tags_extended_read(const files_source& source, const char* id, const char* const* keys,
                              const files_cancel& cancel, char** values) {
    node_facts facts;
    facts.path = files_node_path(source, id);
    const vel_fd node(files_node_open(source, id, O_PATH));
    if (node.value < 0 || statx(node.value, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC,
                                STATX_BASIC_STATS | STATX_BTIME, &facts.status) != 0) {
        return true;
    }
    files_reader_found found;
    const files_reader_wish wish = {FILES_READ_KEYS, inner_keys(keys)};
    if (S_ISREG(facts.status.stx_mode) && wish.keys != 0 &&
        files_reader_ask(source, id, wish, cancel, &found) == files_reader_end::cancelled) {
        return false;
    }
    size_t total = 0;
    for (size_t i = 0; keys[i] != nullptr && total < ALL_VALUES_MOST; ++i) {
        const std::string value = value_of(facts, found, keys[i]);
        values[i] = files_tags_text(value, FILES_TAG_EXTENDED_MOST);
        total += values[i] != nullptr ? std::strlen(values[i]) : 0;
    }
    return true;
}
