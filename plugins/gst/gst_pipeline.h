/* One GStreamer pipeline of a player: built, opened for a track, moved about, closed. [worker] */
#ifndef LYRANE_GST_PIPELINE_H
#define LYRANE_GST_PIPELINE_H

#include <cstdint>
#include <string>

#include <gst/gst.h>

/* The pipeline outlives a track, so that the output is looked for once and not at every track. */
struct gst_pipeline {
    GstElement* playbin = nullptr; /* null: none is built */
    GstBus* bus = nullptr;
    GstElement* audio_sink = nullptr;
    GstElement* video_sink = nullptr; /* null: built without */
    int file = -1;                    /* owned: of a track whose source is not made yet */
};

/* What a pipeline is built from. */
struct gst_pipeline_plan {
    std::string audio_output;
    std::string video_output;
    bool video;              /* an output for pictures is needed */
    uint32_t number;         /* of the track, for outputs that name one place a track */
    GstBusSyncHandler heard; /* takes a message over, on any thread */
    void* heard_data;
};

/* Builds a pipeline, which stays where it is; false with the reason in *why and nothing built. */
bool gst_pipeline_build(gst_pipeline* pipeline, const gst_pipeline_plan& plan, std::string* why);
/* Starts to open a track, to be paused at its beginning. Takes the descriptor of its file over; the
 * URI says what it is called. */
GstStateChangeReturn gst_pipeline_open(gst_pipeline* pipeline, int file, const std::string& uri,
                                       bool video);
/* Leaves the track: its file is closed, and no message about it comes any more. */
void gst_pipeline_close(gst_pipeline* pipeline);
/* Takes the pipeline down. Accepts one that is not built. */
void gst_pipeline_dispose(gst_pipeline* pipeline);

/* Moves to a position in ms at a rate; false when the track does not allow it. */
bool gst_pipeline_seek(gst_pipeline* pipeline, int64_t position, double rate);
/* Where the track is, in ms, or -1. */
int32_t gst_pipeline_position(gst_pipeline* pipeline);

#endif
