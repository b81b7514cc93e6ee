/* The pipeline of a player at work. */
#include "gst_drive.h"

#include <algorithm>
#include <atomic>
#include <ctime>
#include <new>

#include "gst_output.h"

static constexpr int64_t OPENING_LIMIT = 30000; /* ms until a track counts as broken */
static constexpr int64_t MOVING_LIMIT = 2000;   /* ms until a seek counts as done */

static constexpr int64_t IDLE_LIMIT = 3000; /* ms until the output is given back */

/* So many tracks in a row may fail, or end without having moved, before each further one is
 * reported only after a pause: a session that repeats and has nothing to play would keep a
 * processor busy with walking through its list. */
static constexpr int32_t FRUITLESS_MOST = 8;
static constexpr int64_t FRUITLESS_PAUSE = 250; /* ms */

int64_t gst_drive_clock() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

bool gst_drive_seek_waits(const gst_drive& drive, const gst_wish& wish) {
    return wish.seek >= 0 && wish.seek_number != drive.seek_done;
}

/* --- messages ------------------------------------------------------------------------------- */

/* [any thread] Takes a message over. It does not go through the bus, where it would arrive only
 * after this has returned: a worker that is woken here and finds nothing sleeps on. */
static GstBusSyncReply heard(GstBus*, GstMessage* message, gpointer data) {
    auto* player = static_cast<gst_player*>(data);
    vel_lock_guard hold(player->lock);
    try {
        player->messages.push_back(message);
    } catch (const std::bad_alloc&) {
        gst_message_unref(message);
    }
    pthread_cond_signal(&player->wake);
    return GST_BUS_DROP;
}

/* The next message, which is the caller's, or null. */
static GstMessage* next_message(gst_player* player) {
    vel_lock_guard hold(player->lock);
    if (player->messages.empty()) {
        return nullptr;
    }
    GstMessage* message = player->messages.front();
    player->messages.pop_front();
    return message;
}

/* Drops what a pipeline has said that has been closed: it says nothing any more. */
static void forget_messages(gst_player* player) {
    while (GstMessage* message = next_message(player)) {
        gst_message_unref(message);
    }
}

void gst_drive_end(gst_drive* drive) {
    gst_pipeline_dispose(&drive->pipeline);
    forget_messages(drive->player);
}

/* --- outcomes ------------------------------------------------------------------------------- */

/* The open track came to its end, for good or ill. Reported when the player plays. */
static void conclude(gst_drive* drive, gst_outcome outcome, bool fruitless) {
    drive->fruitless = fruitless ? drive->fruitless + 1 : 0;
    drive->outcome = outcome;
    drive->outcome_due =
        gst_drive_clock() + (drive->fruitless > FRUITLESS_MOST ? FRUITLESS_PAUSE : 0);
}

/* The track cannot be played. The pipeline goes, too: after an error it cannot be trusted. */
static void fail(gst_drive* drive, gst_outcome outcome, const std::string& uri,
                 const std::string& why) {
    drive->player->log(3, ("cannot play " + uri + ": " + why).c_str());
    gst_drive_end(drive);
    drive->phase = gst_phase::closed;
    drive->phase_limit = GST_DRIVE_NEVER;
    conclude(drive, outcome, true);
}

void gst_drive_leave(gst_drive* drive) {
    if (drive->phase != gst_phase::closed) {
        gst_pipeline_close(&drive->pipeline);
        forget_messages(drive->player);
    }
    drive->phase = gst_phase::closed;
    drive->phase_limit =
        drive->pipeline.playbin != nullptr ? gst_drive_clock() + IDLE_LIMIT : GST_DRIVE_NEVER;
    drive->tell_position = false;
    drive->outcome = gst_outcome::none;
}

/* --- listening ------------------------------------------------------------------------------ */

static bool comes_from(GstMessage* message, GstElement* element) {
    return element != nullptr && GST_MESSAGE_SRC(message) != nullptr &&
           (GST_MESSAGE_SRC(message) == GST_OBJECT(element) ||
            gst_object_has_as_ancestor(GST_MESSAGE_SRC(message), GST_OBJECT(element)) != FALSE);
}

