/* A plug-in that looks in the running service for each name in its setting "names" (commas between
 * them), and in the libraries below those of its setting "libraries": a name must be the service's
 * own, and nobody else's, because a library with the same name would call the service instead of
 * itself. What is not so is logged. */
#include <dlfcn.h>
#include <link.h>
#include <stdio.h>
#include <string.h>

#include <lyrane/plugin.h>

#define NAMES_MAX 512

int32_t msglog(int32_t level, const char* format, ...);

static char names_text[16384];
static char* names[NAMES_MAX];
static int32_t name_count;
static int32_t library_count;

static const char* image_of(const void* address) {
    Dl_info info = {0};
    return address != NULL && dladdr(address, &info) != 0 ? info.dli_fname : "nowhere";
}

static void split_names(const char* text) {
    snprintf(names_text, sizeof names_text, "%s", text);
    for (char* name = strtok(names_text, ","); name != NULL && name_count < NAMES_MAX;
         name = strtok(NULL, ",")) {
        names[name_count++] = name;
    }
}

static int check_library(struct dl_phdr_info* info, size_t size, void* unused) {
    (void)size;
    (void)unused;
    void* handle =
        info->dlpi_name[0] == '/' ? dlopen(info->dlpi_name, RTLD_LAZY | RTLD_NOLOAD) : NULL;
    if (handle == NULL) {
        return 0; /* the program itself, or the kernel's page */
    }
    library_count++;
    for (int32_t i = 0; i < name_count; i++) {
        if (strcmp(image_of(dlsym(handle, names[i])), info->dlpi_name) == 0) {
            msglog(3, "wrong: %s is in %s", names[i], info->dlpi_name);
        }
    }
    dlclose(handle);
    return 0;
}

static int32_t init(int32_t plugin_id, const strm_dict* settings,
                    const lyrane_internal_callbacks_table* callbacks, uint32_t* types) {
    (void)plugin_id;
    *types = 0;
    split_names(strm_dict_find(settings, "names"));
    for (int32_t i = 0; i < name_count; i++) {
        void* symbol = dlsym(RTLD_DEFAULT, names[i]);
        if (symbol == NULL || strcmp(image_of(symbol), image_of(callbacks)) != 0) {
            msglog(3, "wrong: %s is in %s", names[i], image_of(symbol));
        }
    }
    char libraries[8192];
    snprintf(libraries, sizeof libraries, "%s", strm_dict_find(settings, "libraries"));
    for (char* path = strtok(libraries, " "); path != NULL; path = strtok(NULL, " ")) {
        if (dlopen(path, RTLD_LAZY | RTLD_LOCAL) == NULL) {
            msglog(3, "wrong: %s", dlerror());
        }
    }
    dl_iterate_phdr(check_library, NULL);
    msglog(4, "checked: %d names, libraries: %d", name_count, library_count);
    return callbacks == &lyrane_internal_callbacks ? 0 : -1;
}

const lyrp_api lyrp = {.name = "exports_probe", .init = init};
