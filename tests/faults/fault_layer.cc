/* A layer between a process and the C library that fails one call. It counts from the load of the
 * library on, and does nothing without FAULT_FILE. */
#include "fault_layer.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

/* The allocator is not looked up by name, which would allocate. The address sanitizer, and the C
 * library under it, do not live without memory, so with it only those are failed that the service
 * and its database ask for in C; what C++ allocates does not come by here. */
#ifdef FAULT_LAYER_OVER_SANITIZER
#define REAL(name) __interceptor_##name
#define ALLOCATES() is_of_service(CALLER())
#else
#define REAL(name) __libc_##name
#define ALLOCATES() true
#endif
#define CALLER() __builtin_return_address(0)
extern "C" {
void* REAL(malloc)(size_t size);
void* REAL(calloc)(size_t count, size_t size);
void* REAL(realloc)(void* memory, size_t size);
}

static fault_plan* plan;

/* Before anything that is counted: a constructor of the first library that is initialised. */
__attribute__((constructor(101))) static void find_plan() {
    const char* path = getenv("FAULT_FILE");
    const int fd = path != nullptr ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (fd >= 0) {
        void* memory = mmap(nullptr, sizeof(fault_plan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        plan = memory != MAP_FAILED ? static_cast<fault_plan*>(memory) : nullptr;
    }
}

/* True for a call from the program or its database library. */
[[maybe_unused]] static bool is_of_service(const void* caller) {
    Dl_info where = {};
    return plan != nullptr && dladdr(caller, &where) != 0 && where.dli_fname != nullptr &&
           (strstr(where.dli_fname, "/lyrane/target/lyrane") != nullptr ||
            strstr(where.dli_fname, "libsqlite3") != nullptr);
}

/* True for a call from the scripted plug-in or a library that starts threads for it: they are not
 * what is under test. */
static bool is_of_plugin(const void* caller) {
    Dl_info where = {};
    return dladdr(caller, &where) != 0 && where.dli_fname != nullptr &&
           (strstr(where.dli_fname, "/disk.so") != nullptr ||
            strstr(where.dli_fname, "libstdc++") != nullptr);
}

/* True when this call is to fail; errno is set then. A null caller counts always. */
static bool fails(fault_call call, int error, const void* caller = nullptr) {
    if (plan == nullptr || (caller != nullptr && is_of_plugin(caller)) ||
        plan->counts[call].fetch_add(1) + 1 != plan->number || plan->call != call) {
        return false;
    }
    errno = error;
    return true;
}

/* The C library's function of that name and type. */
template <typename type>
static type* real(const char* name) {
    return reinterpret_cast<type*>(dlsym(RTLD_NEXT, name));
}

/* Only what is written to a disk may find it full. */
static bool is_file(int fd) {
    struct stat status = {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

extern "C" {

void* malloc(size_t size) noexcept {
    return ALLOCATES() && fails(FAULT_ALLOCATE, ENOMEM) ? nullptr : REAL(malloc)(size);
}

void* calloc(size_t count, size_t size) noexcept {
    return ALLOCATES() && fails(FAULT_ALLOCATE, ENOMEM) ? nullptr : REAL(calloc)(count, size);
}

void* realloc(void* memory, size_t size) noexcept {
    return ALLOCATES() && fails(FAULT_ALLOCATE, ENOMEM) ? nullptr : REAL(realloc)(memory, size);
}

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = va_arg(arguments, int);
    va_end(arguments);
    static const auto next = real<int(const char*, int, ...)>("open");
    return fails(FAULT_OPEN, EMFILE, CALLER()) ? -1 : next(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = va_arg(arguments, int);
    va_end(arguments);
    static const auto next = real<int(const char*, int, ...)>("open64");
    return fails(FAULT_OPEN, EMFILE, CALLER()) ? -1 : next(path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = va_arg(arguments, int);
    va_end(arguments);
    static const auto next = real<int(int, const char*, int, ...)>("openat");
    return fails(FAULT_OPEN, EMFILE, CALLER()) ? -1 : next(directory, path, flags, mode);
}

ssize_t write(int fd, const void* bytes, size_t count) {
    static const auto next = real<ssize_t(int, const void*, size_t)>("write");
    return is_file(fd) && fails(FAULT_WRITE, ENOSPC, CALLER()) ? -1 : next(fd, bytes, count);
}

ssize_t pwrite64(int fd, const void* bytes, size_t count, off64_t offset) {
    static const auto next = real<ssize_t(int, const void*, size_t, off64_t)>("pwrite64");
    return is_file(fd) && fails(FAULT_WRITE, ENOSPC, CALLER()) ? -1
                                                               : next(fd, bytes, count, offset);
}

int rename(const char* from, const char* to) noexcept {
    static const auto next = real<int(const char*, const char*)>("rename");
    return fails(FAULT_RENAME, EIO, CALLER()) ? -1 : next(from, to);
}

int renameat(int from_directory, const char* from, int to_directory, const char* to) noexcept {
    static const auto next = real<int(int, const char*, int, const char*)>("renameat");
    return fails(FAULT_RENAME, EIO, CALLER()) ? -1 : next(from_directory, from, to_directory, to);
}

int fsync(int fd) {
    static const auto next = real<int(int)>("fsync");
    return fails(FAULT_SYNC, EIO, CALLER()) ? -1 : next(fd);
}

int fdatasync(int fd) {
    static const auto next = real<int(int)>("fdatasync");
    return fails(FAULT_SYNC, EIO, CALLER()) ? -1 : next(fd);
}

int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    static const auto next = real<int(int, sockaddr*, socklen_t*, int)>("accept4");
    return fails(FAULT_ACCEPT, EMFILE, CALLER()) ? -1 : next(fd, address, length, flags);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
    static const auto next =
        real<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
    return fails(FAULT_THREAD, EAGAIN, CALLER()) ? EAGAIN
                                                 : next(thread, attributes, body, argument);
}

void* dlopen(const char* path, int flags) noexcept {
    static const auto next = real<void*(const char*, int)>("dlopen");
    return fails(FAULT_DLOPEN, ENOENT, CALLER()) ? nullptr : next(path, flags);
}
}
