#include "notify.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>

#include <veloran/lock.h>

void notify_manager(const std::string& text) {
    const char* name = getenv("NOTIFY_SOCKET");
    sockaddr_un address = {};
    if (name == nullptr || (name[0] != '/' && name[0] != '@') || name[1] == '\0' ||
        strlen(name) >= sizeof address.sun_path) {
        return;
    }
    const size_t length = strlen(name);
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, name, length);
    if (name[0] == '@') {
        address.sun_path[0] = '\0';
    }
    const vel_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd.value >= 0) {
        (void)sendto(fd.value, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                     reinterpret_cast<const sockaddr*>(&address),
                     static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
    }
}
