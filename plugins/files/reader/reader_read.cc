/* Reading one file. */
#include "reader_read.h"

#include <algorithm>

#include "reader_file.h"
#include "reader_keys.h"
#include "reader_picture.h"
#include "reader_playlist.h"
#include "reader_tags.h"

static void read_media(int fd, const files_reader_request& request, files_reader_found* found) {
    reader_file file = {{fd, request.size, request.name}, {}, {}};
    file.tags = TagLib::FileRef(&file.stream);
    if (file.tags.isNull()) {
        return;
    }
    file.properties = file.tags.file()->properties();
    if ((request.wanted & FILES_READ_RECORD) != 0) {
        reader_tags(file, found);
    }
    if ((request.wanted & FILES_READ_PICTURE) != 0) {
        found->picture = reader_picture(file.tags.file());
    }
    for (size_t i = 0; (request.wanted & FILES_READ_KEYS) != 0 && i < found->values.size(); ++i) {
        if ((request.keys >> i & 1) != 0) {
            found->values[i] = reader_key(file, i);
        }
    }
}

static std::string read_text(int fd, uint64_t size) {
    std::string text(static_cast<size_t>(std::min<uint64_t>(size, FILES_PLAYLIST_BYTES)), '\0');
    text.resize(reader_stream_read(fd, 0, text.data(), text.size()));
    return text;
}

files_reader_found reader_read(int fd, const files_reader_request& request) {
    files_reader_found found;
    if ((request.wanted & ~FILES_READ_LOCATIONS) != 0) {
        read_media(fd, request, &found);
    }
    if ((request.wanted & FILES_READ_LOCATIONS) != 0) {
        found.locations = reader_playlist(request.name, read_text(fd, request.size));
    }
    return found;
}
