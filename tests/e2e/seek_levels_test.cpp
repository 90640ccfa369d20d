// Where a seek is served from: the decoded pictures, the packets read, or the demuxer; and the requests that wait for
// the end of the running one.

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>

#include "e2e/recording_sink.h"
#include "e2e/seeking.h"

namespace kelp::test {
namespace {

using namespace std::chrono_literals;

// During a pause the queues fill up to their limits and then stand still: three pictures, the first of which is shown,
// and about 200 packets, which is 2.8 s of these files.
class SeekServed : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(seeking.start());
        ASSERT_TRUE(seeking.pause());
        // Nothing tells when the last packet is in. The parser needs far less than this second for it.
        ASSERT_TRUE(seeking.sink.waitUntilStill(20, kPatienceMs));
    }

    Seeking seeking{"numbers.mp4"};
};

TEST_F(SeekServed, AmongTheDecodedPicturesWithoutAnEvent) {
    const int shown = static_cast<int>(seeking.sink.shown().pts);
    const auto events = seeking.playback.events();
    const int target = shown + kNumberedFrameMs + 7;
    ASSERT_TRUE(seeking.player().seek(target));
    // The position is that of the picture, never the target.
    EXPECT_NE(seeking.player().getCurrentTime(), target);
    ASSERT_TRUE(waitUntil([&] { return seeking.sink.shown().pts == shown + kNumberedFrameMs; }));
    EXPECT_EQ(seeking.sink.shown().number, seeking.numberAt(shown + kNumberedFrameMs));
    ASSERT_TRUE(seeking.sink.waitUntilStill(5, kPatienceMs));
    EXPECT_EQ(seeking.player().getCurrentTime(), shown + kNumberedFrameMs);
    const SeekCounts counts = seeking.counts();
    EXPECT_EQ(counts.inFrames, 1);
    EXPECT_EQ(counts.inPackets, 0);
    EXPECT_EQ(counts.atDemuxer, 0);
    EXPECT_EQ(seeking.playback.events(), events);
}

TEST_F(SeekServed, AmongThePacketsReadWithoutAFlush) {
    const int packets = seeking.playback.count(Happened::FirstPacket);
    const int target = static_cast<int>(seeking.sink.shown().pts) + 1000;
    seeking.seekTo(target);
    ASSERT_FALSE(HasFatalFailure());
    const SeekCounts counts = seeking.counts();
    EXPECT_EQ(counts.inFrames, 0);
    EXPECT_EQ(counts.inPackets, 1);
    EXPECT_EQ(counts.atDemuxer, 0);
    EXPECT_TRUE(seeking.log.has("[VideoDecodeThread]: onSeek, seekTimeMs:" + std::to_string(target) + ", flush:0\n"));
    EXPECT_FALSE(seeking.log.has("[FFVideoDecoder]: flush"));
    // Nothing was read anew.
    EXPECT_EQ(seeking.playback.count(Happened::FirstPacket), packets);
}

TEST_F(SeekServed, AtTheDemuxerWhereNothingHoldsTheTarget) {
    const int packets = seeking.playback.count(Happened::FirstPacket);
    seeking.seekTo(15500);
    ASSERT_FALSE(HasFatalFailure());
    const SeekCounts counts = seeking.counts();
    EXPECT_EQ(counts.inFrames, 0);
    EXPECT_EQ(counts.inPackets, 0);
    EXPECT_EQ(counts.atDemuxer, 1);
    EXPECT_TRUE(seeking.log.has("[VideoDecodeThread]: onSeek, seekTimeMs:15500, flush:1\n"));
    EXPECT_TRUE(seeking.log.has("[FFVideoDecoder]: flush"));
    ASSERT_TRUE(seeking.playback.waitFor(Happened::FirstPacket, kPatienceMs, packets + 1));
    // The key frame before it.
    EXPECT_LE(seeking.playback.last(Happened::FirstPacket).a, 14100);
}

// What was shown is gone from all queues.
TEST_F(SeekServed, AtTheDemuxerForWhatIsBehind) {
    seeking.seekTo(15500);
    ASSERT_FALSE(HasFatalFailure());
    seeking.seekTo(15300);
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(seeking.counts().atDemuxer, 2);
    EXPECT_TRUE(seeking.log.has("checkBuffer, seek time is small than last output pts\n"));
}

// Pictures that are queued beyond the last sound: the video branch skips to the target, the sound is left alone.
TEST(SeekServedPartly, LeavesSoundAloneThatDoesNotReachTheTarget) {
    Seeking seeking("numbers_sound_short.mp4");
    ASSERT_TRUE(seeking.start());
    ASSERT_TRUE(seeking.pause());
    // From where 200 packets reach behind the end of the sound, at 7 s, but not to the end of the file.
    seeking.seekTo(5100);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(seeking.sink.waitUntilStill(20, kPatienceMs));
    // The sound of that seek has been served as well.
    ASSERT_TRUE(waitUntil([&] { return seeking.log.has("[FFAudioDecoder]: flush\n"); }));
    seeking.log.clear();
    seeking.seekTo(7600);
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(seeking.counts().inPackets, 1);
    EXPECT_EQ(seeking.counts().atDemuxer, 0);
    EXPECT_TRUE(seeking.log.has("[AudioDecodeThread], clearBuffer, seekTimeMs:7600, qsz:"));
    EXPECT_FALSE(seeking.log.has("[AudioDecodeThread]: onSeek\n"));
    EXPECT_FALSE(seeking.log.has("[FFAudioDecoder]: flush\n"));
    EXPECT_FALSE(seeking.log.has("[AudioPlayThread]: seek, "));
}

