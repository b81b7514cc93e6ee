/* use FILE: prints the usage message of a program, with %C replaced by the name of the file. */
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <veloran/lock.h>

#include "usage_section.h"

static int fail(const char* path, const char* reason) {
    fprintf(stderr, "use: %s: %s\n", path, reason);
    return EXIT_FAILURE;
}

static void print(const char* text, size_t length, const char* name) {
    for (size_t i = 0; i < length; i++) {
        if (text[i] == '%' && i + 1 < length && text[i + 1] == 'C') {
            fputs(name, stdout);
            i++;
        } else {
            putchar(text[i]);
        }
    }
}

int main(int argc, char** argv) {
    if (argc != 2) {
        fputs("usage: use FILE\n", stderr);
        return EXIT_FAILURE;
    }
    const char* path = argv[1];
    const vel_fd file(open(path, O_RDONLY | O_CLOEXEC));
    struct stat status = {};
    if (file.value < 0 || fstat(file.value, &status) != 0) {
        return fail(path, strerror(errno));
    }
    const size_t size = static_cast<size_t>(status.st_size);
    void* image =
        size > 0 ? mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file.value, 0) : MAP_FAILED;
    size_t length = 0;
    const char* text = image != MAP_FAILED
                           ? usage_section_find(static_cast<unsigned char*>(image), size, &length)
                           : nullptr;
    if (text == nullptr) {
        return fail(path, "no usage message");
    }
    const char* slash = strrchr(path, '/');
    print(text, length, slash != nullptr ? slash + 1 : path);
    return fflush(stdout) == 0 ? EXIT_SUCCESS : fail(path, strerror(errno));
}
