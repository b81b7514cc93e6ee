/* Tags and length of media files, read by TagLib. */
#include "files_tags.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include <audioproperties.h>
#include <fileref.h>
#include <tag.h>
#include <tpropertymap.h>

/* A record that is freed with its strings. */
struct free_record {
    void operator()(metadata* record) const noexcept { free_metadata(&record); }
};
using metadata_owner = std::unique_ptr<metadata, free_record>;

/* A malloc()ed copy of `length` bytes. */
static char* copied(const char* text, size_t length) {
    char* copy = strndup(text, length);
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    return copy;
}

/* A copy of a tag's text in UTF-8, or null when it is empty. */
static char* tag_text(const TagLib::String& tag) {
    const std::string text = tag.to8Bit(true);
    size_t length = std::strlen(text.c_str());
    if (length > FILES_TAG_MOST) {
        length = FILES_TAG_MOST;
        while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) {
            --length;
        }
    }
    return length != 0 ? copied(text.c_str(), length) : nullptr;
}

/* Name of the file without its ending. */
static char* title_from_name(const std::string& path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    const size_t dot = name.rfind('.');
    return copied(name.c_str(), dot != std::string::npos && dot > 0 ? dot : name.size());
}

static void read_tag(const TagLib::Tag& tag, metadata* record) {
    record->title = tag_text(tag.title());
    record->artist = tag_text(tag.artist());
    record->album = tag_text(tag.album());
    record->genre = tag_text(tag.genre());
    if (tag.year() != 0) {
        record->year = tag_text(TagLib::String::number(static_cast<int>(tag.year())));
    }
    record->track = static_cast<int32_t>(tag.track());
}

/* The number of the disc: "2", or "2/3" of so many. */
static int32_t disc_number(const TagLib::PropertyMap& properties) {
    const auto found = properties.find("DISCNUMBER");
    if (found == properties.end() || found->second.isEmpty()) {
        return 0;
    }
    const int number = found->second.front().split("/").front().toInt();
    return number > 0 ? number : 0;
}

static void read_file(const std::string& path, metadata* record) {
    const TagLib::FileRef file(path.c_str());
    if (file.isNull()) {
        return;
    }
    if (file.tag() != nullptr) {
        read_tag(*file.tag(), record);
        record->disc = disc_number(file.file()->properties());
    }
    if (file.audioProperties() != nullptr) {
        record->duration = std::max(0, file.audioProperties()->lengthInMilliseconds());
    }
}

metadata* files_tags_read(const std::string& path) {
    metadata_owner record(static_cast<metadata*>(std::calloc(1, sizeof(metadata))));
    if (record == nullptr) {
        throw std::bad_alloc();
    }
    read_file(path, record.get());
    if (record->title == nullptr) {
        record->title = title_from_name(path);
    }
    return record.release();
}
