#include "playtask/pipeline_fixture.h"

// What others may see of a playback that is being built.

namespace kelp::test {
namespace {

using testing::ElementsAre;

// An observer may stop and load anew as soon as it hears of the load, while the caller of that is still on its way out.
TEST_F(PlayTaskPipeline, TellsOfALoadWhenItsThreadIsKnown) {
    bool toldEarly = false;
    PipelineFaults::atThread = [&] {
        toldEarly = TaskUnderTest::waitUntil([&] { return !under.events().empty(); }, 100);
    };
    ASSERT_TRUE(under.task->loadFileAsync("/nowhere/at/all.mp4", 0));
    PipelineFaults::atThread = nullptr;
    EXPECT_FALSE(toldEarly);
    EXPECT_TRUE(under.waitFor(EVENT_FAILED));
}

TEST_F(PlayTaskPipeline, StandsALoadForEachFailureOfOne) {
    constexpr int kLoads = 200;
    std::atomic<int> failures{0};
    const auto worker = std::make_shared<Worker>();
    worker->start();
    const auto task = std::make_shared<PlayTask>();
    const auto load = [&] { EXPECT_TRUE(task->loadFileAsync("/nowhere/at/all.mp4", 0)); };
    task->init(
        [&](EventType, int, int, int) {
            worker->task([&] {
                if (++failures < kLoads) {
                    task->stop();
                    load();
                }
            });
        },
        worker);
    LogCapture quiet(-1);
    load();
    EXPECT_TRUE(TaskUnderTest::waitUntil([&] { return failures == kLoads; }));
    task->stop();
    worker->close();
}

// The library for it takes one thread at a time.
TEST_F(PlayTaskPipeline, SetsUpItsTempoBeforeTheHostCanChangeIt) {
    std::atomic<int> inside{0};
    std::atomic<bool> overlap{false};
    std::atomic<bool> entered{false};
    PipelineFaults::atTempo = [&] {
        overlap = overlap || ++inside > 1;
        if (!entered.exchange(true)) {
            TaskUnderTest::waitUntil([&] { return overlap.load(); }, 50);
        }
        --inside;
    };
    load("audio.mp4");
    std::thread host([&] {
        EXPECT_TRUE(TaskUnderTest::waitUntil([&] { return entered.load(); }));
        under.task->setSpeed(2.0f);
    });
    EXPECT_TRUE(under.task->play());
    host.join();
    under.task->stop();
    EXPECT_FALSE(overlap);
    std::lock_guard lock(PipelineFaults::temposMutex);
    ASSERT_GE(PipelineFaults::tempos.size(), 2u);
    EXPECT_FLOAT_EQ(PipelineFaults::tempos[1], 2.0f);
}

// And the source runs only when the clocks are connected.
TEST_F(PlayTaskPipeline, ShowsAStageWhenItRuns) {
    load("av.mp4");
    std::vector<std::string> seen;
    PipelineFaults::atStage = [&] {
        std::string stages;
        stages += under.peer.audioDecode() ? "d" : "";
        stages += under.peer.audioPlay() ? "s" : "";
        stages += under.peer.videoDecode() ? "D" : "";
        if (const auto video = under.peer.videoPlay()) {
            stages += VideoPlayThreadPeer::followed(*video) ? "P with clock" : "P";
        }
        seen.push_back(stages);
    };
    EXPECT_TRUE(under.task->play());
    under.task->stop();
    EXPECT_THAT(seen, ElementsAre("", "d", "ds", "dsD", "dsDP with clock"));
}

}  // namespace
}  // namespace kelp::test
