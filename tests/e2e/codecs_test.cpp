// A file for each codec and container: every picture compared with what the ffmpeg command decodes, the sound by its
// tone, and what is left out where nobody asks for all codecs.

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "e2e/codec_media.h"
#include "e2e/media.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "e2e/reference.h"
#include "e2e/sound.h"

namespace kelp::test {
namespace {

std::string codecPath(const CodecFile& file) {
    return mediaPath(std::string("codecs/") + file.name);
}

bool hasVideo(const CodecFile& file) {
    return *file.video != '\0';
}
bool hasAudio(const CodecFile& file) {
    return *file.audio != '\0';
}

// From the first block of sound on: its second, and what the ring and the device hold back.
constexpr int64_t kHeardUs = (kCodecMs + 300) * 1000;

struct Played {
    std::vector<ShownFrame> pictures;
    Heard sound;
};

// The video play thread follows no master, so that no picture is skipped.
Played play(const CodecFile& file) {
    const auto recording = std::filesystem::temp_directory_path() / ("kelp_codec_" + std::to_string(getpid()) + ".raw");
    recordSoundTo(recording.string());
    Played played;
    {
        RecordingSink sink(RecordingSink::Keep::Bytes);
        Playback playback;
        playback.player().setOption("codecs", "all");
        playback.player().setAVSyncMode(SYNC_MASTER_VIDEO);
        playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
        if (!playback.open(codecPath(file))) {
            ADD_FAILURE() << "not opened: " << codecPath(file);
            return played;
        }
        EXPECT_EQ(playback.first(Happened::Prepared), (Event{Happened::Prepared, hasVideo(file), hasAudio(file), 0}));
        EXPECT_TRUE(playback.playToEnd(20000));
        if (hasVideo(file)) {
            sink.waitForFrames(kCodecPictures, 5000);  // the last ones may still be on their way
        }
        if (hasAudio(file) && playback.waitFor(Happened::FirstAudioFrame, 5000)) {
            // The end is told when nothing waits to be played any more, and some codecs put the whole second into one
            // packet: what is being played then takes its time.
            const int64_t endUs = playback.first(Happened::FirstAudioFrame).atUs + kHeardUs;
            std::this_thread::sleep_for(std::chrono::microseconds(endUs - steadyUs()));
        }
        playback.player().stop();
        played.pictures = sink.frames();
        played.sound = hear(recording.string());
    }
    std::filesystem::remove(recording);
    return played;
}

// Sound that follows pictures is a little shorter or longer, by how late these begin.
bool isTheTone(const Heard& sound) {
    return std::abs(sound.toneHz - kCodecToneHz) <= 1.0 && std::abs(sound.lengthMs - kCodecMs) <= 250;
}

void expectThePicturesOf(const CodecFile& file, const std::vector<ShownFrame>& pictures) {
    ReferencePictures reference(codecPath(file), ":flags=bicubic+accurate_rnd+full_chroma_int+full_chroma_inp");
    std::vector<uint8_t> expected;
    std::vector<uint8_t> before;
    int64_t lastPts = -1;
    for (size_t i = 0; i < pictures.size(); ++i) {
        const ShownFrame& picture = pictures[i];
        SCOPED_TRACE("picture " + std::to_string(i) + ", pts " + std::to_string(picture.pts));
        EXPECT_EQ(picture.pixFormat, PIX_FMT_YUV420P);
        EXPECT_GT(picture.pts, lastPts);
        lastPts = picture.pts;
        ASSERT_TRUE(reference.next(picture.width, picture.height, expected)) << "the file has fewer pictures";
        EXPECT_LT(psnr(before, expected), 40.0) << "too much like the picture before";
        ASSERT_GT(psnr(picture.bytes, expected), 40.0);
        before = expected;
    }
    EXPECT_EQ(pictures.size(), static_cast<size_t>(kCodecPictures));
    EXPECT_FALSE(reference.next(2, 2, expected)) << "the file has more pictures";
}

class Codecs : public testing::TestWithParam<CodecFile> {};

// As with all sound that is played in real time, a machine that leaves the player without a core for a moment makes it
// late; not three times in a row.
TEST_P(Codecs, AreSeenAndHeardWithAllOfThem) {
    const CodecFile& file = GetParam();
    Played played = play(file);
    for (int i = 0; i < 2 && hasAudio(file) && !isTheTone(played.sound); ++i) {
        std::printf("again: %.1f Hz, %.0f ms\n", played.sound.toneHz, played.sound.lengthMs);
        played = play(file);
    }
    if (hasVideo(file)) {
        expectThePicturesOf(file, played.pictures);
    }
    if (hasAudio(file)) {
        EXPECT_TRUE(isTheTone(played.sound)) << played.sound.toneHz << " Hz, " << played.sound.lengthMs << " ms";
    }
}

TEST_P(Codecs, AreLeftOutUnlessTheyAreOnTheShortList) {
    const CodecFile& file = GetParam();
    const bool seen = hasVideo(file) && isOnShortList(file.video);
    const bool heard = hasAudio(file) && isOnShortList(file.audio);
    forgetSound();
    RecordingSink sink(RecordingSink::Keep::Nothing);
    Playback playback;
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open(codecPath(file)));
    // It tells what the file has, whether it is played or not.
    EXPECT_EQ(playback.first(Happened::Prepared), (Event{Happened::Prepared, hasVideo(file), hasAudio(file), 0}));
    if (seen || heard) {
        EXPECT_TRUE(playback.playToEnd(20000));
    } else {
        EXPECT_FALSE(playback.player().play());
    }
    playback.player().stop();
    EXPECT_EQ(playback.count(Happened::FirstVideoFrame), seen ? 1 : 0);
    EXPECT_EQ(playback.count(Happened::FirstAudioFrame), heard ? 1 : 0);
    EXPECT_EQ(sink.frameCount() > 0, seen);
}

// The sanitizers watch what the player does with a file, which differs less from one to the next than the decoders do.
std::vector<CodecFile> playedFiles() {
    constexpr size_t kStep = KELP_CODEC_STEP;
    std::vector<CodecFile> files;
    for (size_t i = 0; i < codecTable().size(); i += kStep) {
        files.push_back(codecTable()[i]);
    }
    return files;
}

INSTANTIATE_TEST_SUITE_P(Of, Codecs, testing::ValuesIn(playedFiles()), [](const auto& test) {
    std::string name = test.param.name;
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
});

}  // namespace
}  // namespace kelp::test
