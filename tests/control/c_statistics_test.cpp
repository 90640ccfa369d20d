// The statistics as the C interface tells them: each figure of the engine's in its own field.

#include <gtest/gtest.h>

#include <memory>

#include "c/player.h"
#include "control/fake_engine.h"

namespace kelp::test {
namespace {

Statistics different() {
    Statistics all;
    int next = 0;
    const auto fillRead = [&](ReadStatistics& stream, const char* codec, const char* decoder) {
        stream.track = ++next;
        stream.codec = codec;
        stream.packets = ++next;
        stream.bytes = ++next;
        stream.bitRate = ++next;
        stream.queue = {next + 1, next + 2};
        next += 2;
        stream.decoder = decoder;
    };
    fillRead(all.video, "hevc", "hevc_cuvid");
    all.video.isHardware = true;
    all.video.width = ++next;
    all.video.height = ++next;
    all.video.frameRate = ++next + 0.5;
    all.video.decoded = ++next;
    all.video.shown = ++next;
    all.video.late = ++next;
    all.video.repeated = ++next;
    all.video.pictures = {next + 1, next + 2};
    next += 2;
    all.video.aheadOfMasterMs = -++next;
    fillRead(all.audio, "opus", "libopus");
    all.audio.sampleRate = ++next;
    all.audio.channels = ++next;
    all.audio.decoded = ++next;
    all.audio.blocks = ++next;
    all.audio.underruns = ++next;
    all.audio.output = SOUND_OUTPUT_SILENCE;
    all.audio.sound = {next + 1, next + 2};
    next += 2;
    all.audio.aheadOfMasterMs = ++next;
    all.liveDelayMs = -(++next + 0.25);
    all.liveJitterMs = ++next + 0.75;
    all.packetSinkMs = ++next + 0.5;
    all.packetSinkLongestMs = ++next + 0.125;
    all.lastFailure = ERROR_TYPE_VIDEO_DECODE;
    return all;
}

TEST(CStatistics, TellEachFigureOfTheEngine) {
    FakeEngine::reset();
    const std::unique_ptr<kelp_player, void (*)(kelp_player*)> player(kelp_player_create(nullptr), kelp_player_destroy);
    ASSERT_NE(player, nullptr);
    const Statistics all = FakeEngine::get().statistics = different();
    kelp_statistics told{};
    told.size = sizeof(told);
    ASSERT_EQ(kelp_player_get_statistics(player.get(), &told), 1);

    EXPECT_EQ(told.video_track, all.video.track);
    EXPECT_STREQ(told.video_codec, "hevc");
    EXPECT_STREQ(told.video_decoder, "hevc_cuvid");
    EXPECT_EQ(told.video_is_hardware, 1);
    EXPECT_EQ(told.video_packets, all.video.packets);
    EXPECT_EQ(told.video_bytes, all.video.bytes);
    EXPECT_EQ(told.video_bit_rate, all.video.bitRate);
    EXPECT_EQ(told.video_queue_count, all.video.queue.count);
    EXPECT_EQ(told.video_queue_ms, all.video.queue.durationMs);
    EXPECT_EQ(told.video_width, all.video.width);
    EXPECT_EQ(told.video_height, all.video.height);
    EXPECT_EQ(told.video_frame_rate, all.video.frameRate);
    EXPECT_EQ(told.video_decoded, all.video.decoded);
    EXPECT_EQ(told.video_shown, all.video.shown);
    EXPECT_EQ(told.video_late, all.video.late);
    EXPECT_EQ(told.video_repeated, all.video.repeated);
    EXPECT_EQ(told.video_pictures_count, all.video.pictures.count);
    EXPECT_EQ(told.video_pictures_ms, all.video.pictures.durationMs);
    EXPECT_EQ(told.video_ahead_of_master_ms, all.video.aheadOfMasterMs);

    EXPECT_EQ(told.audio_track, all.audio.track);
    EXPECT_STREQ(told.audio_codec, "opus");
    EXPECT_STREQ(told.audio_decoder, "libopus");
    EXPECT_EQ(told.audio_is_hardware, 0);
    EXPECT_EQ(told.audio_packets, all.audio.packets);
    EXPECT_EQ(told.audio_bytes, all.audio.bytes);
    EXPECT_EQ(told.audio_bit_rate, all.audio.bitRate);
    EXPECT_EQ(told.audio_queue_count, all.audio.queue.count);
    EXPECT_EQ(told.audio_queue_ms, all.audio.queue.durationMs);
    EXPECT_EQ(told.audio_sample_rate, all.audio.sampleRate);
    EXPECT_EQ(told.audio_channels, all.audio.channels);
    EXPECT_EQ(told.audio_decoded, all.audio.decoded);
    EXPECT_EQ(told.audio_blocks, all.audio.blocks);
    EXPECT_EQ(told.audio_underruns, all.audio.underruns);
    EXPECT_EQ(told.audio_output, KELP_SOUND_OUTPUT_SILENCE);
    EXPECT_EQ(told.audio_sound_count, all.audio.sound.count);
    EXPECT_EQ(told.audio_sound_ms, all.audio.sound.durationMs);
    EXPECT_EQ(told.audio_ahead_of_master_ms, all.audio.aheadOfMasterMs);

    EXPECT_EQ(told.live_delay_ms, all.liveDelayMs);
    EXPECT_EQ(told.live_jitter_ms, all.liveJitterMs);
    EXPECT_EQ(told.packet_sink_ms, all.packetSinkMs);
    EXPECT_EQ(told.packet_sink_longest_ms, all.packetSinkLongestMs);
    EXPECT_EQ(told.restarts, 0);  // the managed player's own
    EXPECT_EQ(told.last_failure, KELP_FAILURE_VIDEO_DECODE);

    FakeEngine::get().statistics.video.isHardware = false;
    FakeEngine::get().statistics.audio.isHardware = true;
    ASSERT_EQ(kelp_player_get_statistics(player.get(), &told), 1);
    EXPECT_EQ(told.video_is_hardware, 0);
    EXPECT_EQ(told.audio_is_hardware, 1);
}

}  // namespace
}  // namespace kelp::test
