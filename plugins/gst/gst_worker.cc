/* The thread of a player: follows the wish, listens to GStreamer, makes the callbacks.
 *
 * One turn of the loop takes a copy of the wish, reads the messages of the pipeline, brings the
 * pipeline one step nearer to the wish, and reports what is due. Steps that GStreamer completes
 * later (opening, seeking) have a phase; the message that completes them starts the next turn.
 *
 * A callback is committed to with the player's lock held: the load must still be the one that the
 * news is about, and the player must not be closed. The lock is released for the call itself. */
#include "gst_worker.h"

#include <algorithm>
#include <ctime>

#include "gst_drive.h"
#include "gst_library.h"

struct gst_worker {
    gst_drive drive;
    uint64_t seen = 0;      /* changes of the wish that were read */
    uint64_t seek_told = 0; /* number of the last seek whose target was reported */
};

/* --- reporting ------------------------------------------------------------------------------ */

/* True when news about the worker's load may still be told. */
static bool current(const gst_worker& worker, const gst_player* player) VEL_REQUIRES(player->lock) {
    return !player->wish.closed && player->wish.load == worker.drive.load;
}

/* Reports a position, unless a seek has made it untrue. */
static void report_position(gst_worker* worker, int32_t position, uint64_t seek_number) {
    gst_player* player = worker->drive.player;
    {
        vel_lock_guard hold(player->lock);
        if (!current(*worker, player) || player->wish.seek_number != seek_number) {
            return;
        }
    }
    player->callbacks->position_updated(player->play_session, player->callback_data, position);
}

/* True when the end of the track may be told now: nobody has stopped or paused it meanwhile. */
static bool may_conclude(const gst_worker& worker, const gst_player* player)
    VEL_REQUIRES(player->lock) {
    return current(worker, player) && player->wish.target == gst_target::playing;
}

/* Closes the track and takes the decision to report how it ended: the load is over with that. The
 * track is closed first, so that what it was written to is complete when the callback begins. */
static bool conclude(gst_worker* worker, gst_player* player) {
    {
        vel_lock_guard hold(player->lock);
        if (!may_conclude(*worker, player)) {
            return false;
        }
    }
    const gst_outcome outcome = worker->drive.outcome;
    gst_drive_leave(&worker->drive);
    vel_lock_guard hold(player->lock);
    if (!may_conclude(*worker, player)) {
        worker->drive.outcome = outcome; /* for when it plays on */
        return false;
    }
    ++player->wish.load;
    ++player->changes;
    player->wish.target = gst_target::idle;
    player->wish.seek = -1;
    return true;
}

/* Reports how the track ended. */
static void report_outcome(gst_worker* worker) {
    gst_player* player = worker->drive.player;
    const gst_outcome outcome = worker->drive.outcome;
    if (!conclude(worker, player)) {
        return;
    }
    const lyrane_internal_callbacks_table* calls = player->callbacks;
    if (outcome == gst_outcome::finished) {
        calls->track_finished(player->play_session, player->callback_data);
    } else {
        calls->play_error_occurred(player->play_session, player->callback_data,
                                   outcome == gst_outcome::fatal ? LYR_PLAY_ERROR_FATAL
                                                                 : LYR_PLAY_ERROR_SKIP);
    }
}

/* True while positions are to be reported at their interval. */
static bool moves(const gst_drive& drive, const gst_wish& wish) {
    return wish.target == gst_target::playing && drive.phase == gst_phase::ready &&
           drive.state == GST_STATE_PLAYING && drive.outcome == gst_outcome::none;
}

/* Reports where a track will begin that is not open: once for each seek. */
static void report_start(gst_worker* worker, const gst_wish& wish) {
    if (gst_drive_seek_waits(worker->drive, wish) && worker->seek_told != wish.seek_number) {
        worker->seek_told = wish.seek_number;
        report_position(worker, static_cast<int32_t>(wish.seek), wish.seek_number);
    }
}

/* Reports where the track is, at the interval or when it was moved. */
static void report_progress(gst_worker* worker, const gst_wish& wish, int64_t now) {
    gst_drive* drive = &worker->drive;
    const bool due = moves(*drive, wish) && now >= drive->next_position;
    if (drive->phase != gst_phase::ready || !(due || drive->tell_position)) {
        return;
    }
    const int32_t interval = drive->player->update_interval;
    drive->tell_position = false;
    drive->next_position = std::max(drive->next_position, now - interval) + interval;
    const int32_t position = gst_pipeline_position(&drive->pipeline);
    if (position > 0) {
        drive->fruitless = 0;
    }
    if (position >= 0) {
        report_position(worker, position, drive->seek_done);
    }
}

/* Reports what is due. */
static void report(gst_worker* worker, const gst_wish& wish) {
    const int64_t now = gst_drive_clock();
    if (worker->drive.outcome != gst_outcome::none) {
        if (wish.target == gst_target::playing && now >= worker->drive.outcome_due) {
            report_outcome(worker);
        }
    } else if (worker->drive.phase == gst_phase::closed) {
        report_start(worker, wish);
    } else {
        report_progress(worker, wish, now);
    }
}

/* --- the loop ------------------------------------------------------------------------------- */

/* When the worker has something to do by itself. */
static int64_t next_turn(const gst_drive& drive, const gst_wish& wish) {
    int64_t at = drive.phase_limit;
    if (moves(drive, wish)) {
        at = std::min(at, drive.next_position);
    }
    if (drive.outcome != gst_outcome::none && wish.target == gst_target::playing) {
        at = std::min(at, drive.outcome_due);
    }
    return at;
}

/* Waits until there is something to do and refreshes the copy of the wish; false when the player
 * was closed. */
static bool wait(gst_worker* worker, gst_wish* wish) {
    const int64_t until = next_turn(worker->drive, *wish);
    timespec limit = {};
    limit.tv_sec = until / 1000;
    limit.tv_nsec = until % 1000 * 1000000;
    gst_player* player = worker->drive.player;
    vel_lock_guard hold(player->lock);
    bool in_time = true;
    while (!player->wish.closed && player->messages.empty() && player->changes == worker->seen &&
           in_time) {
        if (until == GST_DRIVE_NEVER) {
            pthread_cond_wait(&player->wake, &player->lock.native);
        } else {
            in_time = vel_wait_until(&player->wake, &player->lock, limit);
        }
    }
    if (player->changes != worker->seen) {
        worker->seen = player->changes;
        *wish = player->wish;
    }
    return !player->wish.closed;
}

void gst_worker_serve(gst_player* player) noexcept {
    gst_worker worker;
    gst_wish wish;
    gst_library_enter();
    worker.drive.player = player;
    worker.drive.broken = gst_library_start();
    while (wait(&worker, &wish)) {
        if (wish.load != worker.drive.load) {
            gst_drive_adopt(&worker.drive, wish);
        }
        gst_drive_listen(&worker.drive, wish);
        gst_drive_follow(&worker.drive, wish);
        report(&worker, wish);
    }
    gst_drive_end(&worker.drive);
    player->released(player->play_session);
}
