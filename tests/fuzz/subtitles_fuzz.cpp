// A file of subtitles read as a whole, the same bytes as packets of one track, and what is drawn of both.

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

#include "fuzz/fuzz_target.h"
#include "fuzz/memory_file.h"
#include "fuzz/packet_stream.h"
#include "fuzz/quiet.h"
#include "subtitle/subtitle_decoder.h"
#include "subtitle/subtitle_drawer.h"
#include "subtitle/subtitle_file.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

using kelp::SubtitleTrack;
using kelp::test::FuzzInput;
using kelp::test::require;

namespace {

constexpr int kMaxPackets = 16;
constexpr size_t kMaxMoments = 4;     // that are drawn of a track
constexpr uint32_t kOneOfIsText = 8;  // drawn: a new renderer looks for the fonts of the system
constexpr kelp::SubtitleScreenSize kScreen{320, 180, 640, 360};
constexpr std::array kCodecs = {
    AV_CODEC_ID_SUBRIP,
    AV_CODEC_ID_ASS,
    AV_CODEC_ID_WEBVTT,
    AV_CODEC_ID_MOV_TEXT,
    AV_CODEC_ID_DVD_SUBTITLE,
    AV_CODEC_ID_DVB_SUBTITLE,
    AV_CODEC_ID_HDMV_PGS_SUBTITLE,
    AV_CODEC_ID_XSUB,
    AV_CODEC_ID_MICRODVD,
    AV_CODEC_ID_SAMI,
    AV_CODEC_ID_EIA_608,
    AV_CODEC_ID_TEXT,
};

void checkEvent(const kelp::SubtitleEvent& event) {
    for (const auto& bitmap : event.bitmaps) {
        require(bitmap.width > 0 && bitmap.height > 0, "a bitmap has a size");
        require(bitmap.indices.size() == static_cast<size_t>(bitmap.width) * static_cast<size_t>(bitmap.height),
                "a byte for each pixel");
        require(bitmap.palette.size() == 256, "a colour for each byte");
    }
    event.plainText();
    event.isMoving();
}

void checkDrawing(const std::shared_ptr<const SubtitleTrack>& track) {
    kelp::SubtitleDrawer drawer;
    const auto events = track->all();
    for (size_t i = 0; i < std::min(events.size(), kMaxMoments); ++i) {
        const auto drawn = drawer.draw(track, events[i]->startMs, kScreen);
        for (const auto& part : drawn ? drawn->parts : decltype(drawn->parts)()) {
            require(
                part.pixels.size() == static_cast<size_t>(part.pixelWidth) * static_cast<size_t>(part.pixelHeight) * 4,
                "four bytes for each pixel");
        }
    }
}

void check(const std::shared_ptr<SubtitleTrack>& track, uint32_t choice) {
    for (const auto& event : track->all()) {
        checkEvent(*event);
        require(!track->at(event->startMs).events.empty() || event->endMs <= event->startMs || !track->head().isText,
                "a line stands when it begins");
    }
    if (!track->head().isText || choice % kOneOfIsText == 0) {
        checkDrawing(track);
    }
}

void readPackets(const uint8_t* data, size_t size, uint32_t choice) {
    FuzzInput input(data, size);
    const auto head = kelp::test::takeHead(input);
    const auto codec = kCodecs.at(head.codec % kCodecs.size());
    const auto parameters = kelp::test::makeParameters(head, AVMEDIA_TYPE_SUBTITLE, codec);
    parameters->width = static_cast<int>(head.first % 2048);
    parameters->height = head.second % 2048;
    const auto decoder = kelp::SubtitleDecoder::open(*parameters, {1, 1000}, 0);
    if (!decoder) {
        return;
    }
    const auto track = std::make_shared<SubtitleTrack>(
        SubtitleTrack::Head{decoder->isText(), decoder->isStyled(), decoder->script(), nullptr});
    AVPacket* packet = av_packet_alloc();
    int64_t ptsMs = 0;
    for (int i = 0; i < kMaxPackets && !input.empty(); ++i) {
        const uint8_t flags = input.byte();
        ptsMs += static_cast<int8_t>(input.byte()) * 16;
        const size_t wanted = input.take<uint16_t>();
        const auto bytes = static_cast<int>(std::min(wanted, input.left()));
        if (av_new_packet(packet, bytes) < 0) {
            break;
        }
        input.take(packet->data, static_cast<size_t>(bytes));
        packet->pts = packet->dts = ptsMs;
        packet->duration = flags;
        for (auto& event : decoder->decode(*packet)) {
            checkEvent(event);
            track->add(std::move(event));
        }
        av_packet_unref(packet);
        if (flags >= 0xF0) {
            decoder->flush();
            track->gap();
        }
    }
    av_packet_free(&packet);
    check(track, choice);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kelp::test::quiet();
    const uint32_t choice = kelp::test::hashOf(data, size);
    {
        const kelp::test::MemoryFile bytes(data, size);
        // Some formats name other files to open, or hosts to call.
        const auto file = kelp::SubtitleFile::read(
            bytes.path(), {{"protocol_whitelist", "file"}, {"sub_charenc", "CP1251"}}, 3, [] { return false; });
        for (const auto& [track, known] : file.entries) {
            require(track.number >= 3 && track.isPlayable == (known != nullptr), "a track is known or can't be played");
            if (known) {
                check(known, choice);
            }
        }
    }
    readPackets(data, size, choice / kOneOfIsText);
    return 0;
}
