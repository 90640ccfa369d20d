#include "playtask/pipeline_fixture.h"

// A live source without a master: the arrival of its packets says when a picture is due. From the parser through the
// filter to the play thread.

namespace kelp::test {
namespace {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
// Notes when each picture is shown, and when the filter has it due.
class TimingSink : public ExternFrameSink {
public:
    struct Shown {
        int64_t pts;
        int64_t atMs;
        int64_t dueMs;  // -1 for nothing
    };

    explicit TimingSink(RenderTiming& timing) : timing_(timing) {}
    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int, int64_t pts, uint8_t**, int*, int, int64_t) override {
        std::lock_guard lock(mutex_);
        // The one before is drawn again and again until the next is due.
        if (shown_.empty() || shown_.back().pts != pts) {
            shown_.push_back({pts, FakeTime::nowMs(), timing_.renderTime(pts)});
        }
        return true;
    }
    std::vector<Shown> shown() {
        std::lock_guard lock(mutex_);
        return shown_;
    }

private:
    RenderTiming& timing_;
    std::mutex mutex_;
    std::vector<Shown> shown_;  // guarded by mutex_
};
#pragma GCC diagnostic pop

class LivePlayback : public PlayTaskPipeline {
protected:
    static constexpr size_t kPictures = 30;

    // The pictures of a source whose packets come one at a time, some time after the picture on the screen. The decoder
    // gives each with the packet behind it: the arrival of that one, `arrivedMs_` at its number, is when it can be
    // shown.
    std::vector<TimingSink::Shown> play() {
        TimingSink timed(*under.peer.renderTiming());
        under.task->addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&timed), 64, 48);
        PipelineFaults::isLive = true;
        load("video.mp4");
        EXPECT_TRUE(under.peer.streamInfo()->is_live);
        std::atomic<bool> done{false};
        int packets = 0;
        PipelineFaults::atRead = [&] {
            TaskUnderTest::waitUntil(
                [&] { return done || (arrivedMs_.size() < kPictures && timed.shown().size() >= awaited_(packets)); });
            FakeTime::advanceMs(msToPacket_(packets));
            if (++packets > 1) {
                arrivedMs_.push_back(FakeTime::nowMs());
            }
        };
        EXPECT_TRUE(under.task->play());
        EXPECT_TRUE(TaskUnderTest::waitUntil([&] { return timed.shown().size() >= kPictures; }));
        done = true;
        under.task->stop();
        under.task->removeWindow(static_cast<ExternFrameSink*>(&timed));
        return timed.shown();
    }

    std::vector<int64_t> arrivedMs_;
    // How many pictures are shown before that packet is on its way.
    std::function<size_t(int)> awaited_ = [](int packet) { return static_cast<size_t>(std::max(packet - 1, 0)); };
    // From then to its arrival.
    std::function<int(int)> msToPacket_ = [](int packet) { return packet % 3 == 0 ? 25 : 5; };
};

TEST_F(LivePlayback, IsPacedByItsArrivalWithoutAMaster) {
    under.task->setSyncMasterMode(SYNC_MASTER_VIDEO);
    const auto shown = play();
    ASSERT_GE(shown.size(), kPictures);
    for (size_t i = 1; i < kPictures; ++i) {
        // Its distance to the picture before, counted from when the filter had that one due.
        ASSERT_GT(shown[i - 1].dueMs, 0);
        const int64_t dueMs = shown[i - 1].dueMs + shown[i].pts - shown[i - 1].pts;
        // The decoder's average time is a part of it, and is set behind a picture: the play thread may have asked
        // before it moved, by a twentieth of at most 45 ms.
        EXPECT_NEAR(shown[i].atMs, std::max(arrivedMs_[i], dueMs), 2) << "picture " << i;
    }
}

// With each master. No picture waits for the packet behind it, nor for more than the arrivals ask for: of a source
// whose packets come at their pace, each third one 20 ms later.
TEST_F(LivePlayback, IsShownAsItComesWithALowDelay) {
    for (const auto mode : {SYNC_MASTER_VIDEO, SYNC_MASTER_CLOCK, SYNC_MASTER_AUDIO}) {
        arrivedMs_.clear();
        awaited_ = [](int packet) { return static_cast<size_t>(packet); };
        msToPacket_ = [beginMs = FakeTime::nowMs()](int packet) {
            const int64_t arrivesMs = beginMs + 40 * packet + (packet % 3 == 0 ? 20 : 0);
            return static_cast<int>(std::max<int64_t>(arrivesMs - FakeTime::nowMs(), 0));
        };
        under.task->changeOptions([](PlaybackOptions& options) { options.lowLiveDelay = true; });
        under.task->setSyncMasterMode(mode);
        const auto shown = play();
        ASSERT_GE(shown.size(), kPictures);
        for (size_t i = 1; i < kPictures; ++i) {
            EXPECT_LE(shown[i].atMs, arrivedMs_[i - 1] + 21) << "picture " << i;
        }
    }
}

TEST_F(LivePlayback, TakesNoFileForALiveSource) {
    under.task->changeOptions([](PlaybackOptions& options) { options.lowLiveDelay = true; });
    load("video.mp4");
    ASSERT_TRUE(under.task->play());
    EXPECT_EQ(under.peer.effectiveMode(), SYNC_MASTER_CLOCK);
    under.task->stop();
}

// The filter is fed, but nobody asks it.
TEST_F(LivePlayback, FollowsItsMasterWhereThereIsOne) {
    under.task->setSyncMasterMode(SYNC_MASTER_CLOCK);
    const auto shown = play();
    ASSERT_GE(shown.size(), kPictures);
    int paced = 0;
    for (size_t i = 1; i < kPictures; ++i) {
        const int64_t dueMs = shown[i - 1].dueMs + shown[i].pts - shown[i - 1].pts;
        paced += shown[i].atMs == std::max(arrivedMs_[i], dueMs);
    }
    EXPECT_LT(paced, 10);
}

}  // namespace
}  // namespace kelp::test
