/* A vector of entries in the order of insertion, searched from the front: the dictionaries here
 * hold a dozen keys, where comparing lengths and bytes beats every index. */
#include <veloran/dict.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

/* One allocation: this head, the key with its NUL, then room for a value with its NUL. */
struct dict_entry {
    size_t key_length;
    size_t value_length;
    size_t value_room; /* bytes for the value, its NUL included */
};

constexpr int32_t FIRST_CAPACITY = 8;

} // namespace

struct strm_dict {
    dict_entry** entries; /* owned, each too */
    int32_t count;
    int32_t capacity;
};

static char* entry_key(dict_entry* entry) {
    return reinterpret_cast<char*>(entry + 1);
}
static char* entry_value(dict_entry* entry) {
    return entry_key(entry) + entry->key_length + 1;
}

/* Null without memory, or when the sizes do not fit into one allocation. */
static dict_entry* entry_new(const char* key, size_t key_length, const char* value,
                             size_t value_length) {
    const size_t most = SIZE_MAX / 4;
    if (key_length > most || value_length > most) {
        return nullptr;
    }
    void* memory = std::malloc(sizeof(dict_entry) + key_length + value_length + 2);
    if (memory == nullptr) {
        return nullptr;
    }
    auto* entry = new (memory) dict_entry{key_length, value_length, value_length + 1};
    std::memcpy(entry_key(entry), key, key_length + 1);
    std::memcpy(entry_value(entry), value, value_length + 1);
    return entry;
}

/* Position of a key, or -1. */
static int32_t find_entry(const strm_dict* dict, const char* key, size_t length) {
    for (int32_t i = 0; i < dict->count; ++i) {
        dict_entry* entry = dict->entries[i];
        if (entry->key_length == length && std::memcmp(entry_key(entry), key, length) == 0) {
            return i;
        }
    }
    return -1;
}

/* Makes room for `count` entries in all. */
static bool reserve_entries(strm_dict* dict, int32_t count) {
    if (count <= dict->capacity) {
        return true;
    }
    if (dict->capacity > INT32_MAX / 2) {
        return false;
    }
    int32_t capacity = dict->capacity == 0 ? FIRST_CAPACITY : dict->capacity * 2;
    if (capacity < count) {
        capacity = count;
    }
    void* grown = std::realloc(dict->entries, static_cast<size_t>(capacity) * sizeof(dict_entry*));
    if (grown == nullptr) {
        return false;
    }
    dict->entries = static_cast<dict_entry**>(grown);
    dict->capacity = capacity;
    return true;
}

static int32_t no_memory() {
    errno = ENOMEM;
    return -1;
}

/* Gives an existing entry a new value, in its place when it fits. The value may be the entry's
 * own text, or lie inside it. */
static int32_t replace_value(strm_dict* dict, int32_t position, const char* key,
                             const char* value) {
    dict_entry* entry = dict->entries[position];
    const size_t length = std::strlen(value);
    if (length < entry->value_room) {
        std::memmove(entry_value(entry), value, length + 1);
        entry->value_length = length;
        return 0;
    }
    dict_entry* other = entry_new(key, entry->key_length, value, length);
    if (other == nullptr) {
        return no_memory();
    }
    dict->entries[position] = other;
    std::free(entry);
    return 0;
}

/* A copy of the entries of `from` whose keys are not in `what` (null: of all). */
static strm_dict* copy_entries(const strm_dict* from, const strm_dict* what) {
    strm_dict* copy = strm_dict_new();
    if (copy == nullptr) {
        return nullptr;
    }
    for (int32_t i = 0; i < from->count; ++i) {
        dict_entry* entry = from->entries[i];
        if (what != nullptr && find_entry(what, entry_key(entry), entry->key_length) >= 0) {
            continue;
        }
        /* All entries of a plain copy will come: one allocation for the vector. */
        dict_entry* other = reserve_entries(copy, what == nullptr ? from->count : copy->count + 1)
                                ? entry_new(entry_key(entry), entry->key_length, entry_value(entry),
                                            entry->value_length)
                                : nullptr;
        if (other == nullptr) {
            strm_dict_destroy(copy);
            errno = ENOMEM;
            return nullptr;
        }
        copy->entries[copy->count++] = other;
    }
    return copy;
}

extern "C" {

strm_dict* strm_dict_new(void) noexcept {
    void* memory = std::malloc(sizeof(strm_dict));
    return memory == nullptr ? nullptr : new (memory) strm_dict{nullptr, 0, 0};
}

void strm_dict_destroy(strm_dict* dict) noexcept {
    if (dict == nullptr) {
        return;
    }
    for (int32_t i = 0; i < dict->count; ++i) {
        std::free(dict->entries[i]);
    }
    std::free(dict->entries);
    std::free(dict);
}

strm_dict* strm_dict_clone(const strm_dict* dict) noexcept {
    if (dict == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    return copy_entries(dict, nullptr);
}

int32_t strm_dict_set(strm_dict* dict, const char* key, const char* value) noexcept {
    if (dict == nullptr || key == nullptr || value == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const size_t key_length = std::strlen(key);
    const int32_t position = find_entry(dict, key, key_length);
    if (position >= 0) {
        return replace_value(dict, position, key, value);
    }
    if (dict->count == INT32_MAX || !reserve_entries(dict, dict->count + 1)) {
        return no_memory();
    }
    dict_entry* entry = entry_new(key, key_length, value, std::strlen(value));
    if (entry == nullptr) {
        return no_memory();
    }
    dict->entries[dict->count++] = entry;
    return 0;
}

int32_t strm_dict_delete(strm_dict* dict, const char* key) noexcept {
    if (dict == nullptr || key == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const int32_t position = find_entry(dict, key, std::strlen(key));
    if (position < 0) {
        errno = ENOENT;
        return -1;
    }
    std::free(dict->entries[position]);
    --dict->count;
    std::memmove(&dict->entries[position], &dict->entries[position + 1],
                 static_cast<size_t>(dict->count - position) * sizeof(dict_entry*));
    return 0;
}

const char* strm_dict_find(const strm_dict* dict, const char* key) noexcept {
    if (dict == nullptr || key == nullptr) {
        return nullptr;
    }
    const int32_t position = find_entry(dict, key, std::strlen(key));
    return position < 0 ? nullptr : entry_value(dict->entries[position]);
}

int32_t strm_dict_count(const strm_dict* dict) noexcept {
    return dict == nullptr ? 0 : dict->count;
}

int32_t strm_dict_at(const strm_dict* dict, int32_t position, const char** key,
                     const char** value) noexcept {
    if (dict == nullptr || position < 0 || position >= dict->count) {
        errno = ENOENT;
        return -1;
    }
    if (key != nullptr) {
        *key = entry_key(dict->entries[position]);
    }
    if (value != nullptr) {
        *value = entry_value(dict->entries[position]);
    }
    return 0;
}

strm_dict* strm_dict_subtract(const strm_dict* from, const strm_dict* what) noexcept {
    static const strm_dict nothing = {nullptr, 0, 0};
    if (from == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    return copy_entries(from, what == nullptr ? &nothing : what);
}
}
