/* A reader of files that does what the name of a file says: it dies, it hangs, it lies, or it tries
 * what it must not be able to do. All others it reads as the real one does. */
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <unistd.h>

#include "reader_read.h"
#include "reader_serve.h"

/* --- trying --------------------------------------------------------------------------------- */

static bool can_fork() {
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    return child > 0;
}

/* Besides the standard ones there is the file, and nothing else. */
static bool has_descriptors(int file) {
    char byte = 0;
    for (int fd = STDERR_FILENO + 1; fd < 256; ++fd) {
        if (fd != file && (pread(fd, &byte, 1, 0) >= 0 || errno != EBADF)) {
            return true;
        }
    }
    return false;
}

#ifndef READER_SANITIZED
/* The service's outputs are pipes here, which are not read at a place. */
static bool can_speak() {
    char byte = 0;
    const msghdr nothing = {};
    bool can = false;
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
        can = can || pread(fd, &byte, 1, 0) != 0 || write(fd, "x", 1) >= 0;
    }
    return can || sendmsg(STDOUT_FILENO, &nothing, 0) >= 0 || errno != EPERM;
}
static bool can_run_memory() {
    return mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) !=
           MAP_FAILED;
}
static bool can_take_memory() {
    void* memory = std::malloc(size_t{1} << 30);
    std::free(memory);
    return memory != nullptr;
}
#endif

/* What it can do though it must not. */
static std::string abilities(int file) {
    char* const none[] = {nullptr};
    struct {
        const char* name;
        bool works;
    } const tried[] = {
        {"open ", open("/etc/passwd", O_RDONLY) >= 0},
        {"create ", openat(AT_FDCWD, "/tmp/made-by-reader", O_CREAT | O_WRONLY, 0600) >= 0},
        {"socket ", socket(AF_INET, SOCK_STREAM, 0) >= 0},
        {"pair ", socketpair(AF_UNIX, SOCK_STREAM, 0, std::array<int, 2>().data()) == 0},
        {"fork ", can_fork()},
        {"exec ", execve("/bin/true", none, none) == 0},
        {"kill ", kill(getppid(), 0) == 0},
        {"trace ", ptrace(PTRACE_ATTACH, getppid(), nullptr, nullptr) == 0},
        {"descriptors ", has_descriptors(file)},
        {"write ", write(file, "x", 1) == 1},
#ifndef READER_SANITIZED
        {"speak ", can_speak()},
        {"run ", can_run_memory()},
        {"memory ", can_take_memory()},
#endif
    };
    std::string can = "can: ";
    for (const auto& each : tried) {
        can += each.works ? each.name : "";
    }
    return can;
}

/* --- lying ---------------------------------------------------------------------------------- */

static std::string number(uint32_t value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

static std::string text(const std::string& bytes) {
    return number(static_cast<uint32_t>(bytes.size())) + bytes;
}

/* A record with one title, as it would be but for the lie. */
static std::string record(uint32_t duration, const std::string& title) {
    std::string bytes = number(duration) + number(0) + number(0) + title;
    for (int i = 0; i < 5; ++i) {
        bytes += text("");
    }
    return bytes + text("");
}

static void lie(const files_reader_request& request) {
    const std::string good = record(0, text("true"));
    const auto length = static_cast<uint32_t>(good.size());
    const std::string id = number(request.number);
    const auto whole = [&id](const std::string& body) { return id + text(body); };
    const std::string lies[] = {
        number(request.number + 1) + number(length) + good,
        id + number(UINT32_MAX) + good,
        id + number(length - 1) + good,
        std::string("abc"),
        id + number(length) + good + std::string(FILES_READER_PACKET, 'x'),
        whole(record(UINT32_MAX, text("true"))),
        whole(record(0, number(5000) + "true")),
        whole(record(0, text(std::string(FILES_TAG_MOST + 1, 'x')))),
        whole(record(0, text(std::string("a\0b", 3)))),
        whole(good + "more"),
        whole(good.substr(0, good.size() - 1)),
        whole(""),
    };
    const size_t which = static_cast<size_t>(std::atoi(request.name + std::strlen("lie-")));
    const std::string& bytes = lies[which % std::size(lies)];
    reader_serve_send(bytes.data(), bytes.size(), nullptr, 0);
}

static files_reader_found read_badly(int fd, const files_reader_request& request) {
    const std::string name = request.name;
    files_reader_found found;
    const bool listener = (request.wanted & FILES_READ_PICTURE) != 0;
    if (name.starts_with("die") || (name.starts_with("picture") && listener)) {
        __builtin_trap();
    }
    if (name.starts_with("hang")) {
        for (volatile bool forever = true; forever;) {
        }
    }
    if (name.starts_with("lie-")) {
        lie(request);
        return found;
    }
    if (name.starts_with("try")) {
        found.title = abilities(fd);
        return found;
    }
    return reader_read(fd, request);
}

int main() {
    reader_serve(read_badly);
    _exit(0);
}
