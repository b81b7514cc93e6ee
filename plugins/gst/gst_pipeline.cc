/* One GStreamer pipeline of a player. */
#include "gst_pipeline.h"

#include <algorithm>

#include <unistd.h>

#include "gst_output.h"
#include "gst_source.h"

/* Bits of playbin's "flags"; GStreamer has no header for them. */
static constexpr guint PLAY_VIDEO = 0x1;
static constexpr guint PLAY_AUDIO = 0x2;
static constexpr guint PLAY_DEINTERLACE = 0x200;

static constexpr const char* NO_VIDEO_OUTPUT = "fakesink sync=true";

/* Creates the outputs; on failure what there is stays for the caller to dispose of. */
static bool open_outputs(gst_pipeline* pipeline, const gst_pipeline_plan& plan, std::string* why) {
    pipeline->audio_sink = gst_output_open(plan.audio_output, plan.number, why);
    if (pipeline->audio_sink == nullptr) {
        return false;
    }
    if (plan.video) {
        const std::string shown = plan.video_output.empty() ? NO_VIDEO_OUTPUT : plan.video_output;
        pipeline->video_sink = gst_output_open(shown, plan.number, why);
    }
    return !plan.video || pipeline->video_sink != nullptr;
}

/* The source of the track was made. Whatever other sources a file asks for get nothing. */
static void hand_over(GstElement*, GstElement* source, gpointer data) {
    auto* pipeline = static_cast<gst_pipeline*>(data);
    if (pipeline->file >= 0 && gst_source_give(source, pipeline->file)) {
        pipeline->file = -1;
    }
}

static void close_file(gst_pipeline* pipeline) {
    if (pipeline->file >= 0) {
        close(pipeline->file);
    }
    pipeline->file = -1;
}

bool gst_pipeline_build(gst_pipeline* pipeline, const gst_pipeline_plan& plan, std::string* why) {
    /* Not playbin3: up to GStreamer 1.22 it now and then never finishes opening a track in a new
     * pipeline when the machine is busy. */
    pipeline->playbin = gst_element_factory_make("playbin", nullptr);
    if (pipeline->playbin == nullptr) {
        *why = "GStreamer's playbin is not installed";
        return false;
    }
    gst_object_ref_sink(pipeline->playbin);
    if (!open_outputs(pipeline, plan, why)) {
        gst_pipeline_dispose(pipeline);
        return false;
    }
    g_object_set(pipeline->playbin, "audio-sink", pipeline->audio_sink, nullptr);
    if (pipeline->video_sink != nullptr) {
        g_object_set(pipeline->playbin, "video-sink", pipeline->video_sink, nullptr);
    }
    g_signal_connect(pipeline->playbin, "source-setup", G_CALLBACK(hand_over), pipeline);
    pipeline->bus = gst_element_get_bus(pipeline->playbin);
    gst_bus_set_sync_handler(pipeline->bus, plan.heard, plan.heard_data, nullptr);
    return true;
}

GstStateChangeReturn gst_pipeline_open(gst_pipeline* pipeline, int file, const std::string& uri,
                                       bool video) {
    const guint flags = PLAY_AUDIO | (video ? PLAY_VIDEO | PLAY_DEINTERLACE : 0U);
    pipeline->file = file;
    g_object_set(pipeline->playbin, "flags", flags, "uri", (GST_SOURCE_PREFIX + uri).c_str(),
                 nullptr);
    return gst_element_set_state(pipeline->playbin, GST_STATE_PAUSED);
}

void gst_pipeline_close(gst_pipeline* pipeline) {
    if (pipeline->playbin != nullptr) {
        gst_element_set_state(pipeline->playbin, GST_STATE_READY);
    }
    close_file(pipeline);
}

void gst_pipeline_dispose(gst_pipeline* pipeline) {
    if (pipeline->playbin != nullptr) {
        gst_element_set_state(pipeline->playbin, GST_STATE_NULL);
    }
    if (pipeline->bus != nullptr) {
        gst_bus_set_sync_handler(pipeline->bus, nullptr, nullptr, nullptr);
        gst_object_unref(pipeline->bus);
    }
    /* The outputs last: one that was never linked is still open and would be lost that way. */
    gst_output_close(pipeline->audio_sink);
    gst_output_close(pipeline->video_sink);
    if (pipeline->playbin != nullptr) {
        gst_object_unref(pipeline->playbin);
    }
    close_file(pipeline);
    *pipeline = gst_pipeline{};
}

bool gst_pipeline_seek(gst_pipeline* pipeline, int64_t position, double rate) {
    return gst_element_seek(pipeline->playbin, rate, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH,
                            GST_SEEK_TYPE_SET, position * GST_MSECOND, GST_SEEK_TYPE_NONE,
                            -1) != FALSE;
}

int32_t gst_pipeline_position(gst_pipeline* pipeline) {
    gint64 now = -1;
    if (pipeline->playbin == nullptr ||
        gst_element_query_position(pipeline->playbin, GST_FORMAT_TIME, &now) == FALSE || now < 0) {
        return -1;
    }
    return static_cast<int32_t>(std::min<gint64>(now / GST_MSECOND, INT32_MAX));
}
