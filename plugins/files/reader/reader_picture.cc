/* Pictures inside of media files: each format keeps them in its own way. */
#include "reader_picture.h"

#include <cstring>

#include <aifffile.h>
#include <apefile.h>
#include <apetag.h>
#include <asffile.h>
#include <attachedpictureframe.h>
#include <flacfile.h>
#include <id3v2tag.h>
#include <mp4file.h>
#include <mpcfile.h>
#include <mpegfile.h>
#include <oggflacfile.h>
#include <opusfile.h>
#include <speexfile.h>
#include <trueaudiofile.h>
#include <vorbisfile.h>
#include <wavfile.h>
#include <wavpackfile.h>
#include <xiphcomment.h>

#include "files_reader_message.h"

/* What was found so far. */
struct found_picture {
    TagLib::ByteVector bytes; /* shared with the file, not copied */
    bool front = false;
};

/* The first front cover wins, and before it comes any picture. */
static void offer(found_picture* found, const TagLib::ByteVector& bytes, bool front) {
    if (!bytes.isEmpty() && bytes.size() <= FILES_PICTURE_MOST &&
        (found->bytes.isEmpty() || (front && !found->front))) {
        *found = {bytes, front};
    }
}

static void look(const TagLib::ID3v2::Tag* tag, found_picture* found) {
    if (tag == nullptr) {
        return;
    }
    const auto frames = tag->frameListMap().find("APIC");
    if (frames == tag->frameListMap().end()) {
        return;
    }
    for (const TagLib::ID3v2::Frame* frame : frames->second) {
        const auto* picture = dynamic_cast<const TagLib::ID3v2::AttachedPictureFrame*>(frame);
        if (picture != nullptr) {
            offer(found, picture->picture(),
                  picture->type() == TagLib::ID3v2::AttachedPictureFrame::FrontCover);
        }
    }
}

static void look(const TagLib::List<TagLib::FLAC::Picture*>& pictures, found_picture* found) {
    for (const TagLib::FLAC::Picture* picture : pictures) {
        offer(found, picture->data(), picture->type() == TagLib::FLAC::Picture::FrontCover);
    }
}

static void look(TagLib::Ogg::XiphComment* tag, found_picture* found) {
    if (tag != nullptr) {
        look(tag->pictureList(), found);
    }
}

/* The name of the picture's file stands before it, with a NUL in between. */
static void look(const TagLib::APE::Tag* tag, found_picture* found) {
    if (tag == nullptr) {
        return;
    }
    for (const auto& [name, item] : tag->itemListMap()) {
        if (item.type() == TagLib::APE::Item::Binary && name.startsWith("COVER ART")) {
            const TagLib::ByteVector data = item.binaryData();
            const int end = data.find('\0');
            const auto begin = end < 0 ? 0U : static_cast<unsigned>(end) + 1;
            offer(found, data.mid(begin), name == "COVER ART (FRONT)");
        }
    }
}

static void look(const TagLib::MP4::Tag* tag, found_picture* found) {
    if (tag == nullptr || !tag->contains("covr")) {
        return;
    }
    for (const TagLib::MP4::CoverArt& picture : tag->item("covr").toCoverArtList()) {
        offer(found, picture.data(), false);
    }
}

static void look(const TagLib::ASF::Tag* tag, found_picture* found) {
    if (tag == nullptr) {
        return;
    }
    for (const TagLib::ASF::Attribute& attribute : tag->attribute("WM/Picture")) {
        const TagLib::ASF::Picture picture = attribute.toPicture();
        if (picture.isValid()) {
            offer(found, picture.picture(), picture.type() == TagLib::ASF::Picture::FrontCover);
        }
    }
}

static void look_by_format(TagLib::File* file, found_picture* found) {
    if (auto* mpeg = dynamic_cast<TagLib::MPEG::File*>(file)) {
        look(mpeg->ID3v2Tag(), found);
        look(mpeg->APETag(), found);
    } else if (auto* flac = dynamic_cast<TagLib::FLAC::File*>(file)) {
        look(flac->pictureList(), found);
        look(flac->ID3v2Tag(), found);
    } else if (auto* vorbis = dynamic_cast<TagLib::Ogg::Vorbis::File*>(file)) {
        look(vorbis->tag(), found);
    } else if (auto* opus = dynamic_cast<TagLib::Ogg::Opus::File*>(file)) {
        look(opus->tag(), found);
    } else if (auto* speex = dynamic_cast<TagLib::Ogg::Speex::File*>(file)) {
        look(speex->tag(), found);
    } else if (auto* ogg_flac = dynamic_cast<TagLib::Ogg::FLAC::File*>(file)) {
        look(ogg_flac->tag(), found);
    } else if (auto* mp4 = dynamic_cast<TagLib::MP4::File*>(file)) {
        look(mp4->tag(), found);
    } else if (auto* wav = dynamic_cast<TagLib::RIFF::WAV::File*>(file)) {
        look(wav->ID3v2Tag(), found);
    } else if (auto* aiff = dynamic_cast<TagLib::RIFF::AIFF::File*>(file)) {
        look(aiff->tag(), found);
    } else if (auto* wavpack = dynamic_cast<TagLib::WavPack::File*>(file)) {
        look(wavpack->APETag(), found);
    } else if (auto* ape = dynamic_cast<TagLib::APE::File*>(file)) {
        look(ape->APETag(), found);
    } else if (auto* mpc = dynamic_cast<TagLib::MPC::File*>(file)) {
        look(mpc->APETag(), found);
    } else if (auto* true_audio = dynamic_cast<TagLib::TrueAudio::File*>(file)) {
        look(true_audio->ID3v2Tag(), found);
    } else if (auto* asf = dynamic_cast<TagLib::ASF::File*>(file)) {
        look(asf->tag(), found);
    }
}

std::string reader_picture(TagLib::File* file) {
    found_picture found;
    look_by_format(file, &found);
    return {found.bytes.data(), found.bytes.size()};
}
