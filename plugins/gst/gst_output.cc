/* Sinks made from the descriptions in the configuration. */
#include "gst_output.h"

static constexpr const char* NUMBER_MARK = "%u";

bool gst_output_numbered(const std::string& description) {
    return description.find(NUMBER_MARK) != std::string::npos;
}

/* The description with each mark replaced. */
static std::string numbered(std::string description, uint32_t number) {
    const std::string digits = std::to_string(number);
    for (size_t at = description.find(NUMBER_MARK); at != std::string::npos;
         at = description.find(NUMBER_MARK, at + digits.size())) {
        description.replace(at, 2, digits);
    }
    return description;
}

/* The text of the first error on a bus, or a general one. */
static std::string first_error(GstBus* bus) {
    std::string text = "the output cannot be opened";
    GstMessage* message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
    if (message != nullptr) {
        GError* error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        if (error != nullptr) {
            text = error->message;
            g_error_free(error);
        }
        gst_message_unref(message);
    }
    return text;
}

/* Opens the device of a sink. The sink has no pipeline yet, so it gets a bus of its own for the
 * time, to hear the reason when it fails. */
static bool open_device(GstElement* sink, std::string* why) {
    GstBus* bus = gst_bus_new();
    gst_element_set_bus(sink, bus);
    const bool opened = gst_element_set_state(sink, GST_STATE_READY) != GST_STATE_CHANGE_FAILURE;
    gst_element_set_bus(sink, nullptr);
    if (!opened) {
        *why = first_error(bus);
    }
    gst_object_unref(bus);
    return opened;
}

GstElement* gst_output_open(const std::string& description, uint32_t number, std::string* why) {
    GError* error = nullptr;
    GstElement* sink = gst_parse_bin_from_description_full(
        numbered(description, number).c_str(), TRUE, nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error);
    if (error != nullptr) {
        *why = error->message;
        g_error_free(error);
    }
    if (sink == nullptr) {
        return nullptr;
    }
    gst_object_ref_sink(sink);
    GstPad* input = gst_element_get_static_pad(sink, "sink");
    if (input == nullptr) {
        *why = "the output description has no free input";
    } else {
        gst_object_unref(input);
        if (open_device(sink, why)) {
            return sink;
        }
    }
    gst_output_close(sink);
    return nullptr;
}

bool gst_output_found_nothing(GstElement* sink, const std::string& description) {
    if (description.find("autoaudiosink") == std::string::npos) {
        return false;
    }
    bool found = false;
    GstIterator* all = gst_bin_iterate_recurse(GST_BIN(sink));
    GValue item = G_VALUE_INIT;
    while (gst_iterator_next(all, &item) == GST_ITERATOR_OK) {
        auto* element = static_cast<GstElement*>(g_value_get_object(&item));
        GstElementFactory* factory = gst_element_get_factory(element);
        if (factory != nullptr && g_strcmp0(GST_OBJECT_NAME(factory), "fakesink") == 0) {
            found = true;
        }
        g_value_reset(&item);
    }
    g_value_unset(&item);
    gst_iterator_free(all);
    return found;
}

void gst_output_close(GstElement* sink) {
    if (sink != nullptr) {
        gst_element_set_state(sink, GST_STATE_NULL);
        gst_object_unref(sink);
    }
}
