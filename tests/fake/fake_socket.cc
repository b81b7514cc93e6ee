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
    fake_state& state = fake();
    fake_connection* connection = static_cast<fake_connection*>(argument);
    int fd = -1;
    {
        vel_lock_guard guard(state.lock);
        fd = connection->fd;
    }
    pthread_setname_np(pthread_self(), "fake-control");
    while (serve_one(fd)) {
    }
    vel_lock_guard guard(state.lock);
    close(fd);
    connection->fd = -1;
    connection->finished = true;
    return nullptr;
}

/* Joins the threads of connections that have ended; with the lock released in between. */
void reap(fake_state& state) {
    std::vector<pthread_t> ended;
    {
        vel_lock_guard guard(state.lock);
        while (!state.connections.empty() && state.connections.front().finished) {
            ended.push_back(state.connections.front().thread);
            state.connections.pop_front();
        }
    }
    for (const pthread_t thread : ended) {
        pthread_join(thread, nullptr);
    }
}

void* listener_body(void*) {
    fake_state& state = fake();
    int listener = -1;
    {
        vel_lock_guard guard(state.lock);
        listener = state.listener;
    }
    pthread_setname_np(pthread_self(), "fake-listener");
    while (true) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0 && (errno == EINTR || errno == ECONNABORTED)) {
            continue;
        }
        if (fd < 0) {
            return nullptr;
        }
        reap(state);
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
    fake_state& state = fake();
    vel_lock_guard guard(state.lock);
    state.listener = fd.release();
    state.socket_path = path;
    if (pthread_create(&state.listener_thread, nullptr, listener_body, nullptr) != 0) {
        close(state.listener);
        state.listener = -1;
        return false;
    }
    return true;
}

void control_end() {
    fake_state& state = fake();
    pthread_t listener_thread = {};
    {
        vel_lock_guard guard(state.lock);
        if (state.listener < 0) {
            return;
        }
        listener_thread = state.listener_thread;
        shutdown(state.listener, SHUT_RDWR);
    }
    pthread_join(listener_thread, nullptr);
    {
        vel_lock_guard guard(state.lock);
        for (const fake_connection& connection : state.connections) {
            if (connection.fd >= 0) {
                shutdown(connection.fd, SHUT_RD);
            }
        }
    }
    std::vector<pthread_t> threads;
    {
        vel_lock_guard guard(state.lock);
        for (const fake_connection& connection : state.connections) {
            threads.push_back(connection.thread);
        }
    }
    for (const pthread_t thread : threads) {
        pthread_join(thread, nullptr);
    }
    vel_lock_guard guard(state.lock);
    state.connections.clear();
    unlink(state.socket_path.c_str());
    close(state.listener);
    state.listener = -1;
}
