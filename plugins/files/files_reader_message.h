/* What the plug-in and its reader say to each other. The reader is a program of its own, because
 * what it reads comes from anybody: it may be taken over by a file, so the plug-in trusts no byte
 * of an answer.
 *
 * They share a SOCK_SEQPACKET pair. The reader begins with a files_reader_hello. Each request is
 * one packet with the opened file as a descriptor (SCM_RIGHTS); requests are answered in their
 * order. An answer is a files_reader_head and as many bytes as it says, cut into packets of
 * FILES_READER_PACKET bytes. In these bytes numbers have 32 bits, and a text is its length and its
 * bytes, without NUL:
 *
 *   FILES_READ_RECORD     duration in ms, disc, track, title, artist, album, genre, year, album
 *                         artist
 *   FILES_READ_PICTURE    the length of the picture, and its bytes
 *   FILES_READ_KEYS       a text for each of the keys that is asked for, in their order
 *   FILES_READ_LOCATIONS  their number, and a text for each
 *
 * what is wanted stands there in this order. Both are of one build; byte order is the machine's. */
#ifndef LYRANE_FILES_READER_MESSAGE_H
#define LYRANE_FILES_READER_MESSAGE_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

constexpr uint32_t FILES_READ_RECORD = 1;
constexpr uint32_t FILES_READ_PICTURE = 2;
constexpr uint32_t FILES_READ_KEYS = 4;
constexpr uint32_t FILES_READ_LOCATIONS = 8;

/* Longest text of a tag in bytes, and of the value of a key. */
constexpr size_t FILES_TAG_MOST = 4096;
constexpr size_t FILES_TAG_EXTENDED_MOST = size_t{64} * 1024;
/* A larger picture is none, in bytes. */
constexpr size_t FILES_PICTURE_MOST = size_t{16} * 1024 * 1024;
/* A larger playlist is read up to there, in bytes; so many of its entries count, and none that is
 * longer than any path can be written. */
constexpr size_t FILES_PLAYLIST_BYTES = size_t{4} * 1024 * 1024;
constexpr size_t FILES_PLAYLIST_ENTRIES = 20000;
constexpr size_t FILES_PLAYLIST_LOCATION = size_t{16} * 1024;

/* Keys that need a look into the file; a set of them has bit n for the n-th. */
constexpr const char* FILES_READER_KEYS[] = {
    "bitrate",
    "sample_rate",
    "channels",
    "codec",
    "composer",
    "album_artist",
    "replaygain_track_gain",
    "replaygain_track_peak",
    "replaygain_album_gain",
    "replaygain_album_peak",
    "lyrics",
    "comment",
    "rating",
};
constexpr size_t FILES_READER_KEY_COUNT = std::extent_v<decltype(FILES_READER_KEYS)>;

constexpr size_t FILES_READER_PACKET = size_t{64} * 1024;
/* Most bytes of an answer: a picture, or a playlist, and what else there is. */
constexpr size_t FILES_READER_ANSWER_MOST = FILES_PICTURE_MOST + size_t{1024} * 1024;
constexpr size_t FILES_READER_NAME = 256;

/* Changes with everything in here. */
constexpr uint32_t FILES_READER_VERSION = 0x4C590001;
constexpr uint32_t FILES_READER_FILTERED = 1; /* a filter of system calls is set */

/* Exit status of a reader that needs more memory than it may have. */
constexpr int FILES_READER_NO_MEMORY = 3;

struct files_reader_hello {
    uint32_t version;
    uint32_t flags;
};

struct files_reader_request {
    uint32_t number; /* comes back with the answer */
    uint32_t wanted; /* FILES_READ_* */
    uint32_t keys;
    uint32_t reserved;
    uint64_t size;                /* of the file, in bytes */
    char name[FILES_READER_NAME]; /* its ending tells the kind; with a NUL */
};

struct files_reader_head {
    uint32_t number;
    uint32_t length; /* bytes that follow */
};

static_assert(sizeof(files_reader_request) == 24 + FILES_READER_NAME);
static_assert(FILES_PLAYLIST_BYTES + 4 * FILES_PLAYLIST_ENTRIES < FILES_READER_ANSWER_MOST);

#endif
