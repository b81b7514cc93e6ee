/* Tags and length of media files. */
#include "files_tags.h"

#include <cstdlib>
#include <memory>
#include <new>

#include "files_tags_text.h"

/* A record that is freed with its strings. */
struct free_record {
    void operator()(metadata* record) const noexcept { free_metadata(&record); }
};
using metadata_owner = std::unique_ptr<metadata, free_record>;

std::string files_tags_stem(const std::string& path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    const size_t dot = name.rfind('.');
    return dot != std::string::npos && dot > 0 ? name.substr(0, dot) : name;
}

metadata* files_tags_record(const files_reader_found& found, const std::string& path) {
    metadata_owner record(static_cast<metadata*>(std::calloc(1, sizeof(metadata))));
    if (record == nullptr) {
        throw std::bad_alloc();
    }
    record->title =
        files_tags_text(found.title.empty() ? files_tags_stem(path) : found.title, FILES_TAG_MOST);
    record->artist = files_tags_text(found.artist, FILES_TAG_MOST);
    record->album = files_tags_text(found.album, FILES_TAG_MOST);
    record->genre = files_tags_text(found.genre, FILES_TAG_MOST);
    record->year = files_tags_text(found.year, FILES_TAG_MOST);
    record->duration = found.duration;
    record->disc = found.disc;
    record->track = found.track;
    return record.release();
}
