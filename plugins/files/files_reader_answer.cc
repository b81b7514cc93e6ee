/* What the reader found in a file, on its way to the plug-in. */
#include "files_reader_answer.h"

#include <cstring>

/* The texts of a record, in their order. */
static constexpr std::string files_reader_found::*TEXTS[] = {
    &files_reader_found::title, &files_reader_found::artist, &files_reader_found::album,
    &files_reader_found::genre, &files_reader_found::year,   &files_reader_found::album_artist};
static constexpr int32_t files_reader_found::*NUMBERS[] = {
    &files_reader_found::duration, &files_reader_found::disc, &files_reader_found::track};

/* --- writing -------------------------------------------------------------------------------- */

static void put(std::string* bytes, uint32_t number) {
    bytes->append(reinterpret_cast<const char*>(&number), sizeof number);
}

static void put(std::string* bytes, const std::string& text) {
    put(bytes, static_cast<uint32_t>(text.size()));
    *bytes += text;
}

std::string files_reader_answer_write(const files_reader_wish& wish,
                                      const files_reader_found& found) {
    std::string bytes;
    if ((wish.wanted & FILES_READ_RECORD) != 0) {
        for (const auto number : NUMBERS) {
            put(&bytes, static_cast<uint32_t>(found.*number));
        }
        for (const auto text : TEXTS) {
            put(&bytes, found.*text);
        }
    }
    if ((wish.wanted & FILES_READ_PICTURE) != 0) {
        put(&bytes, found.picture);
    }
    for (size_t i = 0; (wish.wanted & FILES_READ_KEYS) != 0 && i < found.values.size(); ++i) {
        if ((wish.keys >> i & 1) != 0) {
            put(&bytes, found.values[i]);
        }
    }
    if ((wish.wanted & FILES_READ_LOCATIONS) != 0) {
        put(&bytes, static_cast<uint32_t>(found.locations.size()));
        for (const std::string& location : found.locations) {
            put(&bytes, location);
        }
    }
    return bytes;
}

/* --- taking apart --------------------------------------------------------------------------- */

static bool take(std::string_view* bytes, uint32_t most, uint32_t* number) noexcept {
    if (bytes->size() < sizeof *number) {
        return false;
    }
    std::memcpy(number, bytes->data(), sizeof *number);
    bytes->remove_prefix(sizeof *number);
    return *number <= most;
}

static bool take_bytes(std::string_view* bytes, size_t most, std::string* text) {
    uint32_t length = 0;
    if (!take(bytes, static_cast<uint32_t>(most), &length) || length > bytes->size()) {
        return false;
    }
    text->assign(bytes->data(), length);
    bytes->remove_prefix(length);
    return true;
}

static bool take(std::string_view* bytes, size_t most, std::string* text) {
    return take_bytes(bytes, most, text) && text->find('\0') == std::string::npos;
}

static bool take_record(std::string_view* bytes, files_reader_found* found) {
    for (const auto number : NUMBERS) {
        uint32_t value = 0;
        if (!take(bytes, INT32_MAX, &value)) {
            return false;
        }
        found->*number = static_cast<int32_t>(value);
    }
    for (const auto text : TEXTS) {
        if (!take(bytes, FILES_TAG_MOST, &(found->*text))) {
            return false;
        }
    }
    return true;
}

static bool take_keys(std::string_view* bytes, uint32_t keys, files_reader_found* found) {
    for (size_t i = 0; i < found->values.size(); ++i) {
        if ((keys >> i & 1) != 0 && !take(bytes, FILES_TAG_EXTENDED_MOST, &found->values[i])) {
            return false;
        }
    }
    return true;
}

static bool take_locations(std::string_view* bytes, files_reader_found* found) {
    uint32_t count = 0;
    if (!take(bytes, FILES_PLAYLIST_ENTRIES, &count)) {
        return false;
    }
    for (uint32_t i = 0; i < count; ++i) {
        if (!take(bytes, FILES_PLAYLIST_LOCATION, &found->locations.emplace_back())) {
            return false;
        }
    }
    return true;
}

bool files_reader_answer_take(std::string_view bytes, const files_reader_wish& wish,
                              files_reader_found* found) {
    const auto wants = [&wish](uint32_t what) { return (wish.wanted & what) != 0; };
    return (!wants(FILES_READ_RECORD) || take_record(&bytes, found)) &&
           (!wants(FILES_READ_PICTURE) ||
            take_bytes(&bytes, FILES_PICTURE_MOST, &found->picture)) &&
           (!wants(FILES_READ_KEYS) || take_keys(&bytes, wish.keys, found)) &&
           (!wants(FILES_READ_LOCATIONS) || take_locations(&bytes, found)) && bytes.empty();
}
