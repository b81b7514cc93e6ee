#include "player_publish.h"

#include <charconv>
#include <cstring>

#include <veloran/json.h>

#include "media.h"
#include "msglog.h"

namespace {

/* ":n:" and the longest number: the largest float in full, with a sign and one decimal. */
constexpr char NUMBER_PREFIX[] = ":n:";
constexpr size_t PREFIX_LENGTH = sizeof(NUMBER_PREFIX) - 1;
constexpr size_t NUMBER_SIZE = 64;

struct number_text {
    char text[NUMBER_SIZE];
};

} // namespace

/* Ends a number's text; `end` is where its digits end. */
static void end_number(number_text* number, char* end) {
    std::memcpy(number->text, NUMBER_PREFIX, PREFIX_LENGTH);
    *end = '\0';
}

static number_text integer_text(int32_t value) {
    number_text number;
    end_number(
        &number,
        std::to_chars(number.text + PREFIX_LENGTH, number.text + NUMBER_SIZE - 1, value).ptr);
    return number;
}

static number_text id_text(uint64_t value) {
    number_text number;
    end_number(
        &number,
        std::to_chars(number.text + PREFIX_LENGTH, number.text + NUMBER_SIZE - 1, value).ptr);
    return number;
}

/* One decimal, whatever the locale of the process is. */
static number_text rate_text(float value) {
    number_text number;
    end_number(&number, std::to_chars(number.text + PREFIX_LENGTH, number.text + NUMBER_SIZE - 1,
                                      static_cast<double>(value), std::chars_format::fixed, 1)
                            .ptr);
    return number;
}

static const char* repeat_text(int32_t mode) {
    switch (mode) {
    case LYR_REPEAT_OFF:
        return "::off";
    case LYR_REPEAT_ONE:
        return "::one";
    default:
        return "::all";
    }
}

static const char* status_text(int32_t status) {
    switch (status) {
    case LYR_STATUS_DESTROYED:
        return "::destroyed";
    case LYR_STATUS_IDLE:
        return "::idle";
    case LYR_STATUS_PAUSED:
        return "::paused";
    case LYR_STATUS_STOPPED:
        return "::stopped";
    default:
        return "::playing";
    }
}

static void write_rate(player* player) VEL_REQUIRES(player->lock) {
    lyr_ppswriter_write_attr(player->state_writer, "rate",
                             rate_text(player->playback_rate.load()).text);
}

static void write_shuffle(player* player) VEL_REQUIRES(player->lock) {
    lyr_ppswriter_write_attr(player->state_writer, "shuffle",
                             player->shuffle_mode.load() != 0 ? "::on" : "::off");
}

static void write_repeat(player* player) VEL_REQUIRES(player->lock) {
    lyr_ppswriter_write_attr(player->state_writer, "repeat",
                             repeat_text(player->repeat_mode.load()));
}

static void write_status(player* player) VEL_REQUIRES(player->lock) {
    lyr_ppswriter_write_attr(player->state_writer, "status", status_text(player->status.load()));
}

/* Writes a finished encoder's text as an attribute: what stands behind its name. */
static void write_json(lyr_ppswriter* writer, const pps_encoder* encoder, const char* name,
                       const char* object) {
    const char* text = pps_encoder_buffer(encoder);
    if (text == nullptr) {
        msglog(2, "Couldn't update %s in %s (no memory)", name, object);
        return;
    }
    lyr_ppswriter_write_attr(writer, name, std::strchr(text, ':'));
}

static void write_node(lyr_ppswriter* writer, const medianode* node) {
    if (node == nullptr) {
        lyr_ppswriter_write_attr(writer, "media_node", nullptr);
        return;
    }
    pps_encoder encoder;
    pps_encoder_initialize(&encoder);
    pps_encoder_start_object(&encoder, "media_node");
    pps_encoder_add_string(&encoder, "id", node->id);
    pps_encoder_add_string(&encoder, "name", node->name);
    pps_encoder_add_int(&encoder, "count", node->count);
    pps_encoder_add_int(&encoder, "type", node->type);
    pps_encoder_add_int(&encoder, "ms_id", node->ms_id);
    pps_encoder_add_int(&encoder, "ms_type", node->ms_type);
    pps_encoder_end_object(&encoder);
    const char* text = pps_encoder_buffer(&encoder);
    msglog(6, "media_node: %s", text == nullptr ? "" : text);
    write_json(writer, &encoder, "media_node", "track");
    pps_encoder_cleanup(&encoder);
}

