/* The bytes between a test and the plug-in in another process. */
#ifndef FAKE_STREAM_H
#define FAKE_STREAM_H

#include <cerrno>
#include <cstddef>

#include <sys/socket.h>

/* Receives (`in`) or sends all of `size` bytes; false when the other side has gone. */
inline bool transfer(int fd, void* data, size_t size, bool in) {
    char* at = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t moved = in ? recv(fd, at, size, 0) : send(fd, at, size, MSG_NOSIGNAL);
        if (moved < 0 && errno == EINTR) {
            continue;
        }
        if (moved <= 0) {
            return false;
        }
        at += moved;
        size -= static_cast<size_t>(moved);
    }
    return true;
}

#endif
