// Files that are odd, not broken: each plays to its end in its time, tells the right position and duration, and ends
// each seek.

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "e2e/media.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "e2e/seeking.h"
#include "e2e/sound.h"

namespace kelp::test {
namespace {

// By how much a position may lie off: the distance of two pictures or two blocks of sound, the buffer of the sound, and
// what a busy machine adds.
constexpr int kNearMs = 150;
constexpr int kSettleMs = 80;

struct OddFile {
    const char* name;
    int durationMs;
    bool hasVideo;
    bool hasAudio;
    int pictures;     // to be shown, at most; on a busy machine some come too late
    int gapMs = 0;    // how far a picture may lie before the position that was asked for
    int firstMs = 0;  // of the first picture, about
};

// Those of one test play at the same time.
struct OddGroup {
    const char* name;
    bool allCodecs;
    std::vector<OddFile> files;

    friend std::ostream& operator<<(std::ostream& out, const OddGroup& group) { return out << group.name; }
};

// Plays one file to its end, seeks to and fro, and plays it to its end again.
class OddPlayback {
public:
    OddPlayback(const OddFile& file, bool allCodecs) : file_(file) {
        player().setAVSyncMode(SYNC_MASTER_AUDIO);
        player().setOption("codecs", allCodecs ? "all" : "standard");
        player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink_), 0, 0);
    }

    void run() {
        SCOPED_TRACE(file_.name);
        ASSERT_TRUE(playback_.open(mediaPath(file_.name), kPatienceMs));
        const Event prepared = playback_.last(Happened::Prepared);
        EXPECT_EQ(prepared, (Event{Happened::Prepared, file_.hasVideo, file_.hasAudio}));
        playToTheEnd();
        const int mid = file_.durationMs / 2 + 3;
        seekTo(mid);
        seekTo(3);
        player().pause();
        seekTo(mid);
        seekTo(3);
        seekTo(std::max(3, file_.durationMs - 47));
        const int completed = playback_.count(Happened::Completed);
        player().resume();
        EXPECT_TRUE(playback_.waitFor(Happened::Completed, kPatienceMs, completed + 1)) << "after the seeks";
        EXPECT_EQ(playback_.count(Happened::Failed), 0);
        if (file_.pictures == 1) {
            const int repaints = sink_.repaints();
            EXPECT_TRUE(waitUntil([&] { return sink_.repaints() > repaints; })) << "the picture isn't shown any more";
        }
    }

private:
    KelpPlayer& player() { return playback_.player(); }

    int firstFrames() {
        return playback_.count(Happened::FirstVideoFrame) + playback_.count(Happened::FirstAudioFrame);
    }

    void playToTheEnd() {
        const int64_t begin = steadyUs();
        ASSERT_TRUE(player().play());
        int position = 0;
        EXPECT_TRUE(waitUntil([&] {
            const int now = player().getCurrentTime();
            EXPECT_GE(now, position - kNearMs) << "the position went back";
            position = std::max(position, now);
            return playback_.count(Happened::Completed) > 0;
        })) << "not completed";
        EXPECT_GE((steadyUs() - begin) / 1000, file_.durationMs - 2 * kNearMs) << "played too fast";
        EXPECT_NEAR(position, file_.durationMs, kNearMs + file_.gapMs) << "at the end";
        EXPECT_NEAR(player().getDuration(), file_.durationMs, kNearMs / 2);
        if (file_.hasVideo) {
            ASSERT_TRUE(sink_.waitForFrames(1, kPatienceMs));
            EXPECT_NEAR(static_cast<double>(sink_.frames().front().pts), file_.firstMs, 25);
            EXPECT_LE(sink_.frames().back().pts, file_.durationMs + file_.firstMs) << "behind the end";
        }
        EXPECT_LE(sink_.frameCount(), file_.pictures);
        EXPECT_GE(sink_.frameCount(), file_.pictures / 2);
    }