static void write_metadata(lyr_ppswriter* writer, const metadata* data) {
    if (data == nullptr) {
        lyr_ppswriter_write_attr(writer, "metadata", nullptr);
        return;
    }
    pps_encoder encoder;
    pps_encoder_initialize(&encoder);
    pps_encoder_start_object(&encoder, "metadata");
    pps_encoder_add_string(&encoder, "title", data->title);
    pps_encoder_add_string(&encoder, "artwork", data->artwork);
    pps_encoder_add_string(&encoder, "artist", data->artist);
    pps_encoder_add_string(&encoder, "album", data->album);
    pps_encoder_add_string(&encoder, "genre", data->genre);
    pps_encoder_add_string(&encoder, "year", data->year);
    pps_encoder_add_int(&encoder, "duration", data->duration);
    pps_encoder_add_int(&encoder, "width", data->width);
    pps_encoder_add_int(&encoder, "height", data->height);
    pps_encoder_add_int(&encoder, "disc", data->disc);
    pps_encoder_add_int(&encoder, "track", data->track);
    pps_encoder_end_object(&encoder);
    write_json(writer, &encoder, "metadata", "track");
    pps_encoder_cleanup(&encoder);
}

static void write_source(lyr_ppswriter* writer, const mediasource* source) {
    pps_encoder encoder;
    pps_encoder_initialize(&encoder);
    pps_encoder_start_object(&encoder, "media_source");
    pps_encoder_add_string(&encoder, "name", source->name);
    pps_encoder_add_string(&encoder, "view_name", source->view_name);
    pps_encoder_add_string(&encoder, "uid", source->uid);
    pps_encoder_add_int(&encoder, "id", source->id);
    pps_encoder_add_int(&encoder, "type", source->type);
    pps_encoder_add_int(&encoder, "status", mediasource_status(source));
    pps_encoder_add_uint64(&encoder, "capabilities", mediasource_capabilities(source));
    pps_encoder_end_object(&encoder);
    write_json(writer, &encoder, "media_source", "mediasource");
    pps_encoder_cleanup(&encoder);
}

extern "C" {

void player_publish_state(player* player) noexcept {
    write_rate(player);
    write_shuffle(player);
    write_repeat(player);
    write_status(player);
    lyr_ppswriter_flush(player->state_writer);
}

void player_publish_state_rate(player* player) noexcept {
    write_rate(player);
    lyr_ppswriter_flush(player->state_writer);
}

void player_publish_state_shuffle(player* player) noexcept {
    write_shuffle(player);
    lyr_ppswriter_flush(player->state_writer);
}

void player_publish_state_repeat(player* player) noexcept {
    write_repeat(player);
    lyr_ppswriter_flush(player->state_writer);
}

void player_publish_state_status(player* player) noexcept {
    write_status(player);
    lyr_ppswriter_flush(player->state_writer);
}

void player_publish_status(player* player, int32_t position) noexcept {
    lyr_ppswriter_write_attr(player->status_writer, "position", integer_text(position).text);
    lyr_ppswriter_flush(player->status_writer);
}

void player_publish_track(player* player, uint64_t tsid, int32_t index, const medianode* node,
                          const metadata* data) noexcept {
    lyr_ppswriter* writer = player->track_writer;
    lyr_ppswriter_write_attr(writer, "tsid", id_text(tsid).text);
    lyr_ppswriter_write_attr(writer, "index", integer_text(index).text);
    write_node(writer, node);
    write_metadata(writer, data);
    lyr_ppswriter_flush(writer);
}

void player_publish_track_index(player* player, int32_t index) noexcept {
    lyr_ppswriter_write_attr(player->track_writer, "index", integer_text(index).text);
    lyr_ppswriter_flush(player->track_writer);
}

void player_publish_trksession(player* player, int32_t type, int32_t length,
                               uint64_t tsid) noexcept {
    lyr_ppswriter_write_attr(player->trksession_writer, "type", integer_text(type).text);
    lyr_ppswriter_write_attr(player->trksession_writer, "tsid", id_text(tsid).text);
    lyr_ppswriter_write_attr(player->trksession_writer, "length", integer_text(length).text);
    lyr_ppswriter_flush(player->trksession_writer);
}

void player_publish_mediasource(player* player, int32_t type, const mediasource* source) noexcept {
    lyr_ppswriter_write_attr(player->mediasource_writer, "type", integer_text(type).text);
    if (source != nullptr) {
        write_source(player->mediasource_writer, source);
    }
    lyr_ppswriter_flush(player->mediasource_writer);
}
}
