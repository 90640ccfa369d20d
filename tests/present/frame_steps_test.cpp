#include "present/frame_steps.h"

#include <gmock/gmock.h>

#include <vector>

#include "decode/decoded_frame.h"
#include "decode/video_frame_info.h"

extern "C" {
#include <libavutil/buffer.h>
}

namespace kelp {
namespace {

using testing::ElementsAre;
using Outcome = FrameSteps::Outcome;

std::shared_ptr<DecodedFrame> frameAt(int64_t pts, unsigned int bytes = 0) {
    auto frame = std::make_shared<DecodedFrame>();
    frame->pts = pts;
    if (bytes != 0) {
        frame->buffer = std::make_shared<FrameBuffer>();
        frame->buffer->size = bytes;
    }
    return frame;
}

class FrameStepsTest : public testing::Test {
protected:
    void fill(std::initializer_list<int64_t> times) {
        for (const int64_t pts : times) {
            queue.push(frameAt(pts));
        }
    }
    Outcome step(int frames, bool isLast = false) {
        steps.ask(frames);
        return steps.take(queue, isLast);
    }
    int64_t front() const { return queue.front()->pts; }

    // The seek for a step drops `skipped` and ends in `landed`.
    void land(std::initializer_list<int64_t> skipped, int64_t landed) {
        queue = {};
        EXPECT_TRUE(steps.begin(steps.seekTimeMs()));
        for (const int64_t pts : skipped) {
            steps.skip(frameAt(pts));
        }
        fill({landed});
        steps.land(*queue.front());
    }

