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
#include <atomic>
#include <cerrno>
#include <ctime>

#include "gst_output.h"
#include "gst_pipeline.h"

static constexpr int64_t OPENING_LIMIT = 30000; /* ms until a track counts as broken */
static constexpr int64_t MOVING_LIMIT = 2000;   /* ms until a seek counts as done */

/* So many tracks in a row may fail, or end without having moved, before each further one is
 * reported only after a pause: a session that repeats and has nothing to play would keep a
 * processor busy with walking through its list. */
static constexpr int32_t FRUITLESS_MOST = 8;
static constexpr int64_t FRUITLESS_PAUSE = 250; /* ms */

static constexpr int64_t NEVER = INT64_MAX;

enum class gst_phase {
    closed,  /* no track is open */
    opening, /* on the way to paused at the beginning */
    moving,  /* a seek or a change of state is under way */
    ready,   /* follows the target */
};

enum class gst_outcome { none, finished, skip, fatal };

struct gst_worker {
    gst_player* player = nullptr;
    gst_pipeline pipeline;
    uint64_t seen = 0; /* changes of the wish that were read */
    uint64_t load = 0; /* the load that everything below is about */
    gst_phase phase = gst_phase::closed;
    int64_t phase_limit = NEVER;      /* when opening or moving has taken too long */
    GstState state = GST_STATE_READY; /* last asked for */
    uint64_t seek_done = 0;           /* number of the last seek carried out */
    uint64_t seek_told = 0;           /* number of the last seek whose target was reported */
    double rate = 1.0;                /* of the open track */
    int64_t next_position = 0;
    bool tell_position = false; /* at once, also when not playing */
    std::string broken;         /* why GStreamer did not start; empty: it did */
    gst_outcome outcome = gst_outcome::none;
    int64_t outcome_due = 0;
    int32_t fruitless = 0;
};

/* Milliseconds on the monotonic clock. */
static int64_t clock_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/* A seek that was asked for and not carried out. */
static bool seek_waits(const gst_worker& worker, const gst_wish& wish) {
    return wish.seek >= 0 && wish.seek_number != worker.seek_done;
}

/* --- outcomes ------------------------------------------------------------------------------- */

/* The open track came to its end, for good or ill. Reported when the player plays. */
static void conclude(gst_worker* worker, gst_outcome outcome, bool fruitless) {
    worker->fruitless = fruitless ? worker->fruitless + 1 : 0;
    worker->outcome = outcome;
    worker->outcome_due = clock_ms() + (worker->fruitless > FRUITLESS_MOST ? FRUITLESS_PAUSE : 0);
}

/* The track cannot be played. The pipeline goes, too: after an error it cannot be trusted. */
static void fail(gst_worker* worker, gst_outcome outcome, const std::string& uri,
                 const std::string& why) {
    worker->player->log(3, ("cannot play " + uri + ": " + why).c_str());
    gst_pipeline_dispose(&worker->pipeline);
    worker->phase = gst_phase::closed;
    worker->phase_limit = NEVER;
    conclude(worker, outcome, true);
}

/* Closes the track; the pipeline stays for the next one. */
static void leave(gst_worker* worker) {
    if (worker->phase != gst_phase::closed) {
        gst_pipeline_close(&worker->pipeline);
    }
    worker->phase = gst_phase::closed;
    worker->phase_limit = NEVER;
    worker->tell_position = false;
    worker->outcome = gst_outcome::none;
}

/* --- listening ------------------------------------------------------------------------------ */

/* [any thread] A message has arrived; it stays on the bus for the worker. */
static GstBusSyncReply heard(GstBus*, GstMessage*, gpointer data) {
    auto* player = static_cast<gst_player*>(data);
    vel_lock_guard hold(player->lock);
    player->heard = true;
    pthread_cond_signal(&player->wake);
    return GST_BUS_PASS;
}

static bool comes_from(GstMessage* message, GstElement* element) {
    return element != nullptr && GST_MESSAGE_SRC(message) != nullptr &&
           (GST_MESSAGE_SRC(message) == GST_OBJECT(element) ||
            gst_object_has_as_ancestor(GST_MESSAGE_SRC(message), GST_OBJECT(element)) != FALSE);
}