/* An error of an output is the end of all playing, any other one only of this track. */
static void listen_error(gst_drive* drive, const gst_wish& wish, GstMessage* message) {
    GError* error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    std::string why = error != nullptr ? error->message : "unknown error";
    g_clear_error(&error);
    if (!drive->missing.empty()) {
        why += " (" + drive->missing + ')';
    }
    const bool output = comes_from(message, drive->pipeline.audio_sink) ||
                        comes_from(message, drive->pipeline.video_sink);
    fail(drive, output ? gst_outcome::fatal : gst_outcome::skip, wish.uri, why);
}

/* What was under way is complete: paused at the beginning, or at the position sought. */
static void listen_done(gst_drive* drive) {
    drive->tell_position = drive->phase == gst_phase::moving;
    drive->phase = gst_phase::ready;
    drive->phase_limit = GST_DRIVE_NEVER;
}

/* A decoder that is not installed is named before the error that comes of it. */
static void listen_element(gst_drive* drive, const GstStructure* facts) {
    const char* name = facts != nullptr && gst_structure_has_name(facts, "missing-plugin") != FALSE
                           ? gst_structure_get_string(facts, "name")
                           : nullptr;
    if (name != nullptr) {
        drive->missing = name;
    }
}

static void listen_message(gst_drive* drive, const gst_wish& wish, GstMessage* message) {
    const bool own = GST_MESSAGE_SRC(message) == GST_OBJECT(drive->pipeline.playbin);
    switch (GST_MESSAGE_TYPE(message)) {
    case GST_MESSAGE_ERROR:
        listen_error(drive, wish, message);
        break;
    case GST_MESSAGE_EOS:
        if (own && drive->outcome == gst_outcome::none) {
            conclude(drive, gst_outcome::finished, gst_pipeline_position(&drive->pipeline) <= 0);
        }
        break;
    case GST_MESSAGE_ASYNC_DONE:
        if (own && drive->phase != gst_phase::ready) {
            listen_done(drive);
        }
        break;
    case GST_MESSAGE_ELEMENT:
        listen_element(drive, gst_message_get_structure(message));
        break;
    case GST_MESSAGE_CLOCK_LOST:
        if (drive->state == GST_STATE_PLAYING) {
            gst_element_set_state(drive->pipeline.playbin, GST_STATE_PAUSED);
            gst_element_set_state(drive->pipeline.playbin, GST_STATE_PLAYING);
        }
        break;
    case GST_MESSAGE_LATENCY:
        gst_bin_recalculate_latency(GST_BIN(drive->pipeline.playbin));
        break;
    default:
        break;
    }
}

/* The phase has lasted too long. */
static void overdue(gst_drive* drive, const gst_wish& wish) {
    switch (drive->phase) {
    case gst_phase::closed: /* somebody else may want the device */
        gst_drive_end(drive);
        drive->phase_limit = GST_DRIVE_NEVER;
        break;
    case gst_phase::opening:
        fail(drive, gst_outcome::skip, wish.uri, "it does not open");
        break;
    case gst_phase::moving:
    case gst_phase::ready:
        listen_done(drive);
        break;
    }
}

void gst_drive_listen(gst_drive* drive, const gst_wish& wish) {
    while (drive->phase != gst_phase::closed) {
        GstMessage* message = next_message(drive->player);
        if (message == nullptr) {
            break;
        }
        listen_message(drive, wish, message);
        gst_message_unref(message);
    }
    if (gst_drive_clock() >= drive->phase_limit) {
        overdue(drive, wish);
    }
}

/* --- following ------------------------------------------------------------------------------ */

/* Says once that nothing will be heard. */
static void mention_null_sink(gst_drive* drive) {
    static std::atomic<bool> mentioned{false};
    const gst_pipeline& built = drive->pipeline;
    if (gst_output_found_nothing(built.audio_sink, drive->player->audio_output) &&
        !mentioned.exchange(true)) {
        drive->player->log(4, "no sound device, playing into a null sink");
    }
}

/* Sees to it that a pipeline stands that suits the track. */
static bool prepare(gst_drive* drive, const gst_wish& wish, std::string* why) {
    static std::atomic<uint32_t> tracks{0};
    const gst_player& player = *drive->player;
    const bool numbered = gst_output_numbered(player.audio_output) ||
                          (wish.video && gst_output_numbered(player.video_output));
    if (numbered || (wish.video && drive->pipeline.video_sink == nullptr)) {
        gst_drive_end(drive);
    }
    const uint32_t number = ++tracks;
    if (drive->pipeline.playbin != nullptr) {
        return true;
    }
    const gst_pipeline_plan plan = {
        player.audio_output, player.video_output, wish.video, number, heard, drive->player};
    if (!gst_pipeline_build(&drive->pipeline, plan, why)) {
        return false;
    }
    mention_null_sink(drive);
    return true;
}

