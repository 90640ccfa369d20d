#include "kelp_player/statistics.h"

#include <cstdio>

#include "c/player.h"

using namespace kelp::c;

static_assert(same(KELP_SOUND_OUTPUT_NONE, kelp::SOUND_OUTPUT_NONE));
static_assert(same(KELP_SOUND_OUTPUT_DEVICE, kelp::SOUND_OUTPUT_DEVICE));
static_assert(same(KELP_SOUND_OUTPUT_SILENCE, kelp::SOUND_OUTPUT_SILENCE));

namespace {

template <size_t kSize>
void cut(const std::string& text, char (&to)[kSize]) {
    std::snprintf(to, kSize, "%s", text.c_str());
}

kelp_statistics translated(const kelp::Statistics& from) {
    kelp_statistics to{};
    to.restarts = from.restarts;
    to.last_failure = from.lastFailure;
    to.live_delay_ms = from.liveDelayMs;
    to.live_jitter_ms = from.liveJitterMs;
    to.packet_sink_ms = from.packetSinkMs;
    to.packet_sink_longest_ms = from.packetSinkLongestMs;

    to.video_track = from.video.track;
    cut(from.video.codec, to.video_codec);
    cut(from.video.decoder, to.video_decoder);
    to.video_is_hardware = from.video.isHardware;
    to.video_packets = from.video.packets;
    to.video_bytes = from.video.bytes;
    to.video_bit_rate = from.video.bitRate;
    to.video_queue_count = from.video.queue.count;
    to.video_queue_ms = from.video.queue.durationMs;
    to.video_width = from.video.width;
    to.video_height = from.video.height;
    to.video_frame_rate = from.video.frameRate;
    to.video_decoded = from.video.decoded;
    to.video_shown = from.video.shown;
    to.video_late = from.video.late;
    to.video_repeated = from.video.repeated;
    to.video_pictures_count = from.video.pictures.count;
    to.video_pictures_ms = from.video.pictures.durationMs;
    to.video_ahead_of_master_ms = from.video.aheadOfMasterMs;

    to.audio_track = from.audio.track;
    cut(from.audio.codec, to.audio_codec);
    cut(from.audio.decoder, to.audio_decoder);
    to.audio_is_hardware = from.audio.isHardware;
    to.audio_packets = from.audio.packets;
    to.audio_bytes = from.audio.bytes;
    to.audio_bit_rate = from.audio.bitRate;
    to.audio_queue_count = from.audio.queue.count;
    to.audio_queue_ms = from.audio.queue.durationMs;
    to.audio_sample_rate = from.audio.sampleRate;
    to.audio_channels = from.audio.channels;
    to.audio_decoded = from.audio.decoded;
    to.audio_blocks = from.audio.blocks;
    to.audio_underruns = from.audio.underruns;
    to.audio_output = from.audio.output;
    to.audio_sound_count = from.audio.sound.count;
    to.audio_sound_ms = from.audio.sound.durationMs;
    to.audio_ahead_of_master_ms = from.audio.aheadOfMasterMs;
    return to;
}

}  // namespace

int kelp_player_get_statistics(kelp_player* player, kelp_statistics* statistics) {
    return carryOut(__func__, player,
                    [&](kelp_player& handle) { fill(translated(handle.player->getStatistics()), statistics); });
}
