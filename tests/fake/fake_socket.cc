/* The socket through which a test in another process speaks. */
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "fake_control.h"
#include "fake_state.h"
#include "fake_stream.h"

namespace {

constexpr uint32_t REQUEST_LIMIT = 64 << 20; /* bytes */

/* The listening socket, for init and cleanup alone. */
struct {
    int fd = -1;
    std::string path;
    pthread_t thread = {};
} listener;

bool serve_one(int fd) {
    uint32_t length = 0;
    if (!transfer(fd, &length, sizeof length, true) || length > REQUEST_LIMIT) {
        return false;
    }
    std::string command(length, '\0');
    if (!transfer(fd, command.data(), length, true)) {
        return false;
    }
    std::string answer;
    int32_t result = control_execute(command, answer);
    length = static_cast<uint32_t>(answer.size());
    return transfer(fd, &result, sizeof result, false) &&
           transfer(fd, &length, sizeof length, false) &&
           transfer(fd, answer.data(), length, false);
}

void* connection_body(void* argument) {
    fake_connection* connection = static_cast<fake_connection*>(argument);
    const int fd = connection->fd;
    pthread_setname_np(pthread_self(), "fake-control");
    while (serve_one(fd)) {
    }
    vel_lock_guard guard(state.lock);
    close(fd);
    connection->fd = -1;
    return nullptr;
}

/* Joins the threads of the connections that have ended, or ends `all`; without the lock. */
void reap(bool all) {
    std::list<fake_connection> ended;
    {
        vel_lock_guard guard(state.lock);
        for (auto at = state.connections.begin(); at != state.connections.end();) {
            const auto connection = at++;
            if (all || connection->fd < 0) {
                shutdown(connection->fd, SHUT_RD);
                ended.splice(ended.end(), state.connections, connection);
            }
        }
    }
    for (const fake_connection& connection : ended) {
        pthread_join(connection.thread, nullptr);
    }
}

void* listener_body(void*) {
    pthread_setname_np(pthread_self(), "fake-listener");
    while (true) {
        const int fd = accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0 && (errno == EINTR || errno == ECONNABORTED)) {
            continue;
        }
        if (fd < 0) {
            return nullptr;
        }
        reap(false);
        vel_lock_guard guard(state.lock);
        if (state.stopping) {
            close(fd);
            return nullptr;
        }
        fake_connection& connection = state.connections.emplace_back();
        connection.fd = fd;
        if (pthread_create(&connection.thread, nullptr, connection_body, &connection) != 0) {
            close(fd);
            state.connections.pop_back();
        }
    }
}

} // namespace

bool control_listen(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return false;
    }
    path.copy(address.sun_path, path.size());
    vel_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    unlink(path.c_str());
    if (fd.value < 0 ||
        bind(fd.value, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd.value, 16) != 0) {
        return false;
    }
    listener.fd = fd.release();
    listener.path = path;
    if (pthread_create(&listener.thread, nullptr, listener_body, nullptr) != 0) {
        close(listener.fd);
        listener.fd = -1;
    }
    return listener.fd >= 0;
}

void control_end() {
    if (listener.fd >= 0) {
        shutdown(listener.fd, SHUT_RDWR);
        pthread_join(listener.thread, nullptr);
        reap(true);
        unlink(listener.path.c_str());
        close(listener.fd);
        listener.fd = -1;
    }
}