constexpr int kRequests = 200;

// Makes 200 requests, `gap` apart, the last one for `last`, calls `look` after each, and waits until the last target is
// shown. Says how many were carried out.
int drag(Seeking& seeking, int last, std::chrono::milliseconds gap, const std::function<int(int)>& targetOf,
         const std::function<void(int)>& look) {
    const int64_t begin = steadyUs();
    for (int i = 0; i < kRequests; ++i) {
        const int target = i < kRequests - 1 ? targetOf(i) : last;
        EXPECT_TRUE(seeking.player().seek(target));
        std::this_thread::sleep_for(gap);
        look(target);
    }
    const int64_t asked = steadyUs();
    const auto isShown = [&] {
        const NumberedFrame shown = seeking.sink.shown();
        return shown.pts >= last && shown.pts <= last + 2000 && !seeking.isSeeking();
    };
    EXPECT_TRUE(waitUntil([&] { return isShown() || (!seeking.isSeeking() && seeking.hasReplayBeenOutrun()); }));
    if (!isShown()) {
        // An older request had its turn behind the last one.
        EXPECT_TRUE(seeking.player().seek(last));
        EXPECT_TRUE(waitUntil(isShown));
    }
    const int64_t done = steadyUs();
    const SeekCounts counts = seeking.counts();
    const int carriedOut = counts.inFrames + counts.inPackets + counts.atDemuxer;
    std::printf(
        "%d seeks asked for in %lld ms: %d carried out (%d demuxer, %d packets, %d pictures), %d parked; the "
        "last was shown within %lld ms\n",
        kRequests, static_cast<long long>((asked - begin) / 1000), carriedOut, counts.atDemuxer, counts.inPackets,
        counts.inFrames, counts.parked, static_cast<long long>((done - asked) / 1000));
    return carriedOut;
}

// All over the file: every seek that is carried out needs the demuxer.
TEST(SeekParked, EndsAtTheLastOfManyTargetsAndSkipsMost) {
    Seeking seeking("numbers.mp4");
    ASSERT_TRUE(seeking.start());
    constexpr int kLast = 5080;  // none of those before is within two seconds behind it, and taken for it
    const auto targetOf = [](int i) { return 520 + i * 7919 % 440 * kNumberedFrameMs; };
    const int carriedOut = drag(seeking, kLast, 1ms, targetOf, [](int) {});
    EXPECT_LT(carriedOut, kRequests / 2);
    EXPECT_GT(seeking.counts().parked, kRequests / 2);
    // While it plays, the frame that follows a flush may be taken off the queue unseen: the next one is the first then.
    // The worker tells of it, maybe after it is shown.
    const auto told = [&] { return seeking.playback.last(Happened::FirstVideoFrame).a; };
    waitUntil([&] { return told() == kLast || told() == kLast + kNumberedFrameMs; });
    EXPECT_THAT(told(), testing::AnyOf(kLast, kLast + kNumberedFrameMs));
    // The last one is not followed by another.
    const int shown = seeking.playback.count(Happened::FirstVideoFrame);
    ASSERT_TRUE(seeking.playUntil(kLast + 200));
    EXPECT_EQ(seeking.playback.count(Happened::FirstVideoFrame), shown);
}

// A slider that is dragged forward: the position follows and doesn't jump back, wherever the seeks are served from, but
// where a request outran an older one that was parked.
TEST(SeekParked, NeverReportsAnEarlierPosition) {
    Seeking seeking("numbers.mp4");
    ASSERT_TRUE(seeking.start());
    int latest = 0;
    const auto targetOf = [](int i) { return 2000 + i * 80; };
    drag(seeking, targetOf(kRequests), 10ms, targetOf, [&](int target) {
        const int now = seeking.player().getCurrentTime();
        // Playback may run ahead of the requests, which then ask it back.
        latest = std::min(latest, target);
        if (now < latest) {
            EXPECT_TRUE(seeking.hasReplayBeenOutrun())
                << now << " behind " << latest << " after the request for " << target;
        }
        latest = now;
    });
    EXPECT_GE(seeking.player().getCurrentTime(), targetOf(kRequests));
}

// During a pause nothing moves by itself: the position is a target, or the frame that one of them led to. A request
// that comes while the first frame of the one before is still being told waits for it, with the position of that one.
TEST(SeekParked, TellsTheTargetUntilItIsShown) {
    Seeking seeking("numbers.mp4");
    ASSERT_TRUE(seeking.start());
    ASSERT_TRUE(seeking.pause());
    int before = 12520;
    for (const int target : {12520, 4520, 17520}) {
        const int events = seeking.playback.count(Happened::FirstVideoFrame);
        ASSERT_TRUE(seeking.player().seek(target));
        while (seeking.playback.count(Happened::FirstVideoFrame) == events) {
            const int now = seeking.player().getCurrentTime();
            before = now == target ? target : before;
            ASSERT_EQ(now, before);
        }
        ASSERT_EQ(seeking.player().getCurrentTime(), target);
    }
}

}  // namespace
}  // namespace kelp::test
