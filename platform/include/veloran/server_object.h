/* Server objects: objects of the name space that a process serves, in the place of a file.
 *
 * What a client writes reaches the server as one message, and what the server writes to a client
 * reaches that client as one message, whole and in order. A message is text of at most
 * SERVER_OBJECT_MESSAGE_MAX bytes. An end that goes away, however it ends, is seen by the other as
 * ECONNRESET.
 *
 * Messages carry no descriptors: where the system can refuse them, sending one fails with EPERM,
 * else it ends the connection. A server leaves the closing of its clients' descriptors to the
 * closer, for their queues may hold some.
 *
 * C++ only, C linkage. All descriptors are non-blocking and close-on-exec, and close() ends them.
 * poll() waits for something to read. */
#ifndef VELORAN_SERVER_OBJECT_H
#define VELORAN_SERVER_OBJECT_H

#include <cstddef>
#include <cstdint>

#include <sys/types.h>

constexpr size_t SERVER_OBJECT_MESSAGE_MAX = 65536;

struct server_object;

extern "C" {

/* Serves a path; its directories are made. The result belongs to the caller, see
 * server_object_destroy. Null with errno set: EEXIST (somebody serves it, or there is a file of
 * another kind), or why the socket cannot be made. */
server_object* server_object_create(const char* path, mode_t mode) noexcept;

/* Readable when a client has come. It stays the object's. */
int32_t server_object_descriptor(const server_object* object) noexcept;

/* The next client that has come: a descriptor that is the caller's. -1 with errno EAGAIN when there
 * is none. */
int32_t server_object_accept(server_object* object) noexcept;

/* Withdraws the object; the clients' descriptors live on. Accepts null. */
void server_object_destroy(server_object* object) noexcept;

/* Opens an object as a client; what stands behind a '?' in the path is left out. The descriptor is
 * the caller's. -1 with errno set: ENOENT (there is none), ECONNREFUSED (its server has ended),
 * EAGAIN (its server does not accept anybody now). Never waits. */
int32_t server_object_open(const char* path) noexcept;

/* Takes the next message: its length, with *text a malloc()ed copy that ends in a NUL and is the
 * caller's. -1 with errno set and *text null: EAGAIN (none has come yet), ECONNRESET (the other end
 * has gone, or has sent a descriptor), EMSGSIZE (a longer one was thrown away), ENOMEM. */
int64_t server_object_read(int32_t descriptor, char** text) noexcept;

/* Sends one message. 0, or -1 with errno set: EAGAIN (the other end does not read), EMSGSIZE,
 * ECONNRESET. Never waits, raises no signal. */
int32_t server_object_write(int32_t descriptor, const char* text, size_t length) noexcept;
}

#endif
