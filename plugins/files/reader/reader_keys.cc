/* What a file says about itself beside its tags. */
#include "reader_keys.h"

#include <algorithm>
#include <array>
#include <charconv>

#include <aifffile.h>
#include <apefile.h>
#include <asffile.h>
#include <flacfile.h>
#include <id3v2tag.h>
#include <mp4file.h>
#include <mpcfile.h>
#include <mpegfile.h>
#include <oggflacfile.h>
#include <opusfile.h>
#include <popularimeterframe.h>
#include <speexfile.h>
#include <trueaudiofile.h>
#include <vorbisfile.h>
#include <wavfile.h>
#include <wavpackfile.h>

#include "files_reader_message.h"
#include "files_tags_text.h"

/* --- numbers -------------------------------------------------------------------------------- */

static std::string number(int64_t value) {
    std::array<char, 24> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value);
    return {digits.data(), end.ptr};
}

static std::string positive(int64_t value) {
    return value > 0 ? number(value) : "";
}

/* Reads a number, whatever stands behind it: "-6.50 dB". */
static bool read_number(const std::string& text, double* value) {
    const char* begin = text.data() + std::min(text.find_first_not_of(" +"), text.size());
    const auto parsed = std::from_chars(begin, text.data() + text.size(), *value);
    return parsed.ec == std::errc{} && *value > -1e6 && *value < 1e6;
}

static std::string decimals(double value, int places) {
    std::array<char, 64> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value,
                                   std::chars_format::fixed, places);
    return {digits.data(), end.ptr};
}

/* --- values --------------------------------------------------------------------------------- */

/* The values of a tag, one in a line. */
static std::string tag_of(const reader_file& file, const char* name) {
    const auto found = file.properties.find(name);
    return found == file.properties.end() ? "" : found->second.toString("\n").to8Bit(true);
}

static std::string first_number(const reader_file& file, const char* name, double scale,
                                double shift, int places) {
    double value = 0;
    const std::string text = tag_of(file, name);
    return read_number(text, &value) ? decimals(value * scale + shift, places) : "";
}

/* Opus has gains of its own: 256ths of a decibel, and 5 dB below the others' reference. */
static std::string gain(const reader_file& file, const char* name, const char* opus_name) {
    std::string text = first_number(file, name, 1, 0, 2);
    return text.empty() ? first_number(file, opus_name, 1.0 / 256, 5, 2) : text;
}

static std::string track_gain(const reader_file& file) {
    return gain(file, "REPLAYGAIN_TRACK_GAIN", "R128_TRACK_GAIN");
}
static std::string album_gain(const reader_file& file) {
    return gain(file, "REPLAYGAIN_ALBUM_GAIN", "R128_ALBUM_GAIN");
}
static std::string track_peak(const reader_file& file) {
    return first_number(file, "REPLAYGAIN_TRACK_PEAK", 1, 0, 6);
}
static std::string album_peak(const reader_file& file) {
    return first_number(file, "REPLAYGAIN_ALBUM_PEAK", 1, 0, 6);
}

static const TagLib::ID3v2::Tag* id3v2_of(TagLib::File* file) {
    if (auto* mpeg = dynamic_cast<TagLib::MPEG::File*>(file)) {
        return mpeg->ID3v2Tag();
    }
    if (const auto* wav = dynamic_cast<TagLib::RIFF::WAV::File*>(file)) {
        return wav->ID3v2Tag();
    }
    if (const auto* aiff = dynamic_cast<TagLib::RIFF::AIFF::File*>(file)) {
        return aiff->tag();
    }
    return nullptr;
}

/* Stars are stored as 1, 64, 128, 196 and 255 by most programs; 0: none given. */
static std::string stars_of(int popularity) {
    constexpr std::array<int, 5> BELOW = {32, 96, 160, 224, 256};
    if (popularity <= 0) {
        return "";
    }
    const auto* star = std::find_if(BELOW.begin(), BELOW.end(),
                                    [popularity](int below) { return popularity < below; });
    return number(20 * (std::min<ptrdiff_t>(star - BELOW.begin(), 4) + 1));
}

static std::string rating(const reader_file& file) {
    double value = 0;
    if (read_number(tag_of(file, "FMPS_RATING"), &value)) {
        return number(static_cast<int64_t>(std::clamp(value, 0.0, 1.0) * 100 + 0.5));
    }
    if (read_number(tag_of(file, "RATING"), &value) && value > 0) {
        return number(static_cast<int64_t>(std::min(value <= 5 ? value * 20 : value, 100.0) + 0.5));
    }
    const TagLib::ID3v2::Tag* tag = id3v2_of(file.tags.file());
    if (tag != nullptr) {
        const auto& map = tag->frameListMap();
        const auto frames = map.find("POPM");
        if (frames != map.end() && !frames->second.isEmpty()) {
            const auto* frame =
                dynamic_cast<const TagLib::ID3v2::PopularimeterFrame*>(frames->second.front());
            return frame != nullptr ? stars_of(frame->rating()) : "";
        }
    }
    return "";
}

