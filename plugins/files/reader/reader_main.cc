/* files-reader: reads what media files and playlists say about themselves for the plug-in `files`,
 * in a process of its own that a damaged or hostile file may take down. */
#include <cstdio>
#include <cstdlib>

#include <unistd.h>

#include "reader_read.h"
#include "reader_serve.h"

int main(int count, char**) {
    if (count > 1 || isatty(STDIN_FILENO) != 0) {
        std::fputs("files-reader: the plug-in files starts this program\n", stderr);
        return EXIT_FAILURE;
    }
    reader_serve(reader_read);
    _exit(EXIT_SUCCESS);
}
