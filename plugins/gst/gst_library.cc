/* GStreamer as this process uses it. */
#include "gst_library.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gst/gst.h>

#include <veloran/lock.h>

#include "gst_source.h"

static constexpr mode_t OTHERS_WRITE = 022;

/* Elements that no file is given to, since some end the process. */
static constexpr const char* SHUNNED[] = {
    "apedemux", /* an assertion, when a tag lies about its size; gst_extent.h */
};

void gst_library_enter() {
    if (unshare(CLONE_FS) == 0) { /* some containers forbid it */
        umask(OTHERS_WRITE);
    }
}

/* Whoever may write the registry chooses the libraries that are loaded. One that others could write
 * may be theirs: it is made anew. */
static void guard_registry() {
    gchar* path = g_build_filename(g_get_user_cache_dir(), "gstreamer-1.0", nullptr);
    g_mkdir_with_parents(path, 0777 & ~OTHERS_WRITE);
    const vel_fd folder(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat facts = {};
    if (folder.value >= 0 && fstat(folder.value, &facts) == 0 && facts.st_uid == geteuid() &&
        (facts.st_mode & OTHERS_WRITE) != 0 &&
        fchmod(folder.value, facts.st_mode & 0777 & ~OTHERS_WRITE) == 0) {
        GDir* entries = g_dir_open(path, 0, nullptr);
        for (const gchar* name;
             entries != nullptr && (name = g_dir_read_name(entries)) != nullptr;) {
            unlinkat(folder.value, name, 0);
        }
        g_clear_pointer(&entries, g_dir_close);
    }
    g_free(path);
}

static void shun_elements() {
    for (const char* name : SHUNNED) {
        GstPluginFeature* feature = gst_registry_lookup_feature(gst_registry_get(), name);
        if (feature != nullptr) {
            gst_plugin_feature_set_rank(feature, GST_RANK_NONE);
            gst_object_unref(feature);
        }
    }
}

std::string gst_library_start() {
    static vel_mutex once;
    vel_lock_guard hold(once);
    if (gst_is_initialized() != FALSE) {
        return {};
    }
    GError* error = nullptr;
    guard_registry();
    if (gst_init_check(nullptr, nullptr, &error) == FALSE) {
        std::string why = error != nullptr ? error->message : "GStreamer does not start";
        g_clear_error(&error);
        return why;
    }
    shun_elements();
    return gst_source_register() ? "" : "GStreamer does not take the source of files";
}