/* Opens the track of the wish. */
static void open(gst_drive* drive, const gst_wish& wish) {
    std::string why = drive->broken;
    if (!why.empty() || !prepare(drive, wish, &why)) {
        fail(drive, gst_outcome::fatal, wish.uri, why);
        return;
    }
    const char* reason = nullptr;
    const int file = drive->player->open(drive->player->play_session, wish.id.c_str(), &reason);
    if (file < 0) {
        fail(drive, gst_outcome::skip, wish.uri, reason);
        return;
    }
    drive->state = GST_STATE_PAUSED;
    drive->rate = 1.0;
    drive->missing.clear();
    drive->phase = gst_phase::opening;
    drive->phase_limit = gst_drive_clock() + OPENING_LIMIT;
    const auto result = gst_pipeline_open(&drive->pipeline, file, wish.uri, wish.video);
    if (result == GST_STATE_CHANGE_FAILURE) {
        gst_drive_listen(drive, wish);
        if (drive->phase != gst_phase::closed) {
            fail(drive, gst_outcome::skip, wish.uri, "it does not open");
        }
    } else if (result != GST_STATE_CHANGE_ASYNC) {
        listen_done(drive);
    }
}

/* GStreamer has begun something; its message will say when it is done. */
static void begin_moving(gst_drive* drive) {
    drive->phase = gst_phase::moving;
    drive->phase_limit = gst_drive_clock() + MOVING_LIMIT;
}

/* Carries out a seek or a change of rate. */
static void seek(gst_drive* drive, const gst_wish& wish) {
    const bool wanted = gst_drive_seek_waits(*drive, wish);
    const int64_t position =
        wanted ? wish.seek : std::max(0, gst_pipeline_position(&drive->pipeline));
    drive->seek_done = wish.seek_number;
    drive->rate = wish.rate;
    if (gst_pipeline_seek(&drive->pipeline, position, wish.rate)) {
        drive->outcome = gst_outcome::none;
        begin_moving(drive);
    } else {
        drive->tell_position = true; /* it stays where it is; somebody may believe otherwise */
    }
}

/* Makes the pipeline play or pause. */
static void change_state(gst_drive* drive, const gst_wish& wish, GstState state) {
    drive->state = state;
    drive->tell_position = state == GST_STATE_PAUSED;
    drive->next_position = gst_drive_clock() + drive->player->update_interval;
    const auto result = gst_element_set_state(drive->pipeline.playbin, state);
    if (result == GST_STATE_CHANGE_ASYNC) {
        begin_moving(drive);
    } else if (result == GST_STATE_CHANGE_FAILURE) {
        gst_drive_listen(drive, wish);
        if (drive->phase != gst_phase::closed) {
            fail(drive, gst_outcome::skip, wish.uri, "it does not start");
        }
    }
}

/* Brings the pipeline to the place and the state of the wish. It pauses before it moves and moves
 * before it plays, so that nothing is heard that was not asked for. */
static void settle(gst_drive* drive, const gst_wish& wish) {
    const bool play = wish.target == gst_target::playing;
    if (!play && drive->state == GST_STATE_PLAYING) {
        change_state(drive, wish, GST_STATE_PAUSED);
    }
    if (drive->phase == gst_phase::ready &&
        (gst_drive_seek_waits(*drive, wish) || wish.rate != drive->rate)) {
        seek(drive, wish);
    }
    if (drive->phase == gst_phase::ready && play && drive->state != GST_STATE_PLAYING) {
        change_state(drive, wish, GST_STATE_PLAYING);
    }
}

void gst_drive_adopt(gst_drive* drive, const gst_wish& wish) {
    gst_drive_leave(drive);
    drive->load = wish.load;
    drive->seek_done = wish.seek >= 0 ? wish.seek_number - 1 : wish.seek_number;
}

void gst_drive_follow(gst_drive* drive, const gst_wish& wish) {
    if (wish.target != gst_target::idle && drive->phase == gst_phase::closed &&
        drive->outcome == gst_outcome::none) {
        open(drive, wish);
    }
    if (drive->phase == gst_phase::ready) {
        settle(drive, wish);
    }
}
