/* Services: their names and who may open them. */
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <veloran/server_object.h>

#include "msgserver_requests.h"

namespace {

constexpr size_t PATH_SIZE = 512;
constexpr int32_t CLAIMS_MAX = MESSAGE_NAMES_MAX;
constexpr mode_t MODE_MASK = 0666;
constexpr const char* DEFAULT_VARIANT = "default";
/* The capability service holds up everybody while it thinks, so it may not think for ever. */
constexpr time_t CAPABILITY_WAIT_SECONDS = 5;

/* Locks taken ahead of msgserver_add. */
struct name_claim {
    char path[PATH_SIZE];
    int32_t lock; /* descriptor */
};
vel_mutex claims_lock;
name_claim claims[CLAIMS_MAX] VEL_GUARDED_BY(claims_lock);
int32_t claim_count VEL_GUARDED_BY(claims_lock);

/* Names become parts of a path; what begins with a dot is ours. */
bool is_name(const char* text) {
    return text[0] != '\0' && text[0] != '.' && strchr(text, '/') == nullptr;
}

/* 0, or -1 with errno set. */
int32_t make_path(char (&path)[PATH_SIZE], const char* folder, const char* name,
                  const char* variant) {
    if (!is_name(name) || !is_name(variant)) {
        errno = EINVAL;
        return -1;
    }
    const int length = snprintf(path, sizeof path, "%s/%s/%s", folder, name, variant);
    if (length < 0 || static_cast<size_t>(length) >= sizeof path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return 0;
}

/* The lock that an earlier claim took, or -1. It is the caller's from now on. */
int32_t take_claim(const char* path) {
    vel_lock_guard guard(claims_lock);
    for (int32_t i = 0; i < claim_count; ++i) {
        if (strcmp(claims[i].path, path) == 0) {
            const int32_t lock = claims[i].lock;
            claims[i] = claims[--claim_count];
            return lock;
        }
    }
    return -1;
}

/* Reads the number behind a key ("uid=") in comma-separated options; without the key it stays as it
 * is. False: no number. */
bool read_option(const char* options, const char* key, int base, uint32_t* number) {
    const size_t key_length = strlen(key);
    for (const char* entry = options; entry != nullptr;) {
        const char* comma = strchr(entry, ',');
        const char* end = comma != nullptr ? comma : entry + strlen(entry);
        if (static_cast<size_t>(end - entry) >= key_length && memcmp(entry, key, key_length) == 0) {
            const auto result = std::from_chars(entry + key_length, end, *number, base);
            return result.ec == std::errc() && result.ptr == end;
        }
        entry = comma != nullptr ? comma + 1 : nullptr;
    }
    return true;
}

/* Who may open a service with these options. It belongs to whom a file of this thread's would, if
 * they do not say otherwise; no identity is -1, so asking for it changes none. Null with errno
 * set. */
service_attr* make_attr(const char* options) {
    uint32_t mode = MODE_MASK;
    auto uid = static_cast<uint32_t>(setfsuid(static_cast<uid_t>(-1)));
    auto gid = static_cast<uint32_t>(setfsgid(static_cast<gid_t>(-1)));
    if (!read_option(options, "perms=", 8, &mode) || !read_option(options, "uid=", 10, &uid) ||
        !read_option(options, "gid=", 10, &gid)) {
        errno = EINVAL;
        return nullptr;
    }
    auto* attr = static_cast<service_attr*>(std::malloc(sizeof(service_attr)));
    if (attr != nullptr) {
        *attr = service_attr{mode & MODE_MASK, uid, gid};
    }
    return attr;
}

/* Lets clients find the service. 0, or -1 with errno set. */
int32_t attach(msgserver* server, service* added, const char* variant) {
    char path[PATH_SIZE];
    const bool by_path = (server->flags & MSGSERVER_BY_PATH) != 0;
    if (make_path(path, by_path ? "/sys/csm" : "/sys/csm/.names", added->name, variant) != 0) {
        return -1;
    }
    service_attr access{MODE_MASK, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
    if (by_path) {
        added->attr = make_attr(added->options);
        if (added->attr == nullptr) {
            return -1;
        }
        access = *added->attr;
    }
    int32_t lock = take_claim(path);
    if (lock < 0) {
        lock = message_name_claim(path);
    }
    if (lock < 0) {
        return -1;
    }
    /* The socket file has neither inode number nor size of our choice; owner, group and mode are
     * what clients can see of it. */
    return message_name_attach(server->dispatch, path, lock, access.mode, access.uid, access.gid) <
                   0
               ? -1
               : 0;
}

/* Drops a service whose registration failed; errno stays. */
void drop_service(msgserver* server, int32_t index) VEL_REQUIRES(server->lock) {
    const int saved = errno;
    auto* dropped = static_cast<service*>(_array_get(&server->services, index));
    std::free(dropped->name);
    std::free(dropped->options);
    std::free(dropped->attr);
    (void)_array_del(&server->services, index);
    errno = saved;
}

int32_t entries_of(const char* list) {
    return 1 + static_cast<int32_t>(std::count(list, list + strlen(list), ','));
}

/* How many capabilities one check grants, or -1. After a check that was not answered in full the
 * connection is given up: an answer that still comes would be taken for that of the next check,
 * which asks on a new one. */
int32_t ask_capability_service(msgserver* server, const char* text, size_t length)
    VEL_REQUIRES(server->lock) {
    if (server->authman_fd < 0) {
        server->authman_fd = msgserver_open_capability_service();
    }
    if (server->authman_fd < 0) {
        return -1;
    }
    int32_t granted = -1;
    if (TEMP_FAILURE_RETRY(send(server->authman_fd, text, length, MSG_NOSIGNAL)) ==
            static_cast<ssize_t>(length) &&
        TEMP_FAILURE_RETRY(recv(server->authman_fd, &granted, sizeof granted, 0)) ==
            static_cast<ssize_t>(sizeof granted)) {
        return granted;
    }
    close(server->authman_fd);
    server->authman_fd = -1;
    return -1;
}

} // namespace

extern "C" {

int32_t msgserver_add(msgserver* server, const char* name, const char* variant, const char* options,
                      int32_t buffer_hint, service_worker_function worker,
                      service_connect_function connect,
                      service_disconnect_function disconnect) noexcept {
    vel_lock_guard guard(server->lock);
    const int32_t index = _array_add(&server->services, sizeof(service));
    if (index < 0) {
        errno = ENOMEM;
        return -1;
    }
    server->initial_size = std::max(server->initial_size, buffer_hint);
    auto* added = static_cast<service*>(_array_get(&server->services, index));
    added->name = strdup(name);
    added->options = strdup(options != nullptr ? options : "");
    vel_mutex_init(&added->lock);
    added->worker = worker;
    added->connect = connect;
    added->disconnect = disconnect;
    if (added->name == nullptr || added->options == nullptr) {
        errno = ENOMEM;
    } else if (attach(server, added, variant != nullptr ? variant : DEFAULT_VARIANT) == 0) {
        return index;
    }
    drop_service(server, index);
    return -1;
}

int32_t msgserver_claim(const char* name, const char* variant) noexcept {
    char path[PATH_SIZE];
    if (make_path(path, "/sys/csm", name, variant != nullptr ? variant : DEFAULT_VARIANT) != 0) {
        return -1;
    }
    vel_lock_guard guard(claims_lock);
    if (claim_count == CLAIMS_MAX) {
        errno = ENOSPC;
        return -1;
    }
    const int32_t lock = message_name_claim(path);
    if (lock < 0) {
        return -1;
    }
    memcpy(claims[claim_count].path, path, sizeof path);
    claims[claim_count].lock = lock;
    claim_count += 1;
    return 0;
}

void msgserver_withdraw(msgserver* server) noexcept {
    message_name_detach_all(server->dispatch);
}

/* Connecting does not wait either: a service that accepts nobody counts as none. */
int32_t msgserver_open_capability_service(void) noexcept {
    vel_fd authman(server_object_open("/dev/authman"));
    if (authman.value < 0 || fcntl(authman.value, F_SETFL, 0) != 0) {
        return -1;
    }
    const timeval wait{CAPABILITY_WAIT_SECONDS, 0};
    (void)setsockopt(authman.value, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    (void)setsockopt(authman.value, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
    return authman.release();
}

/* The capability service takes one packet of text and answers with the number of capabilities that
 * it grants, an int32. */
bool msgserver_capable(msgserver* server, const service* wanted,
                       const recv_context* context) noexcept {
    if ((server->flags & MSGSERVER_NO_CAPABILITIES) != 0 || wanted->options[0] == '\0') {
        return true;
    }
    char text[PATH_SIZE];
    const int length = snprintf(text, sizeof text, "chkcap %u,%u,%s", context->info.uid,
                                context->info.gid, wanted->options);
    return length > 0 && static_cast<size_t>(length) < sizeof text &&
           ask_capability_service(server, text, static_cast<size_t>(length)) ==
               entries_of(wanted->options);
}
}