/* An error of an output is the end of all playing, any other one only of this track. */
static void listen_error(gst_worker* worker, const gst_wish& wish, GstMessage* message) {
    GError* error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    const std::string why = error != nullptr ? error->message : "unknown error";
    g_clear_error(&error);
    const bool output = comes_from(message, worker->pipeline.audio_sink) ||
                        comes_from(message, worker->pipeline.video_sink);
    fail(worker, output ? gst_outcome::fatal : gst_outcome::skip, wish.uri, why);
}

/* What was under way is complete: paused at the beginning, or at the position sought. */
static void listen_done(gst_worker* worker) {
    worker->tell_position = worker->phase == gst_phase::moving;
    worker->phase = gst_phase::ready;
    worker->phase_limit = NEVER;
}

static void listen_message(gst_worker* worker, const gst_wish& wish, GstMessage* message) {
    const bool own = GST_MESSAGE_SRC(message) == GST_OBJECT(worker->pipeline.playbin);
    switch (GST_MESSAGE_TYPE(message)) {
    case GST_MESSAGE_ERROR:
        listen_error(worker, wish, message);
        break;
    case GST_MESSAGE_EOS:
        if (own && worker->outcome == gst_outcome::none) {
            conclude(worker, gst_outcome::finished, gst_pipeline_position(&worker->pipeline) <= 0);
        }
        break;
    case GST_MESSAGE_ASYNC_DONE:
        if (own && worker->phase != gst_phase::ready) {
            listen_done(worker);
        }
        break;
    case GST_MESSAGE_CLOCK_LOST:
        if (worker->state == GST_STATE_PLAYING) {
            gst_element_set_state(worker->pipeline.playbin, GST_STATE_PAUSED);
            gst_element_set_state(worker->pipeline.playbin, GST_STATE_PLAYING);
        }
        break;
    case GST_MESSAGE_LATENCY:
        gst_bin_recalculate_latency(GST_BIN(worker->pipeline.playbin));
        break;
    default:
        break;
    }
}

/* Reads all messages. Those of a track that was left were dropped with it. */
static void listen(gst_worker* worker, const gst_wish& wish) {
    while (worker->phase != gst_phase::closed) {
        GstMessage* message = gst_bus_pop(worker->pipeline.bus);
        if (message == nullptr) {
            break;
        }
        listen_message(worker, wish, message);
        gst_message_unref(message);
    }
    const int64_t now = clock_ms();
    if (worker->phase == gst_phase::opening && now >= worker->phase_limit) {
        fail(worker, gst_outcome::skip, wish.uri, "it does not open");
    } else if (worker->phase == gst_phase::moving && now >= worker->phase_limit) {
        listen_done(worker);
    }
}

/* --- following ------------------------------------------------------------------------------ */

/* Says once that nothing will be heard. */
static void mention_null_sink(gst_worker* worker) {
    static std::atomic<bool> mentioned{false};
    const gst_pipeline& built = worker->pipeline;
    if (gst_output_found_nothing(built.audio_sink, worker->player->audio_output) &&
        !mentioned.exchange(true)) {
        worker->player->log(4, "no sound device, playing into a null sink");
    }
}

/* Sees to it that a pipeline stands that suits the track. */
static bool prepare(gst_worker* worker, const gst_wish& wish, std::string* why) {
    static std::atomic<uint32_t> tracks{0};
    const gst_player& player = *worker->player;
    const bool numbered = gst_output_numbered(player.audio_output) ||
                          (wish.video && gst_output_numbered(player.video_output));
    if (numbered || (wish.video && worker->pipeline.video_sink == nullptr)) {
        gst_pipeline_dispose(&worker->pipeline);
    }
    const uint32_t number = ++tracks;
    if (worker->pipeline.playbin != nullptr) {
        return true;
    }
    const gst_pipeline_plan plan = {
        player.audio_output, player.video_output, wish.video, number, heard, worker->player};
    if (!gst_pipeline_build(&worker->pipeline, plan, why)) {
        return false;
    }
    mention_null_sink(worker);
    return true;
}

