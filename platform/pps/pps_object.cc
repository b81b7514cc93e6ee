/* The interface: an object is a writer or a watch, and here nothing throws any more. */
#include <veloran/pps.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>

#include <fcntl.h>

#include "pps_target.h"
#include "pps_watch.h"
#include "pps_writer.h"

struct pps_object {
    pps_target target = {};
    std::unique_ptr<pps_writer> writer; /* one of the two */
    std::unique_ptr<pps_watch> watch;
};

static int32_t fail(int32_t error) {
    errno = error;
    return -1;
}

static int32_t open_object(pps_object* object, const char* path, int32_t flags, uint32_t mode) {
    if (pps_target_parse(&object->target, path) != 0) {
        return -1;
    }
    if ((flags & O_ACCMODE) == O_RDONLY) {
        object->watch = std::make_unique<pps_watch>();
        return pps_watch_init(object->watch.get(), &object->target);
    }
    if ((flags & O_ACCMODE) != O_WRONLY || std::strcmp(object->target.name, PPS_TARGET_ALL) == 0) {
        return fail(EINVAL);
    }
    object->writer = std::make_unique<pps_writer>();
    return pps_writer_init(object->writer.get(), &object->target, flags, mode);
}

extern "C" {

pps_object* pps_open(const char* path, int32_t flags, uint32_t mode) noexcept {
    pps_object* object = nullptr;
    try {
        object = new pps_object;
        if (open_object(object, path, flags, mode) == 0) {
            return object;
        }
    } catch (const std::exception&) {
        errno = ENOMEM;
    }
    const int32_t error = errno;
    pps_close(object);
    errno = error;
    return nullptr;
}

void pps_close(pps_object* object) noexcept {
    if (object == nullptr) {
        return;
    }
    if (object->writer != nullptr) {
        pps_writer_deinit(object->writer.get());
    }
    if (object->watch != nullptr) {
        pps_watch_deinit(object->watch.get());
    }
    delete object;
}

int32_t pps_write(pps_object* object, const char* text, size_t length) noexcept {
    const iovec piece = {const_cast<char*>(text), length};
    return pps_writev(object, &piece, 1);
}

int32_t pps_writev(pps_object* object, const struct iovec* pieces, size_t count) noexcept {
    if (object == nullptr || object->writer == nullptr) {
        return fail(EBADF);
    }
    try {
        return pps_writer_update(object->writer.get(), pieces, count);
    } catch (const std::exception&) {
        return fail(ENOMEM);
    }
}

ssize_t pps_read(pps_object* object, char* buffer, size_t size, int32_t stop_fd) noexcept {
    if (object == nullptr || object->watch == nullptr) {
        return fail(EBADF);
    }
    if (buffer == nullptr || size == 0) {
        return fail(EINVAL);
    }
    try {
        return pps_watch_read(object->watch.get(), buffer, size, stop_fd);
    } catch (const std::exception&) {
        return fail(ENOMEM);
    }
}

int32_t pps_poll_fd(const pps_object* object) noexcept {
    return object == nullptr || object->watch == nullptr ? -1 : object->watch->notify;
}
}
