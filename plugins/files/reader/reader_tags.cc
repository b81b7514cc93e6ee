/* Tags and length of a media file. */
#include "reader_tags.h"

#include <algorithm>
#include <cstdint>

#include <audioproperties.h>
#include <tag.h>
#include <wavfile.h>

#include "files_reader_message.h"
#include "files_tags_text.h"

static std::string tag_text(const TagLib::String& tag) {
    return files_tags_cut(tag.to8Bit(true), FILES_TAG_MOST);
}

static void read_tag(const TagLib::Tag& tag, files_reader_found* found) {
    found->title = tag_text(tag.title());
    found->artist = tag_text(tag.artist());
    found->album = tag_text(tag.album());
    found->genre = tag_text(tag.genre());
    if (tag.year() != 0) {
        found->year = tag_text(TagLib::String::number(static_cast<int>(tag.year())));
    }
    found->track = static_cast<int32_t>(std::min(tag.track(), unsigned{INT32_MAX}));
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

static std::string album_artist(const TagLib::PropertyMap& properties) {
    const auto artist = properties.find("ALBUMARTIST");
    const bool there = artist != properties.end() && !artist->second.isEmpty();
    return there ? tag_text(artist->second.front()) : "";
}

/* The tag that counts. A WAV file may have either of two; TagLib offers the newer one, if it is
 * there or not. */
static const TagLib::Tag* tag_of(const TagLib::FileRef& file) {
    const auto* wav = dynamic_cast<const TagLib::RIFF::WAV::File*>(file.file());
    if (wav != nullptr && !wav->hasID3v2Tag() && wav->hasInfoTag()) {
        return wav->InfoTag();
    }
    return file.tag();
}

void reader_tags(const reader_file& file, files_reader_found* found) {
    if (file.tags.isNull()) {
        return;
    }
    const TagLib::Tag* tag = tag_of(file.tags);
    if (tag != nullptr) {
        read_tag(*tag, found);
        found->disc = disc_number(file.properties);
        found->album_artist = album_artist(file.properties);
    }
    if (file.tags.audioProperties() != nullptr) {
        found->duration = std::max(0, file.tags.audioProperties()->lengthInMilliseconds());
    }
}
