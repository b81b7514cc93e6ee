/* The reader's life: one request after the other. */
#include "reader_serve.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <veloran/lock.h>

#include "reader_confine.h"

/* The plug-in ends it, by its end of the pair; what a terminal or a service manager sends to all
 * processes at once would only look as if a file had killed it. */
static void ignore_signals() noexcept {
    for (const int ignored : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGXFSZ}) {
        std::signal(ignored, SIG_IGN);
    }
}

/* Only the pair stays open, and no folder is held. The outputs are the service's: what is said
 * before this, as by the dynamic loader, is the program's own; what comes later may be a file's. */
static void drop_descriptors() noexcept {
    bool dropped = chdir("/") == 0;
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    dropped = dup2(nowhere, STDOUT_FILENO) >= 0 && dropped;
#ifndef READER_SANITIZED /* their reports are read there */
    dropped = dup2(nowhere, STDERR_FILENO) >= 0 && dropped;
#endif
    syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, 0);
    if (!dropped) {
        _exit(EXIT_FAILURE);
    }
}

void reader_serve_send(const void* first, size_t first_length, const void* second,
                       size_t second_length) noexcept {
    iovec parts[] = {{const_cast<void*>(first), first_length},
                     {const_cast<void*>(second), second_length}};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    ssize_t sent = 0;
    do {
        sent = sendmsg(STDIN_FILENO, &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        _exit(EXIT_SUCCESS);
    }
}

/* Receives one request and its descriptor; false at the end. */
static bool receive(files_reader_request* request, int* fd) noexcept {
    iovec part = {request, sizeof *request};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t length = 0;
    do {
        length = recvmsg(STDIN_FILENO, &message, MSG_CMSG_CLOEXEC);
    } while (length < 0 && errno == EINTR);
    const cmsghdr* handed = length > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
    if (length != sizeof *request || handed == nullptr || handed->cmsg_type != SCM_RIGHTS) {
        return false;
    }
    std::memcpy(fd, CMSG_DATA(handed), sizeof *fd);
    request->name[FILES_READER_NAME - 1] = '\0';
    return true;
}

static void answer(uint32_t number, const std::string& bytes) noexcept {
    const files_reader_head head = {number, static_cast<uint32_t>(bytes.size())};
    size_t done = std::min(bytes.size(), FILES_READER_PACKET - sizeof head);
    reader_serve_send(&head, sizeof head, bytes.data(), done);
    while (done < bytes.size()) {
        const size_t part = std::min(bytes.size() - done, FILES_READER_PACKET);
        reader_serve_send(bytes.data() + done, part, nullptr, 0);
        done += part;
    }
}

void reader_serve(files_reader_found (*read)(int fd,
                                             const files_reader_request& request)) noexcept {
    ignore_signals();
    drop_descriptors();
    const files_reader_hello hello = {FILES_READER_VERSION,
                                      reader_confine() ? FILES_READER_FILTERED : 0};
    reader_serve_send(&hello, sizeof hello, nullptr, 0);
    files_reader_request request;
    int opened = -1;
    while (receive(&request, &opened)) {
        const vel_fd fd(opened);
        const files_reader_wish wish = {request.wanted, request.keys};
        try {
            answer(request.number, files_reader_answer_write(wish, read(fd.value, request)));
        } catch (const std::bad_alloc&) {
            _exit(FILES_READER_NO_MEMORY);
        }
    }
}
