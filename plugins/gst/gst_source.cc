/* The element that reads the file of a track from its descriptor. */
#include "gst_source.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <gst/base/gstbasesrc.h>
#include <sys/stat.h>
#include <unistd.h>

#include "gst_extent.h"

/* Set before it starts and closed in the state NULL: no thread reads then. */
struct gst_source {
    GstBaseSrc parent;
    int fd; /* owned; -1: none */
    gst_extent extent;
    gchar* uri;
};

struct gst_source_class {
    GstBaseSrcClass parent;
};

static gpointer parent_class;
static GstStaticPadTemplate output =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);

static gst_source* source_of(void* instance) {
    return static_cast<gst_source*>(instance);
}

static void close_file(gst_source* source) {
    if (source->fd >= 0) {
        close(source->fd);
    }
    source->fd = -1;
}

/* --- reading -------------------------------------------------------------------------------- */

static gboolean start(GstBaseSrc* base) {
    if (source_of(base)->fd < 0) {
        GST_ELEMENT_ERROR(base, RESOURCE, NOT_FOUND, ("no file was opened for this"), (nullptr));
        return FALSE;
    }
    return TRUE;
}

/* Not when it stops: to find out whether it can be read at any place it is started and stopped. */
static GstStateChangeReturn change_state(GstElement* element, GstStateChange transition) {
    const auto result = GST_ELEMENT_CLASS(parent_class)->change_state(element, transition);
    if (transition == GST_STATE_CHANGE_READY_TO_NULL) {
        close_file(source_of(element));
    }
    return result;
}

static gboolean is_seekable(GstBaseSrc*) {
    return TRUE;
}

/* Where the file ends now. */
static int64_t end_of(const gst_source& source) {
    struct stat facts = {};
    if (source.extent.end >= 0) {
        return source.extent.end;
    }
    return fstat(source.fd, &facts) == 0 ? facts.st_size : -1;
}

static gboolean get_size(GstBaseSrc* base, guint64* size) {
    const gst_source* source = source_of(base);
    const int64_t end = end_of(*source);
    *size = static_cast<guint64>(std::max<int64_t>(end - source->extent.begin, 0));
    return end >= 0 ? TRUE : FALSE;
}

/* Reads until there are `count` bytes or the file ends; -1 with errno. */
static ssize_t read_fully(int fd, guint8* bytes, size_t count, int64_t from) {
    size_t done = 0;
    while (done < count) {
        const ssize_t length =
            pread(fd, bytes + done, count - done, from + static_cast<int64_t>(done));
        if (length == 0 || (length < 0 && errno != EINTR)) {
            return length < 0 ? -1 : static_cast<ssize_t>(done);
        }
        done += length > 0 ? static_cast<size_t>(length) : 0;
    }
    return static_cast<ssize_t>(done);
}

static GstFlowReturn fill(GstBaseSrc* base, guint64 offset, guint length, GstBuffer* buffer) {
    gst_source* source = source_of(base);
    const int64_t from = source->extent.begin + static_cast<int64_t>(offset);
    int64_t wanted = length;
    if (source->extent.end >= 0) {
        wanted = std::clamp<int64_t>(source->extent.end - from, 0, wanted);
    }
    GstMapInfo memory;
    if (gst_buffer_map(buffer, &memory, GST_MAP_WRITE) == FALSE) {
        GST_ELEMENT_ERROR(source, RESOURCE, WRITE, (nullptr), ("no memory to read into"));
        return GST_FLOW_ERROR;
    }
    const ssize_t count = read_fully(source->fd, memory.data, static_cast<size_t>(wanted), from);
    const int error = errno;
    gst_buffer_unmap(buffer, &memory);
    if (count < 0) {
        GST_ELEMENT_ERROR(source, RESOURCE, READ, ("%s", g_strerror(error)), (nullptr));
        return GST_FLOW_ERROR;
    }
    if (count == 0 && length > 0) {
        return GST_FLOW_EOS;
    }
    gst_buffer_resize(buffer, 0, count);
    GST_BUFFER_OFFSET(buffer) = offset;
    GST_BUFFER_OFFSET_END(buffer) = offset + static_cast<guint64>(count);
    return GST_FLOW_OK;
}

/* --- URIs ----------------------------------------------------------------------------------- */

static GstURIType uri_type(GType) {
    return GST_URI_SRC;
}

static const gchar* const* uri_protocols(GType) {
    static const gchar* const protocols[] = {GST_SOURCE_PREFIX "file", nullptr};
    return protocols;
}

static gchar* get_uri(GstURIHandler* handler) {
    return g_strdup(source_of(handler)->uri);
}

static gboolean set_uri(GstURIHandler* handler, const gchar* uri, GError**) {
    gst_source* source = source_of(handler);
    g_free(source->uri);
    source->uri = g_strdup(uri);
    return TRUE;
}

/* --- the type ------------------------------------------------------------------------------- */

static void finalize(GObject* object) {
    close_file(source_of(object));
    g_free(source_of(object)->uri);
    G_OBJECT_CLASS(parent_class)->finalize(object);
}

static void init_class(gpointer klass, gpointer) {
    parent_class = g_type_class_peek_parent(klass);
    G_OBJECT_CLASS(klass)->finalize = finalize;
    gst_element_class_add_static_pad_template(GST_ELEMENT_CLASS(klass), &output);
    gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(klass), "Opened file", "Source/File",
                                          "Reads a file that was opened before", "lyrane");
    GST_ELEMENT_CLASS(klass)->change_state = change_state;
    GstBaseSrcClass* calls = GST_BASE_SRC_CLASS(klass);
    calls->start = start;
    calls->is_seekable = is_seekable;
    calls->get_size = get_size;
    calls->fill = fill;
}

static void init(GTypeInstance* instance, gpointer) {
    source_of(instance)->fd = -1;
}

static void init_uri_handler(gpointer interface, gpointer) {
    auto* calls = static_cast<GstURIHandlerInterface*>(interface);
    calls->get_type = uri_type;
    calls->get_protocols = uri_protocols;
    calls->get_uri = get_uri;
    calls->set_uri = set_uri;
}

static GType source_type() {
    static const GType type = [] {
        const GType made = g_type_register_static_simple(
            GST_TYPE_BASE_SRC, "LyraneSource", sizeof(gst_source_class), init_class,
            sizeof(gst_source), init, static_cast<GTypeFlags>(0));
        const GInterfaceInfo handler = {init_uri_handler, nullptr, nullptr};
        g_type_add_interface_static(made, GST_TYPE_URI_HANDLER, &handler);
        return made;
    }();
    return type;
}

bool gst_source_register() {
    return gst_element_register(nullptr, "lyranesource", GST_RANK_PRIMARY, source_type()) != FALSE;
}

bool gst_source_give(GstElement* element, int fd) {
    if (!G_TYPE_CHECK_INSTANCE_TYPE(element, source_type())) {
        return false;
    }
    gst_source* source = source_of(element);
    close_file(source);
    source->fd = fd;
    source->extent = gst_extent_of(fd);
    return true;
}
