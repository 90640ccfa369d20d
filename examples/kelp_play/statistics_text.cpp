#include "statistics_text.h"

#include <cstdarg>
#include <cstdio>

namespace {

using Number = long long;  // as %lld takes it

__attribute__((format(printf, 2, 3))) void append(std::string& text, const char* format, ...) {
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    text += line;
}

void appendRead(std::string& text, const kelp::ReadStatistics& stream, const kelp::QueueStatistics& decoded) {
    append(text, "  read %lld packets, %.1f MiB, %.2f Mbit/s; waiting: %d packets (%lld ms), %d decoded (%lld ms)\n",
           Number{stream.packets}, static_cast<double>(stream.bytes) / (1024 * 1024),
           static_cast<double>(stream.bitRate) / 1e6, stream.queue.count, Number{stream.queue.durationMs},
           decoded.count, Number{decoded.durationMs});
}

const char* nameOf(kelp::SoundOutput output) {
    switch (output) {
        case kelp::SOUND_OUTPUT_DEVICE:
            return "to the device";
        case kelp::SOUND_OUTPUT_SILENCE:
            return "in silence, without a device";
        default:
            return "not played";
    }
}

}  // namespace

std::string textOf(const kelp::Statistics& statistics) {
    std::string text;
    if (const auto& video = statistics.video; video.track >= 0) {
        append(text, "video %d: %s by %s%s, %dx%d, %.2f pictures a second\n", video.track, video.codec.c_str(),
               video.decoder.c_str(), video.isHardware ? " on hardware" : "", video.width, video.height,
               video.frameRate);
        appendRead(text, video, video.pictures);
        append(text, "  %lld decoded, %lld shown, %lld late, %lld repeated; %+lld ms from the master\n",
               Number{video.decoded}, Number{video.shown}, Number{video.late}, Number{video.repeated},
               Number{video.aheadOfMasterMs});
    }
    if (const auto& audio = statistics.audio; audio.track >= 0) {
        append(text, "sound %d: %s by %s, %d Hz, %d channels, %s\n", audio.track, audio.codec.c_str(),
               audio.decoder.c_str(), audio.sampleRate, audio.channels, nameOf(audio.output));
        appendRead(text, audio, audio.sound);
        append(text, "  %lld decoded, %lld played, %lld underruns; %+lld ms from the master\n", Number{audio.decoded},
               Number{audio.blocks}, Number{audio.underruns}, Number{audio.aheadOfMasterMs});
    }
    if (statistics.liveJitterMs > 0 || statistics.restarts > 0) {
        append(text, "live: %.1f ms late, jitter %.1f ms; %d restarts\n", statistics.liveDelayMs,
               statistics.liveJitterMs, statistics.restarts);
    }
    return text;
}