/* Opens the track of the wish. */
static void open(gst_worker* worker, const gst_wish& wish) {
    std::string why = worker->broken;
    if (!why.empty() || !prepare(worker, wish, &why)) {
        fail(worker, gst_outcome::fatal, wish.uri, why);
        return;
    }
    worker->state = GST_STATE_PAUSED;
    worker->rate = 1.0;
    worker->phase = gst_phase::opening;
    worker->phase_limit = clock_ms() + OPENING_LIMIT;
    const auto result = gst_pipeline_open(&worker->pipeline, wish.uri, wish.video);
    if (result == GST_STATE_CHANGE_FAILURE) {
        listen(worker, wish);
        if (worker->phase != gst_phase::closed) {
            fail(worker, gst_outcome::skip, wish.uri, "it does not open");
        }
    } else if (result != GST_STATE_CHANGE_ASYNC) {
        listen_done(worker);
    }
}

/* GStreamer has begun something; its message will say when it is done. */
static void begin_moving(gst_worker* worker) {
    worker->phase = gst_phase::moving;
    worker->phase_limit = clock_ms() + MOVING_LIMIT;
}

/* Carries out a seek or a change of rate. */
static void seek(gst_worker* worker, const gst_wish& wish) {
    const bool wanted = seek_waits(*worker, wish);
    const int64_t position =
        wanted ? wish.seek : std::max(0, gst_pipeline_position(&worker->pipeline));
    worker->seek_done = wish.seek_number;
    worker->rate = wish.rate;
    if (gst_pipeline_seek(&worker->pipeline, position, wish.rate)) {
        worker->outcome = gst_outcome::none;
        begin_moving(worker);
    } else {
        worker->tell_position = true; /* it stays where it is; somebody may believe otherwise */
    }
}

/* Makes the pipeline play or pause. */
static void change_state(gst_worker* worker, const gst_wish& wish, GstState state) {
    worker->state = state;
    worker->tell_position = state == GST_STATE_PAUSED;
    worker->next_position = clock_ms() + worker->player->update_interval;
    const auto result = gst_element_set_state(worker->pipeline.playbin, state);
    if (result == GST_STATE_CHANGE_ASYNC) {
        begin_moving(worker);
    } else if (result == GST_STATE_CHANGE_FAILURE) {
        listen(worker, wish);
        if (worker->phase != gst_phase::closed) {
            fail(worker, gst_outcome::skip, wish.uri, "it does not start");
        }
    }
}

/* Brings the pipeline to the place and the state of the wish. It pauses before it moves and moves
 * before it plays, so that nothing is heard that was not asked for. */
static void settle(gst_worker* worker, const gst_wish& wish) {
    const bool play = wish.target == gst_target::playing;
    if (!play && worker->state == GST_STATE_PLAYING) {
        change_state(worker, wish, GST_STATE_PAUSED);
    }
    if (worker->phase == gst_phase::ready &&
        (seek_waits(*worker, wish) || wish.rate != worker->rate)) {
        seek(worker, wish);
    }
    if (worker->phase == gst_phase::ready && play && worker->state != GST_STATE_PLAYING) {
        change_state(worker, wish, GST_STATE_PLAYING);
    }
}

/* Turns to a new load: the track of the old one is closed, its news and seeks are void. */
static void adopt(gst_worker* worker, const gst_wish& wish) {
    leave(worker);
    worker->load = wish.load;
    worker->seek_done = wish.seek >= 0 ? wish.seek_number - 1 : wish.seek_number;
}

/* One step towards the wish. */
static void follow(gst_worker* worker, const gst_wish& wish) {
    if (wish.target != gst_target::idle && worker->phase == gst_phase::closed &&
        worker->outcome == gst_outcome::none) {
        open(worker, wish);
    }
    if (worker->phase == gst_phase::ready) {
        settle(worker, wish);
    }
}

/* --- reporting ------------------------------------------------------------------------------ */

/* True when news about the worker's load may still be told. */
static bool current(const gst_worker& worker, const gst_player* player) VEL_REQUIRES(player->lock) {
    return !player->wish.closed && player->wish.load == worker.load;
}

/* Reports a position, unless a seek has made it untrue. */
static void report_position(gst_worker* worker, int32_t position, uint64_t seek_number) {
    gst_player* player = worker->player;
    {
        vel_lock_guard hold(player->lock);
        if (!current(*worker, player) || player->wish.seek_number != seek_number) {
            return;
        }
    }
    player->callbacks->position_updated(player->play_session, player->callback_data, position);
}

/* Reports how the track ended, and is done with it. The track is closed before: what it was
 * written to is complete when the callback begins. */