    FrameSteps steps;
    FrameSteps::Queue queue;
};

TEST_F(FrameStepsTest, ShowsTheFrontIfAnotherOneIsShown) {
    fill({80, 120});
    steps.leave(40);
    EXPECT_EQ(step(1), Outcome::Show);
    EXPECT_EQ(front(), 80);
}

TEST_F(FrameStepsTest, TakesTheFrontAwayIfThatIsShown) {
    fill({80, 120, 160});
    steps.showFront(80);
    EXPECT_EQ(step(1), Outcome::Show);
    EXPECT_EQ(front(), 120);
    EXPECT_FALSE(steps.isAsked());
}

TEST_F(FrameStepsTest, ShowsTheFirstThatComesAfterAllWereDropped) {
    fill({80});
    steps.showFront(80);
    queue = {};
    steps.cut(queue);
    fill({400});
    EXPECT_EQ(step(1), Outcome::Show);
    EXPECT_EQ(front(), 400);
}

TEST_F(FrameStepsTest, WaitsForTheNextFrame) {
    fill({80});
    steps.showFront(80);
    EXPECT_EQ(step(2), Outcome::Wait);
    EXPECT_TRUE(steps.isAsked());
    fill({120});
    EXPECT_EQ(steps.take(queue, false), Outcome::Show);
    EXPECT_EQ(front(), 120);
    EXPECT_EQ(steps.take(queue, false), Outcome::Wait);
    fill({160});
    EXPECT_EQ(steps.take(queue, false), Outcome::Show);
    EXPECT_EQ(front(), 160);
}

TEST_F(FrameStepsTest, StaysAtTheLastFrame) {
    fill({80, 120});
    steps.showFront(80);
    EXPECT_EQ(step(5, /*isLast=*/true), Outcome::Show);
    EXPECT_EQ(front(), 120);
    EXPECT_EQ(step(1, /*isLast=*/true), Outcome::Nothing);
    EXPECT_FALSE(steps.isAsked());
    EXPECT_EQ(step(-1, /*isLast=*/true), Outcome::Show);
    EXPECT_EQ(front(), 80);
}

TEST_F(FrameStepsTest, GoesBackAndForthAmongThoseThatItHasPassed) {
    fill({0, 40, 80, 120, 160});
    steps.showFront(0);
    step(4);
    EXPECT_EQ(front(), 160);
    EXPECT_EQ(step(-3), Outcome::Show);
    EXPECT_EQ(front(), 40);
    EXPECT_EQ(queue.size(), 4U);
    EXPECT_EQ(step(2), Outcome::Show);
    EXPECT_EQ(front(), 120);
}

TEST_F(FrameStepsTest, ShowsTheFirstBehindAnotherSeekFirst) {
    fill({80, 120});
    steps.showFront(80);
    EXPECT_FALSE(steps.begin(5000));
    queue = {};
    fill({5000, 5040});
    EXPECT_EQ(step(1), Outcome::Show);
    EXPECT_EQ(front(), 5000);
}

TEST_F(FrameStepsTest, SeeksBeforeTheFrameThatIsShown) {
    fill({80});
    steps.leave(40);
    EXPECT_EQ(step(-1), Outcome::Seek);
    EXPECT_EQ(steps.seekTimeMs(), 39);
    EXPECT_TRUE(steps.isAwaited(39));
    EXPECT_FALSE(steps.isAsked()) << "until the seek has ended";
    land({}, 0);
    EXPECT_TRUE(steps.isAsked());
    EXPECT_EQ(steps.take(queue, false), Outcome::Show);
    EXPECT_EQ(front(), 0);
    EXPECT_FALSE(steps.isAsked());
}

TEST_F(FrameStepsTest, GoesOnBackAmongThoseThatASeekHasDropped) {
    fill({5000});
    steps.showFront(5000);
    EXPECT_EQ(step(-3), Outcome::Seek);
    land({4720, 4760, 4800, 4840, 4880, 4920}, 4960);
    EXPECT_EQ(steps.take(queue, false), Outcome::Show);
    EXPECT_EQ(front(), 4880);
    EXPECT_EQ(step(-2), Outcome::Show);
    EXPECT_EQ(front(), 4800);
    EXPECT_EQ(step(-1), Outcome::Seek) << "those 200 ms before the target may not be all";
    EXPECT_EQ(steps.seekTimeMs(), 4799);
}

TEST_F(FrameStepsTest, KeepsNoPictureThatWasBlanked) {
    fill({0, 40, 80, 120});
    steps.showFront(0);
    step(2);
    queue.front()->isBlanked = true;
    EXPECT_EQ(step(1), Outcome::Show);
    EXPECT_EQ(front(), 120);
    EXPECT_EQ(step(-1), Outcome::Seek) << "for the blanked one, as it was";
    EXPECT_EQ(steps.seekTimeMs(), 119);
}

TEST_F(FrameStepsTest, HasABlankedPictureDecodedAnewIfItGoesBackFromThere) {
    fill({0, 40, 80, 120});
    steps.showFront(0);
    step(2);
    queue.front()->isBlanked = true;
    EXPECT_EQ(step(-1), Outcome::Seek);
    EXPECT_EQ(steps.seekTimeMs(), 79);
    land({0}, 40);
    fill({80});
    EXPECT_EQ(steps.take(queue, false), Outcome::Show);
    EXPECT_EQ(step(1), Outcome::Show);
    EXPECT_EQ(front(), 80);
    EXPECT_FALSE(queue.front()->isBlanked);
}

TEST_F(FrameStepsTest, StaysAtTheFirstFrame) {
    fill({20});
    steps.showFront(20);
    EXPECT_EQ(step(-4), Outcome::Seek);
    land({}, 20);
    EXPECT_EQ(steps.take(queue, false), Outcome::Show);
    EXPECT_EQ(front(), 20);
    EXPECT_FALSE(steps.isAsked());
    steps.showFront(0);
    queue.front()->pts = 0;
    EXPECT_EQ(step(-1), Outcome::Nothing);
}

TEST_F(FrameStepsTest, MakesStepsInTheirTurn) {
    fill({40, 80});
    steps.showFront(40);
    steps.ask(9);
    steps.ask(0);
    steps.ask(-1);
    EXPECT_EQ(steps.take(queue, /*isLast=*/true), Outcome::Show);
    EXPECT_EQ(front(), 40);
}

TEST_F(FrameStepsTest, AddsUpInOneDirection) {
    fill({0, 40, 80, 120});
    steps.showFront(0);
    steps.ask(1);
    EXPECT_EQ(step(2), Outcome::Show);
    EXPECT_EQ(front(), 120);
}

TEST_F(FrameStepsTest, TakesNoOtherSeekForItsOwn) {
    fill({5000});
    steps.showFront(5000);
    EXPECT_EQ(step(-3), Outcome::Seek);
    EXPECT_FALSE(steps.begin(300));
    steps.drop();
    EXPECT_FALSE(steps.isAsked());
    EXPECT_FALSE(steps.isAwaited(4999));
    EXPECT_FALSE(steps.begin(4999));
}

TEST_F(FrameStepsTest, KeepsFewFramesAndFewBytes) {
    for (int i = 0; i < 30; ++i) {
        queue.push(frameAt(1000 + i * 40));
    }
    steps.showFront(1000);
    step(20);
    EXPECT_EQ(step(-8), Outcome::Show);
    EXPECT_EQ(front(), 1480);
    EXPECT_EQ(step(-1), Outcome::Seek);
    steps.drop();

    queue = {};
    for (int i = 0; i < 8; ++i) {
        queue.push(frameAt(1000 + i * 40, 30 << 20));
    }
    steps.begin(0);
    steps.showFront(1000);
    step(6);
    EXPECT_EQ(step(-2), Outcome::Show);
    EXPECT_EQ(step(-1), Outcome::Seek);
}

TEST_F(FrameStepsTest, CountsTheMemoryOfADecoder) {
    for (int i = 0; i < 8; ++i) {
        const auto frame = std::make_shared<VideoFrameInfo>();
        frame->pts = 1000 + i * 40;
        frame->decoderMemory[0].reset(av_buffer_alloc(30 << 20));
        queue.push(frame);
    }
    steps.showFront(1000);
    step(6);
    EXPECT_EQ(step(-2), Outcome::Show);
    EXPECT_EQ(step(-1), Outcome::Seek);
}

}  // namespace
}  // namespace kelp
