#include "recode.h"

#include <vector>

#include <lyrane/client.h>

#include "input.h"
#include "record_encode.h"

namespace {

/* A copy, for which the text is read to its end. Null for an empty one, too: that is what a text
 * with a NUL in front becomes on its second way. */
char* whole(const char* text) {
    return text == nullptr || *text == '\0' ? nullptr : strdup(text);
}

void release(std::initializer_list<char*> texts) {
    for (char* text : texts) {
        free(text);
    }
}

bool recode_sources(const std::vector<unsigned char>& bytes, int32_t count, std::string* packed) {
    lyr_ms* decoded = nullptr;
    if (unpack_media_source(bytes.data(), static_cast<int32_t>(bytes.size()), count, &decoded) !=
        0) {
        require(decoded == nullptr, "a refused source leaves nothing");
        return false;
    }
    std::vector<mediasource> copies(static_cast<size_t>(count));
    for (size_t i = 0; i < copies.size(); ++i) {
        const lyr_ms& from = decoded[i];
        copies[i].id = from.id;
        copies[i].type = from.type;
        copies[i].status = from.status;
        copies[i].capabilities = from.capabilities;
        copies[i].uid = whole(from.uid);
        copies[i].name = whole(from.name);
        copies[i].view_name = whole(from.view_name);
        release({from.uid, from.name, from.view_name});
    }
    free(decoded);
    int32_t size = compute_media_source_size(copies.data(), count);
    packed->resize(static_cast<size_t>(size));
    pack_media_source(copies.data(), count, packed->data(), &size);
    require(static_cast<size_t>(size) == packed->size(), "a source has its computed size");
    for (const mediasource& copy : copies) {
        release({copy.uid, copy.name, copy.view_name});
    }
    return true;
}

bool recode_nodes(const std::vector<unsigned char>& bytes, int32_t count, std::string* packed) {
    lyr_ms_node* decoded = nullptr;
    if (unpack_media_node(bytes.data(), static_cast<int32_t>(bytes.size()), count, &decoded) != 0) {
        require(decoded == nullptr, "a refused node leaves nothing");
        return false;
    }
    std::vector<medianode> copies(static_cast<size_t>(count));
    for (size_t i = 0; i < copies.size(); ++i) {
        const lyr_ms_node& from = decoded[i];
        copies[i].type = from.type;
        copies[i].count = from.count;
        copies[i].ms_id = from.ms_id;
        copies[i].ms_type = from.ms_type;
        copies[i].id = whole(from.id);
        copies[i].name = whole(from.name);
    }
    free_lyr_ms_nodes(&decoded, count);
    int32_t size = compute_media_node_size(copies.data(), count);
    packed->resize(static_cast<size_t>(size));
    pack_media_node(copies.data(), count, packed->data(), &size);
    require(static_cast<size_t>(size) == packed->size(), "a node has its computed size");
    for (medianode& copy : copies) {
        free_medianode_contents(&copy);
    }
    return true;
}

metadata copy_metadata(const lyr_ms_node_metadata& from) {
    metadata copy = {};
    copy.duration = from.duration;
    copy.width = from.width;
    copy.height = from.height;
    copy.disc = from.disc;
    copy.track = from.track;
    copy.title = whole(from.title);
    copy.artwork = whole(from.artwork);
    copy.artist = whole(from.artist);
    copy.album = whole(from.album);
    copy.genre = whole(from.genre);
    copy.year = whole(from.year);
    copy.extra = whole(from.extra);
    return copy;
}

bool recode_metadata(const std::vector<unsigned char>& bytes, int32_t count, std::string* packed) {
    lyr_ms_node_metadata* decoded = nullptr;
    if (unpack_metadata(bytes.data(), static_cast<int32_t>(bytes.size()), count, &decoded) != 0) {
        require(decoded == nullptr, "refused metadata leaves nothing");
        return false;
    }
    std::vector<metadata> copies(static_cast<size_t>(count));
    for (size_t i = 0; i < copies.size(); ++i) {
        const lyr_ms_node_metadata& from = decoded[i];
        copies[i] = copy_metadata(from);
        release(
            {from.title, from.artwork, from.artist, from.album, from.genre, from.year, from.extra});
    }
    free(decoded);
    int32_t size = compute_metadata_size(copies.data(), count);
    packed->resize(static_cast<size_t>(size));
    pack_metadata(copies.data(), count, packed->data(), &size);
    require(static_cast<size_t>(size) == packed->size(), "metadata has its computed size");
    for (const metadata& copy : copies) {
        release(
            {copy.title, copy.artwork, copy.artist, copy.album, copy.genre, copy.year, copy.extra});
    }
    return true;
}

} // namespace

bool recode(record_kind kind, const std::string& bytes, int32_t count, std::string* packed) {
    const std::vector<unsigned char> exact(bytes.begin(), bytes.end());
    switch (kind) {
    case record_kind::media_source:
        return recode_sources(exact, count, packed);
    case record_kind::media_node:
        return recode_nodes(exact, count, packed);
    default:
        return recode_metadata(exact, count, packed);
    }
}

void require_records(record_kind kind, const std::string& bytes, int32_t count) {
    require(count >= 0, "a count of records");
    std::string packed;
    if (count > 0) {
        require(recode(kind, bytes, count, &packed), "records of the service decode");
    }
    require(packed.size() == bytes.size(), "records of the service take up their reply");
}
