/* The pipeline of a player at work: it follows the wish and learns how its track fares. [worker] */
#ifndef LYRANE_GST_DRIVE_H
#define LYRANE_GST_DRIVE_H

#include "gst_pipeline.h"
#include "gst_wish.h"

constexpr int64_t GST_DRIVE_NEVER = INT64_MAX;

enum class gst_phase {
    closed,  /* no track is open */
    opening, /* on the way to paused at the beginning */
    moving,  /* a seek or a change of state is under way */
    ready,   /* follows the target */
};

enum class gst_outcome { none, finished, skip, fatal };

/* Times are in ms on the monotonic clock. */
struct gst_drive {
    gst_player* player = nullptr;
    gst_pipeline pipeline;
    std::string broken; /* why GStreamer did not start; empty: it did */
    uint64_t load = 0;  /* the load that everything below is about */
    gst_phase phase = gst_phase::closed;
    int64_t phase_limit = GST_DRIVE_NEVER; /* when the phase has lasted too long */
    GstState state = GST_STATE_READY;      /* last asked for */
    uint64_t seek_done = 0;                /* number of the last seek carried out */
    double rate = 1.0;                     /* of the open track */
    std::string missing;                   /* a decoder that the track asks for */
    gst_outcome outcome = gst_outcome::none;
    int64_t outcome_due = 0;
    int32_t fruitless = 0;      /* tracks in a row that have not moved */
    int64_t next_position = 0;  /* when the next one is due while playing */
    bool tell_position = false; /* at once, also when not playing */
};

int64_t gst_drive_clock();

/* Turns to the load of the wish: the track of the old one is closed, its news and its seeks are
 * void. */
void gst_drive_adopt(gst_drive* drive, const gst_wish& wish);
/* Reads all messages of the pipeline. Those of a track that was left were dropped with it. */
void gst_drive_listen(gst_drive* drive, const gst_wish& wish);
/* Brings the pipeline one step nearer to the wish. */
void gst_drive_follow(gst_drive* drive, const gst_wish& wish);
/* Closes the track; the pipeline stays for the next one. */
void gst_drive_leave(gst_drive* drive);

/* Takes the pipeline down. */
void gst_drive_end(gst_drive* drive);

/* A seek that was asked for and not carried out. */
bool gst_drive_seek_waits(const gst_drive& drive, const gst_wish& wish);

#endif