static void report_outcome(gst_worker* worker) {
    gst_player* player = worker->player;
    const gst_outcome outcome = worker->outcome;
    leave(worker);
    {
        vel_lock_guard hold(player->lock);
        if (!current(*worker, player)) {
            return;
        }
        ++player->wish.load;
        ++player->changes;
        player->wish.target = gst_target::idle;
        player->wish.seek = -1;
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
static bool moves(const gst_worker& worker, const gst_wish& wish) {
    return wish.target == gst_target::playing && worker.phase == gst_phase::ready &&
           worker.state == GST_STATE_PLAYING && worker.outcome == gst_outcome::none;
}

/* Reports what is due. */
static void report(gst_worker* worker, const gst_wish& wish) {
    const int64_t now = clock_ms();
    if (worker->outcome != gst_outcome::none) {
        if (wish.target == gst_target::playing && now >= worker->outcome_due) {
            report_outcome(worker);
        }
        return;
    }
    if (worker->phase == gst_phase::closed) {
        /* Where the track will begin, told once. */
        if (seek_waits(*worker, wish) && worker->seek_told != wish.seek_number) {
            worker->seek_told = wish.seek_number;
            report_position(worker, static_cast<int32_t>(wish.seek), wish.seek_number);
        }
        return;
    }
    const bool due = moves(*worker, wish) && now >= worker->next_position;
    if (worker->phase != gst_phase::ready || !(due || worker->tell_position)) {
        return;
    }
    worker->tell_position = false;
    worker->next_position = std::max(worker->next_position, now - worker->player->update_interval) +
                            worker->player->update_interval;
    const int32_t position = gst_pipeline_position(&worker->pipeline);
    if (position > 0) {
        worker->fruitless = 0;
    }
    if (position >= 0) {
        report_position(worker, position, worker->seek_done);
    }
}

/* --- the loop ------------------------------------------------------------------------------- */

/* When the worker has something to do by itself. */
static int64_t next_turn(const gst_worker& worker, const gst_wish& wish) {
    int64_t at = worker.phase_limit;
    if (moves(worker, wish)) {
        at = std::min(at, worker.next_position);
    }
    if (worker.outcome != gst_outcome::none && wish.target == gst_target::playing) {
        at = std::min(at, worker.outcome_due);
    }
    return at;
}

/* Waits until there is something to do and refreshes the copy of the wish; false when the player
 * was closed. */
static bool wait(gst_worker* worker, gst_wish* wish) {
    const int64_t until = next_turn(*worker, *wish);
    timespec limit = {};
    limit.tv_sec = until / 1000;
    limit.tv_nsec = until % 1000 * 1000000;
    gst_player* player = worker->player;
    vel_lock_guard hold(player->lock);
    int waited = 0;
    while (!player->wish.closed && !player->heard && player->changes == worker->seen &&
           waited != ETIMEDOUT) {
        waited = until == NEVER
                     ? pthread_cond_wait(&player->wake, &player->lock.native)
                     : pthread_cond_timedwait(&player->wake, &player->lock.native, &limit);
    }
    player->heard = false;
    if (player->changes != worker->seen) {
        worker->seen = player->changes;
        *wish = player->wish;
    }
    return !player->wish.closed;
}

/* GStreamer starts with the first player, on its worker: reading the registry of its plug-ins may
 * take a while, and nobody waits for a worker. Returns why it does not start, or nothing. */
static std::string initialise() {
    static vel_mutex once;
    vel_lock_guard hold(once);
    GError* error = nullptr;
    if (gst_is_initialized() != FALSE || gst_init_check(nullptr, nullptr, &error) != FALSE) {
        return {};
    }
    const std::string why = error != nullptr ? error->message : "GStreamer does not start";
    g_clear_error(&error);
    return why;
}

void gst_worker_serve(gst_player* player) noexcept {
    gst_worker worker;
    gst_wish wish;
    worker.player = player;
    worker.broken = initialise();
    while (wait(&worker, &wish)) {
        if (wish.load != worker.load) {
            adopt(&worker, wish);
        }
        listen(&worker, wish);
        follow(&worker, wish);
        report(&worker, wish);
    }
    gst_pipeline_dispose(&worker.pipeline);
    player->released(player->play_session);
}
