/* A listing of a session's first step, for debugging at the highest log level. */
#include "trksession_build.h"

#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include <veloran/paths.h>

static const char* shown(const char* text) noexcept {
    return text != nullptr ? text : "";
}

/* The name of the file: the last part of the node's id. Null for one that is no file name. */
static const char* dump_name(const char* mn_id) noexcept {
    if (strcmp(mn_id, "/") == 0) {
        return "usbroot";
    }
    const char* slash = strrchr(mn_id, '/');
    const char* name = slash != nullptr ? slash + 1 : mn_id;
    const bool usable = name[0] != '\0' && strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
    return usable ? name : nullptr;
}

extern "C" {

void dump_minitrk(const char* mn_id, int32_t count, const medianode* nodes,
                  int32_t index) noexcept {
    const char* name = dump_name(mn_id);
    if (name == nullptr) {
        return;
    }
    char path[1024];
    char real_path[2048];
    snprintf(path, sizeof path, "/fs/tmpfs/%s", name);
    if (paths_resolve(path, real_path, sizeof real_path) < 0) {
        return;
    }
    (void)paths_make_parents(real_path);
    /* The id came from a client, and others may write to the folder: no link is followed. */
    const int fd =
        open(real_path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
             paths_mode(0644));
    FILE* file = fd >= 0 ? fdopen(fd, "w") : nullptr;
    if (file == nullptr) {
        if (fd >= 0) {
            close(fd);
        }
        return;
    }
    fprintf(file, "************************\n");
    fprintf(file, "***mini trk,num=%d,idx=%d***\n", count, index);
    fprintf(file, "************************\n");
    for (int32_t i = 0; i < count; ++i) {
        fprintf(file, "[%d].id=%s,name=%s,ms_id=%d\n", i, shown(nodes[i].id), shown(nodes[i].name),
                nodes[i].ms_id);
    }
    fclose(file);
}
}