    // The seek has ended when a first frame was told, or, if it was served from the frames that waited, when it has
    // returned: the position is the target while it runs, and no picture lies there exactly.
    void seekTo(int target) {
        SCOPED_TRACE("seek to " + std::to_string(target));
        const int before = firstFrames();
        const int picturesBefore = playback_.count(Happened::FirstVideoFrame);
        const int64_t begin = steadyUs();
        ASSERT_TRUE(player().seek(target));
        ASSERT_TRUE(waitUntil([&] { return player().getCurrentTime() != target || firstFrames() > before; }))
            << "never ended";
        // Where the sound came first the picture is given its time, as the next request would wait for it: by then the
        // position is none of that request's. Not all of these seeks find a picture.
        waitUntil(
            [&] {
                return player().getCurrentTime() != target ||
                       playback_.count(Happened::FirstVideoFrame) > picturesBefore;
            },
            file_.pictures > 1 ? 1000 : 0);
        // The sound, or the picture that follows, may still be on its way.
        waitUntil([&] { return std::abs(player().getCurrentTime() - target) <= kNearMs + file_.gapMs; }, 1000);
        const auto sinceMs = static_cast<int>((steadyUs() - begin) / 1000);
        const int position = player().getCurrentTime();
        EXPECT_GE(position, target - kNearMs - file_.gapMs) << sinceMs << " ms after the request";
        EXPECT_LE(position, target + kNearMs + file_.gapMs + sinceMs) << sinceMs << " ms after the request";
        std::this_thread::sleep_for(std::chrono::milliseconds(kSettleMs));
    }

    const OddFile& file_;
    RecordingSink sink_{RecordingSink::Keep::Nothing};
    Playback playback_;
};

class Odd : public testing::TestWithParam<OddGroup> {};

