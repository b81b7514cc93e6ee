#include <veloran/server_object.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

#include <sys/socket.h>
#include <unistd.h>

#include <veloran/paths.h>

#include "message_channel.h"
#include "message_connect.h"

#ifndef SO_PASSRIGHTS
#define SO_PASSRIGHTS 83 /* since Linux 6.16 */
#endif

struct server_object {
    message_name name;
};

namespace {

/* Bytes of the next message without taking it; -1 with errno set, ECONNRESET at the end. A message
 * with descriptors is never taken, for who takes it drops them, and that may wait (closer.h): the
 * other end broke the protocol, and is as good as gone. */
ssize_t next_length(int fd) {
    char byte;
    iovec piece{&byte, sizeof byte};
    msghdr packet{};
    packet.msg_iov = &piece;
    packet.msg_iovlen = 1;
    ssize_t length;
    do {
        length = recvmsg(fd, &packet, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
    } while (length < 0 && errno == EINTR);
    if (length == 0 || (length > 0 && (packet.msg_flags & MSG_CTRUNC) != 0)) {
        errno = ECONNRESET;
        return -1;
    }
    return length;
}

/* Takes a message whose length is known, as far as there is room. */
ssize_t take(int fd, char* text, size_t room) {
    ssize_t got;
    do {
        got = recv(fd, text, room, MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    return got;
}

} // namespace

extern "C" {

server_object* server_object_create(const char* path, mode_t mode) noexcept {
    const int32_t lock = message_name_claim(path);
    if (lock < 0) {
        return nullptr;
    }
    server_object* object = new (std::nothrow) server_object;
    if (object == nullptr) {
        close(lock);
        errno = ENOMEM;
        return nullptr;
    }
    if (!message_name_listen(&object->name, path, lock, mode, static_cast<uid_t>(-1),
                             static_cast<gid_t>(-1))) {
        const int error = errno;
        server_object_destroy(object);
        errno = error;
        return nullptr;
    }
    /* Where the system can, clients cannot even send descriptors; what is accepted inherits it. */
    const int off = 0;
    (void)setsockopt(object->name.listen_fd, SOL_SOCKET, SO_PASSRIGHTS, &off, sizeof off);
    return object;
}

int32_t server_object_descriptor(const server_object* object) noexcept {
    return object->name.listen_fd;
}

int32_t server_object_accept(server_object* object) noexcept {
    int fd;
    do {
        fd = accept4(object->name.listen_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    } while (fd < 0 && (errno == EINTR || errno == ECONNABORTED));
    return fd;
}

void server_object_destroy(server_object* object) noexcept {
    if (object != nullptr) {
        message_name_remove(&object->name);
        delete object;
    }
}

int32_t server_object_open(const char* path) noexcept {
    char plain[PATH_MAX];
    char real[PATH_MAX];
    const size_t length = strcspn(path, "?");
    if (length >= sizeof plain) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(plain, path, length);
    plain[length] = '\0';
    if (paths_resolve_existing(plain, real, sizeof real) < 0) {
        return -1;
    }
    /* Non-blocking before it connects: a server whose backlog is full must not hold anybody up. */
    vel_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd.value < 0 || message_connect_path(fd.value, real) != 0) {
        return -1;
    }
    return fd.release();
}

int64_t server_object_read(int32_t descriptor, char** text) noexcept {
    *text = nullptr;
    const ssize_t length = next_length(descriptor);
    if (length < 0) {
        return -1;
    }
    const auto size = static_cast<size_t>(length);
    if (size > SERVER_OBJECT_MESSAGE_MAX) {
        char byte;
        (void)take(descriptor, &byte, sizeof byte);
        errno = EMSGSIZE;
        return -1;
    }
    char* copy = static_cast<char*>(malloc(size + 1));
    if (copy == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    const ssize_t got = take(descriptor, copy, size);
    if (got <= 0) {
        const int error = got == 0 ? ECONNRESET : errno;
        free(copy);
        errno = error;
        return -1;
    }
    copy[got] = '\0';
    *text = copy;
    return got;
}

int32_t server_object_write(int32_t descriptor, const char* text, size_t length) noexcept {
    if (length > SERVER_OBJECT_MESSAGE_MAX) {
        errno = EMSGSIZE;
        return -1;
    }
    ssize_t sent;
    do {
        sent = send(descriptor, text, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0 && errno == EPIPE) {
        errno = ECONNRESET;
    }
    return sent < 0 ? -1 : 0;
}
}
