/* Media records: what a media source, a media node and its metadata look like in memory, for the
 * service, for plug-ins and for clients, and the operations that release them.
 *
 * Ownership: every string in every record is a separate malloc() allocation that the record owns;
 * a null string means "not known". Only the malloc family may be used (malloc, calloc, strdup):
 * the other side of the border releases with free(). Text is any bytes without NUL; it is normally
 * UTF-8, and nobody may fail when it is not.
 *
 * Release operations: [any thread], no lock needed, never fail. All accept null and then do
 * nothing. Those that take the address of a pointer set that pointer to null. The "contents"
 * operations free the strings of a record that the caller owns and set them to null.
 */
#ifndef LYRANE_RECORDS_H
#define LYRANE_RECORDS_H

#include <stdint.h>

#ifdef __cplusplus
#define LYR_NOEXCEPT noexcept
extern "C" {
#else
#define LYR_NOEXCEPT
#endif

/* Media-source types; a plug-in's `types` and a source's `type` are masks of these. */
#define LYR_MS_TYPE_HDD 0x1
#define LYR_MS_TYPE_USB 0x2
#define LYR_MS_TYPE_IPOD 0x10
#define LYR_MS_TYPE_DLNA 0x100
#define LYR_MS_TYPE_MTP 0x10000

/* Capability bits of a media source: what may be asked of the plug-ins that serve it. */
#define LYR_CAP_PLAY UINT64_C(0x1)
#define LYR_CAP_PAUSE UINT64_C(0x2)
#define LYR_CAP_NEXT UINT64_C(0x4)
#define LYR_CAP_PREVIOUS UINT64_C(0x8)
#define LYR_CAP_SEEK UINT64_C(0x10)
#define LYR_CAP_MODES UINT64_C(0x40) /* shuffle and repeat on the device */
#define LYR_CAP_STOP UINT64_C(0x400) /* stop and playback rate */
#define LYR_CAP_METADATA UINT64_C(0x10000)
#define LYR_CAP_SEARCH UINT64_C(0x20000)
#define LYR_CAP_BROWSE UINT64_C(0x40000)
#define LYR_CAP_EXTENDED_METADATA UINT64_C(0x80000)
#define LYR_CAP_DEVICE_LIST UINT64_C(0x10000000) /* adds LYR_CAP_DEVICE_LIST_ADDS on connection */
#define LYR_CAP_DEVICE_LIST_ADDS UINT64_C(0xBCC)

/* Media-node types that the service knows; other values are neither folder nor playable. */
#define LYR_NODE_FOLDER 1
#define LYR_NODE_AUDIO 2
#define LYR_NODE_VIDEO 3

/* Player states, as `status` in state records and replies. */
#define LYR_STATUS_DESTROYED 0
#define LYR_STATUS_IDLE 1
#define LYR_STATUS_PLAYING 2
#define LYR_STATUS_PAUSED 3
#define LYR_STATUS_STOPPED 4

#define LYR_SHUFFLE_OFF 0
#define LYR_SHUFFLE_ON 1

#define LYR_REPEAT_OFF 0
#define LYR_REPEAT_ALL 1
#define LYR_REPEAT_ONE 2

/* One media source that a plug-in has announced. The service owns these records; they never move
 * and are never freed while it runs. Inside the service `capabilities`, `status` and `active` are
 * read and written with atomic operations, because plug-in threads change them. */
typedef struct mediasource {
    int32_t id;            /* service-wide id, 0, 1, 2 ...; never reused */
    char* uid;             /* the plug-in's identifier of the source; never null */
    char* name;            /* display name, or null */
    char* view_name;       /* second display name, or null */
    int32_t type;          /* mask of LYR_MS_TYPE_* */
    uint64_t capabilities; /* mask of LYR_CAP_* */
    int32_t status;        /* as the plug-in reports it; 0 after a disconnection */
    char* plugin_name;     /* library name of the owning plug-in */
    int32_t plugin_id;     /* id of the owning plug-in */
    int32_t active;        /* 1 while connected */
} mediasource;

/* One media node: a folder or a track. Arrays are contiguous. */
typedef struct medianode {
    char* id;        /* unique within the media source; opaque text of the plug-in */
    char* name;      /* display name, or null */
    char* url;       /* where the content is, or null */
    int32_t type;    /* LYR_NODE_*, or the plug-in's own */
    int32_t count;   /* children, for a folder */
    int32_t ms_id;   /* the media source's id */
    int32_t ms_type; /* the media source's type */
    char* ms_uid;    /* the media source's uid, or null */
} medianode;

/* Metadata of one media node. Arrays are contiguous. */
typedef struct metadata {
    char* title;
    int32_t duration; /* ms */
    char* artwork;    /* location of a picture */
    char* artist;
    char* album;
    char* genre;
    char* year;    /* text, not a number */
    int32_t width; /* pixels, video only */
    int32_t height;
    int32_t disc;
    int32_t track;
    char* extra; /* one further text; sent in replies, not published */
} metadata;

/* The forms that reply decoders hand to client and plug-in code. */
typedef struct lyr_ms {
    int32_t id;
    char* uid;
    char* name;
    char* view_name;
    int32_t type;
    int32_t status;
    uint64_t capabilities;
} lyr_ms;

typedef struct lyr_ms_node {
    char* id;
    char* name;
    int32_t type;
    int32_t count;
    int32_t ms_id;
    int32_t ms_type;
} lyr_ms_node;

typedef struct lyr_ms_node_metadata {
    char* title;
    int32_t duration; /* ms */
    char* artwork;
    char* artist;
    char* album;
    char* genre;
    char* year;
    int32_t width;
    int32_t height;
    int32_t disc;
    int32_t track;
    char* extra;
} lyr_ms_node_metadata;

void free_medianode(medianode** node) LYR_NOEXCEPT;
void free_medianodes(medianode** nodes, int32_t count) LYR_NOEXCEPT;
void free_medianode_contents(medianode* node) LYR_NOEXCEPT;
void free_metadata(metadata** data) LYR_NOEXCEPT;
void free_lyr_ms_node_metadata(lyr_ms_node_metadata** data) LYR_NOEXCEPT;
void free_lyr_ms(lyr_ms** source) LYR_NOEXCEPT;
void free_lyr_ms_node(lyr_ms_node** node) LYR_NOEXCEPT;
void free_lyr_ms_nodes(lyr_ms_node** nodes, int32_t count) LYR_NOEXCEPT;
void free_lyr_ms_node_contents(lyr_ms_node* node) LYR_NOEXCEPT;

/* Media-source records live as long as the service: frees nothing, returns its argument. */
mediasource* free_mediasource(mediasource* source) LYR_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