TEST_P(Odd, FilesPlayToTheirEndAndEndEachSeek) {
    forgetSound();
    // Made here: SDL keeps something for each thread that starts it, and these end.
    std::list<OddPlayback> playbacks;
    std::vector<std::thread> threads;
    for (const OddFile& file : GetParam().files) {
        auto& playback = playbacks.emplace_back(file, GetParam().allCodecs);
        threads.emplace_back([&playback] { playback.run(); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

const std::vector<OddGroup>& groups() {
    static const std::vector<OddGroup> all = {
        {"Covers",
         true,
         {
             {"odd_cover.mp3", 2000, true, true, 1},
             {"odd_cover.m4a", 2000, true, true, 1},
             {"odd_cover.mka", 2000, true, true, 1},
             {"odd_cover.flac", 2000, true, true, 1, 100},
             {"odd_cover_video.mp4", 2000, true, true, 50},
             {"tone.mp3", 3000, false, true, 0},
         }},
        {"Streams",
         true,
         {
             {"odd_one_picture.mp4", 40, true, false, 1},
             {"odd_one_picture_sound.mp4", 2000, true, true, 1},
             {"odd_photo.jpg", 40, true, false, 1},
             {"odd_late_sound.mkv", 2000, true, true, 50},
             {"odd_late_picture.mkv", 2000, true, true, 25, 0, 1020},
             {"odd_short_sound.mkv", 2000, true, true, 50},
             {"odd_short_picture.mkv", 2000, true, true, 25},
             {"odd_beside.mkv", 2000, true, true, 50},
             {"odd_beside.mov", 2000, true, true, 50},
         }},
        {"Times",
         true,
         {
             {"odd_hours.mkv", 2000, true, true, 50},
             {"odd_hours.ts", 2000, true, true, 50},
             {"odd_wrap.ts", 2000, true, true, 50},
             {"odd_edit_list.mp4", 1720, true, true, 43},
             {"odd_fragmented.mp4", 2040, true, true, 50, 0, 80},
             {"odd_slow.mp4", 3000, true, true, 3, 1000},
             {"odd_slow_silent.mp4", 3000, true, false, 3, 1000},
             {"odd_uneven.mkv", 2000, true, true, 41},
         }},
        {"Pictures",
         true,
         {
             {"odd_no_key.avi", 2000, true, true, 50},
             {"odd_refresh.mp4", 2000, true, true, 50},
             {"odd_refresh.ts", 2000, true, true, 30, 820, 820},
             {"odd_turned.mp4", 2000, true, true, 50},
             {"odd_mirrored.mp4", 2000, true, true, 50},
             {"odd_dot.mov", 1000, true, false, 25},
             {"odd_dot.avi", 1000, true, true, 25},
             {"odd_b_frames.avi", 2000, true, true, 50, 0, 40},
             {"odd_b_frames_h264.avi", 2000, true, true, 50, 0, 40},
             {"odd_b_frames.mxf", 2000, true, true, 50},
         }},
        {"Headers",
         true,
         {
             {"odd_unknown.mkv", 2000, true, true, 50},
             {"odd_too_long.mkv", 2000, true, true, 50},
             {"odd_too_short.mkv", 2000, true, true, 50},
             {"odd_raw.h264", 2000, true, false, 50},
             {"odd_raw.aac", 2000, false, true, 0},
         }},
        // What needs no option.
        {"Standard",
         false,
         {
             {"odd_beside.mkv", 2000, true, true, 50},
             {"odd_beside.mov", 2000, true, true, 50},
             {"odd_short_sound.mkv", 2000, true, true, 50},
             {"odd_hours.ts", 2000, true, true, 50},
             {"odd_edit_list.mp4", 1720, true, true, 43},
             {"odd_fragmented.mp4", 2040, true, true, 50, 0, 80},
             {"odd_slow.mp4", 3000, true, true, 3, 1000},
             {"odd_uneven.mkv", 2000, true, true, 41},
             {"odd_turned.mp4", 2000, true, true, 50},
             {"odd_dot.mov", 1000, true, false, 25},
             {"odd_b_frames.avi", 2000, true, true, 50, 0, 40},
             {"odd_unknown.mkv", 2000, true, true, 50},
         }},
        {"Loads",
         true,
         {
             {"odd_fast.mkv", 1000, true, false, 1000},
             {"odd_large.mp4", 1000, true, true, 5, 200},
         }},
    };
    return all;
}

TEST(OddSound, LetsPicturesGoOnWhereItIsMissing) {
    forgetSound();
    RecordingSink sink(RecordingSink::Keep::Nothing);
    Playback playback;
    playback.player().setOption("preset", "recommended");
    playback.player().setAVSyncMode(SYNC_MASTER_AUDIO);
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open(mediaPath("odd_sound_hole.mkv"), kPatienceMs));
    const int64_t begin = steadyUs();
    EXPECT_TRUE(playback.playToEnd(kPatienceMs));
    EXPECT_GE((steadyUs() - begin) / 1000, 3000 - 2 * kNearMs) << "played too fast";
    EXPECT_GE(sink.frameCount(), 75 * 2 / 3);
}

TEST(OddSound, IsHeardToItsEndWhereItsFormChanges) {
    const auto recording = std::filesystem::temp_directory_path() / ("kelp_odd_" + std::to_string(getpid()) + ".raw");
    for (const char* name : {"odd_channels.ts", "odd_rates.ac3", "odd_bits.ts"}) {
        SCOPED_TRACE(name);
        recordSoundTo(recording.string());
        {
            Playback playback;
            playback.player().setOption("preset", "recommended");
            ASSERT_TRUE(playback.open(mediaPath(name), kPatienceMs));
            EXPECT_TRUE(playback.playToEnd(kPatienceMs));
            std::this_thread::sleep_for(std::chrono::seconds(1));  // what the device still holds, on a busy machine too
        }
        const Heard sound = hear(recording.string());
        std::filesystem::remove(recording);
        EXPECT_NEAR(sound.toneHz, 440, 50);  // an encoder's begin isn't the tone; at a wrong rate it is 110 off
        EXPECT_NEAR(sound.lengthMs, 2000, 150);
        EXPECT_LE(sound.longestGapMs, 40);
        EXPECT_GT(sound.rms, 500);
    }
    forgetSound();
}

INSTANTIATE_TEST_SUITE_P(Of, Odd, testing::ValuesIn(groups()), [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace kelp::test
