/* PPS: publish/subscribe objects as regular files below "/pps" (in the runtime root, see
 * <veloran/paths.h>), which any program may read.
 *
 * An object's file holds its present content: the line "@NAME", then one line an attribute,
 * "name:encoding:value" ("rate:n:1.0", "status::playing", "track:json:{...}"). An update is a text
 * of such lines, each merged into the content, and of lines "-name", each of which withdraws an
 * attribute. The file is replaced whole by each update, also by one that changes nothing, so a
 * reader sees the content before or after it, never a mixture, and every watcher is woken.
 *
 * Readers with the options "wait" and "delta" get the present content first and then what
 * changed, as lines of the same kind: "@NAME", the attributes that are new or have another value,
 * "-name" for each one withdrawn; after a republication without a change, all attributes. An
 * object that has gone reads "-@NAME". The object name ".all" means every object of the directory.
 * Nothing polls.
 *
 * Path options, behind a '?' and separated by commas:
 *   nopersist  the object does not outlive the system; so do all here
 *   wait       a read waits until there is something new, instead of returning 0
 *   delta      a read gives what changed, instead of the whole content
 *   deep       with ".all": also the objects of the directories below, to a depth of
 *              PPS_DEPTH_MAX, which are named by their path: "@radio/state"
 *
 * Paths must lie below "/pps"; no part may start with '.' or be longer than 255 bytes. No symbolic
 * link below "/pps" is ever followed. "/pps" and the directory below it are made when they are
 * missing (mode 0755), others are not. Where "/pps" is, is settled at the first use; a process that
 * detaches (and so closes descriptors) does that first.
 *
 * Functions return 0 or what they say, or -1 with errno set. [any thread]; one pps_object belongs
 * to one thread at a time. Nothing throws. All descriptors are close-on-exec. */
#ifndef VELORAN_PPS_H
#define VELORAN_PPS_H

#include <cstddef>
#include <cstdint>

#include <sys/types.h>
#include <sys/uio.h>

constexpr int32_t PPS_DEPTH_MAX = 4;                /* directories below the one of ".all?deep" */
constexpr size_t PPS_OBJECT_MAX = size_t{16} << 20; /* bytes of an object's file */
constexpr int32_t PPS_ATTRIBUTES_MAX = 4096;        /* attributes of one object */

/* An object opened for writing or for reading. */
struct pps_object;

/* One line of an object's text, as pps_next_line finds it; not terminated, points into the text. */
struct pps_line {
    char kind;        /* '@' object, '~' object gone, '-' attribute gone, '=' attribute */
    const char* name; /* of the object or of the attribute */
    size_t name_length;
    const char* value; /* of '=': the text from its first ':' on, as in ":n:12" */
    size_t value_length;
};

extern "C" {

/* Makes a directory with this mode, less the masks of the name space (paths_mode) and of the
 * process. EEXIST when there is one of the service's user (paths_user), which loses the bits of the
 * mask. Anything else in its place is set aside and removed as far as that can be done; -1 where
 * even that fails. */
int32_t pps_mkdir(const char* path, uint32_t mode) noexcept;
/* Removes a directory with all it holds, without following links; one that is gone already, or in
 * whose place is somebody else's that cannot be moved, is no error. Other users' directories inside
 * it that cannot be emptied are set aside. */
int32_t pps_rmdir(const char* path) noexcept;
/* Whether there is room for some more objects where they are kept. 0, or -1 with errno set, ENOSPC
 * for too little. [any thread] */
int32_t pps_check_room(void) noexcept;
/* Removes an object. ENOENT when there is none. */
int32_t pps_unlink(const char* path) noexcept;
/* Removes all that a directory holds, without following links, and keeps the directory. What
 * cannot be removed is left; then -1 with the first error. A directory that is missing is no
 * error. */
int32_t pps_clear_tree(const char* path) noexcept;

/* Opens an object, or ".all" of a directory. The object belongs to the caller. `flags`:
 *   O_RDONLY             read or watch it; ENOENT when it is missing
 *   O_WRONLY             update it; with O_CREAT it is made when missing (`mode`, less the
 *                        same masks); with O_TRUNC it starts anew, without content, whatever stood
 *                        in its place
 * A writer keeps the merged content itself: an object has one writer at a time, and the content of
 * another's update in between is replaced by the next own update. A writer holds one descriptor,
 * shared with the other writers of the directory. A watcher holds an inotify instance.
 * Null with errno set: EINVAL for a path or flags that make no sense, EISDIR for a directory. */
pps_object* pps_open(const char* path, int32_t flags, uint32_t mode) noexcept;
/* Releases the object; what is published stays. Accepts null. */
void pps_close(pps_object* object) noexcept;

/* Publishes one update: all of it, or nothing. EINVAL for a line that is none (an attribute is
 * "name:encoding:value"; a NUL at the end of the whole text is dropped), EFBIG beyond
 * PPS_OBJECT_MAX or PPS_ATTRIBUTES_MAX, EBADF for an object that is open for reading. A directory
 * that somebody took away is made again. */
int32_t pps_write(pps_object* object, const char* text, size_t length) noexcept;
/* The same, gathered from any number of pieces. */
int32_t pps_writev(pps_object* object, const struct iovec* pieces, size_t count) noexcept;

/* Reads the next text into `buffer`: the number of bytes, or 0 when there is nothing new (without
 * "wait"). A text that does not fit is continued by the next reads; one read never gives texts of
 * two objects. `stop_fd`, when not -1, ends the waiting as soon as it is readable: ECANCELED.
 * ENOENT after the watched directory itself has gone. Files that are no objects (links, other
 * file types, larger than PPS_OBJECT_MAX, names starting with '.') are passed over. */
ssize_t pps_read(pps_object* object, char* buffer, size_t size, int32_t stop_fd) noexcept;
/* A descriptor for poll(): readable when a read may have something new. Borrowed; -1 for a
 * writer. Read until 0 before polling, without the option "wait". */
int32_t pps_poll_fd(const pps_object* object) noexcept;

/* Takes the next line from a text of which `*length` bytes are left, and moves both on behind it.
 * 1, or 0 at the end. Lines that are none are passed over. A last line without a line end counts
 * as a line, and a NUL behind it does not count. */
int32_t pps_next_line(const char** text, size_t* length, pps_line* line) noexcept;
}

#endif