static const TagLib::AudioProperties* sound_of(const reader_file& file) {
    return file.tags.audioProperties();
}

static std::string bitrate(const reader_file& file) {
    const TagLib::AudioProperties* sound = sound_of(file);
    return sound != nullptr ? positive(int64_t{1000} * sound->bitrate()) : "";
}
static std::string sample_rate(const reader_file& file) {
    const TagLib::AudioProperties* sound = sound_of(file);
    return sound != nullptr ? positive(sound->sampleRate()) : "";
}
static std::string channels(const reader_file& file) {
    const TagLib::AudioProperties* sound = sound_of(file);
    return sound != nullptr ? positive(sound->channels()) : "";
}

static std::string mpeg_codec(const TagLib::MPEG::File& file) {
    const TagLib::MPEG::Properties* sound = file.audioProperties();
    return sound != nullptr && sound->layer() > 0 ? "MP" + number(sound->layer()) : "";
}

static std::string mp4_codec(const TagLib::MP4::File& file) {
    const TagLib::MP4::Properties* sound = file.audioProperties();
    switch (sound != nullptr ? sound->codec() : TagLib::MP4::Properties::Unknown) {
    case TagLib::MP4::Properties::AAC:
        return "AAC";
    case TagLib::MP4::Properties::ALAC:
        return "ALAC";
    default:
        return "";
    }
}

/* Format numbers of a WAV file: 1 whole numbers, 3 floats, 0xFFFE either with more facts. */
static std::string wav_codec(const TagLib::RIFF::WAV::File& file) {
    const TagLib::RIFF::WAV::Properties* sound = file.audioProperties();
    const int format = sound != nullptr ? sound->format() : 0;
    return format == 1 || format == 3 || format == 0xFFFE ? "PCM" : "";
}

static std::string codec(const reader_file& media) {
    TagLib::File* file = media.tags.file();
    if (const auto* mpeg = dynamic_cast<TagLib::MPEG::File*>(file)) {
        return mpeg_codec(*mpeg);
    }
    if (const auto* mp4 = dynamic_cast<TagLib::MP4::File*>(file)) {
        return mp4_codec(*mp4);
    }
    if (const auto* wav = dynamic_cast<TagLib::RIFF::WAV::File*>(file)) {
        return wav_codec(*wav);
    }
    struct {
        bool is;
        const char* name;
    } const known[] = {
        {dynamic_cast<TagLib::FLAC::File*>(file) != nullptr, "FLAC"},
        {dynamic_cast<TagLib::Ogg::FLAC::File*>(file) != nullptr, "FLAC"},
        {dynamic_cast<TagLib::Ogg::Vorbis::File*>(file) != nullptr, "Vorbis"},
        {dynamic_cast<TagLib::Ogg::Opus::File*>(file) != nullptr, "Opus"},
        {dynamic_cast<TagLib::Ogg::Speex::File*>(file) != nullptr, "Speex"},
        {dynamic_cast<TagLib::RIFF::AIFF::File*>(file) != nullptr, "PCM"},
        {dynamic_cast<TagLib::WavPack::File*>(file) != nullptr, "WavPack"},
        {dynamic_cast<TagLib::APE::File*>(file) != nullptr, "Monkey's Audio"},
        {dynamic_cast<TagLib::MPC::File*>(file) != nullptr, "Musepack"},
        {dynamic_cast<TagLib::TrueAudio::File*>(file) != nullptr, "True Audio"},
        {dynamic_cast<TagLib::ASF::File*>(file) != nullptr, "WMA"},
    };
    const auto* found =
        std::find_if(std::begin(known), std::end(known), [](const auto& each) { return each.is; });
    return found != std::end(known) ? found->name : "";
}

static std::string composer(const reader_file& file) {
    return tag_of(file, "COMPOSER");
}
static std::string album_artist(const reader_file& file) {
    return tag_of(file, "ALBUMARTIST");
}
static std::string lyrics(const reader_file& file) {
    const std::string text = tag_of(file, "LYRICS");
    return text.empty() ? tag_of(file, "UNSYNCEDLYRICS") : text;
}
static std::string comment(const reader_file& file) {
    return tag_of(file, "COMMENT");
}

/* --- the table ------------------------------------------------------------------------------ */

/* In the order of FILES_READER_KEYS. */
static constexpr std::string (*VALUES[])(const reader_file& file) = {
    bitrate,    sample_rate, channels,   codec,  composer, album_artist, track_gain,
    track_peak, album_gain,  album_peak, lyrics, comment,  rating};
static_assert(std::size(VALUES) == FILES_READER_KEY_COUNT);

std::string reader_key(const reader_file& file, size_t key) {
    return file.tags.isNull() ? "" : files_tags_cut(VALUES[key](file), FILES_TAG_EXTENDED_MOST);
}
