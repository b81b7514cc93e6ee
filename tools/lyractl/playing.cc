#include "playing.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "text.h"

namespace {

using json = nlohmann::ordered_json;

constexpr const char* MARGIN = "  ";
constexpr const char* KEYS = "space pause   n next   b previous   q quit";
constexpr int32_t BAR_LEAST = 4; /* columns of a bar that still says something */

std::string member_text(const json& object, const char* name) {
    const auto found = object.find(name);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

int64_t member_number(const json& object, const char* name) {
    const auto found = object.find(name);
    return found != object.end() && found->is_number_integer() ? found->get<int64_t>() : 0;
}

int64_t number_of(const watch_attribute& attribute) {
    const json value = watch_json(attribute.value);
    return value.is_number_integer() ? value.get<int64_t>() : 0;
}

void apply_state(playing* now, const watch_attribute& attribute) {
    if (attribute.name == "status") {
        now->status = watch_text(attribute.value);
    } else if (attribute.name == "shuffle") {
        now->shuffle = watch_text(attribute.value);
    } else if (attribute.name == "repeat") {
        now->repeat = watch_text(attribute.value);
    } else if (attribute.name == "rate") {
        const json value = watch_json(attribute.value);
        now->rate = value.is_number() ? value.get<double>() : 1.0;
    }
}

/* An attribute that does not come along has not changed, so each is kept by itself. */
void apply_track(playing* now, const watch_attribute& attribute) {
    const json value = attribute.gone ? json() : watch_json(attribute.value);
    if (attribute.name == "index") {
        now->index = number_of(attribute);
        now->has_track = true;
    } else if (attribute.name == "media_node") {
        const std::string node = member_text(value, "id");
        if (!now->node.empty() && node != now->node) {
            /* The position that stands there is the last one of the track before. */
            now->position = 0;
        }
        now->node = node;
        now->name = member_text(value, "name");
    } else if (attribute.name == "metadata") {
        now->title = member_text(value, "title");
        now->artist = member_text(value, "artist");
        now->album = member_text(value, "album");
        now->duration = member_number(value, "duration");
    }
}

void forget_track(playing* now) {
    now->has_track = false;
    for (const char* name : {"media_node", "metadata"}) {
        apply_track(now, {name, {}, true});
    }
}

std::string title_of(const playing& now) {
    return text_printable(now.title.empty() ? now.name : now.title);
}

/* [=====>-----] in exactly `width` columns. */
std::string bar(const playing& now, int32_t width) {
    const int32_t inside = width - 2;
    int64_t done = 0;
    if (now.duration > 0) {
        done = std::clamp<int64_t>(now.position * inside / now.duration, 0, inside);
    }
    std::string text(static_cast<size_t>(inside), '-');
    std::fill_n(text.begin(), done, '=');
    if (done > 0) {
        text[static_cast<size_t>(done) - 1] = '>';
    }
    return "[" + text + "]";
}

std::string progress_line(const playing& now, int32_t columns) {
    const std::string left = text_pad(text_printable(now.status), 8, false);
    const std::string right =
        text_clock(now.position) + " / " + (now.duration > 0 ? text_clock(now.duration) : "-:--");
    const int32_t room = columns - text_width(left) - text_width(right) - 2;
    if (room < BAR_LEAST) {
        return left + " " + right;
    }
    return left + " " + bar(now, room) + " " + right;
}

std::string modes_line(const playing& now) {
    std::string line = now.has_track ? "track " + std::to_string(now.index + 1) + " of " +
                                           std::to_string(now.length)
                                     : "no track";
    line += "   shuffle " + text_printable(now.shuffle) + "   repeat " + text_printable(now.repeat);
    return line;
}

/* Text broken at blanks into lines of at most `width` columns, as far as its words allow. */
std::vector<std::string> wrapped(const std::string& text, int32_t width) {
    std::vector<std::string> lines;
    size_t begin = 0;
    while (begin < text.size()) {
        const size_t end = std::min(text.find(' ', begin), text.size());
        const std::string word = text.substr(begin, end - begin);
        if (!lines.empty() && text_width(lines.back()) + 1 + text_width(word) <= width) {
            lines.back() += " " + word;
        } else {
            lines.push_back(word);
        }
        begin = end + 1;
    }
    return lines;
}

} // namespace

void playing_apply(playing* now, const watch_change& change) {
    if (change.object == "track" && change.gone) {
        forget_track(now);
        return;
    }
    for (const watch_attribute& attribute : change.attributes) {
        if (change.object == "state") {
            apply_state(now, attribute);
        } else if (change.object == "status" && attribute.name == "position") {
            now->position = number_of(attribute);
        } else if (change.object == "trksession" && attribute.name == "length") {
            now->length = number_of(attribute);
        } else if (change.object == "track") {
            apply_track(now, attribute);
        }
    }
}

std::string playing_line(const playing& now) {
    std::string line = title_of(now);
    if (!now.artist.empty()) {
        line += " - " + text_printable(now.artist);
    }
    if (!now.album.empty()) {
        line += " (" + text_printable(now.album) + ")";
    }
    return line;
}

std::vector<std::string> playing_screen(const playing& now, const std::string& note,
                                        int32_t columns, int32_t rows) {
    const int32_t width = std::max(columns - 2 * static_cast<int32_t>(text_width(MARGIN)), 1);
    std::vector<std::string> lines = {
        "",
        title_of(now),
        text_printable(now.artist),
        text_printable(now.album),
        "",
        progress_line(now, width),
        modes_line(now),
        "",
        KEYS,
        "",
    };
    for (std::string& line : wrapped(text_printable(note), width)) {
        lines.push_back(std::move(line));
    }
    if (rows < static_cast<int32_t>(lines.size())) {
        /* A low window: what plays and how far it is matter most. */
        lines.erase(std::remove(lines.begin(), lines.end(), ""), lines.end());
        lines.resize(std::min(lines.size(), static_cast<size_t>(std::max(rows, 0))));
    }
    for (std::string& line : lines) {
        line = line.empty() ? line : MARGIN + text_cut(line, width);
    }
    return lines;
}
