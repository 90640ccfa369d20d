#include "input/input_loop.h"

#include <gmock/gmock.h>

#include <vector>

namespace kelp::test {
namespace {

using Stream = InputLoop::Stream;

// Reads a turn of pictures every 40 ms and of sound every 20, up to `endUs` of the film. Whether it was read before.
bool readTurn(InputLoop& loop, int64_t fromUs, int64_t endUs) {
    for (int64_t us = fromUs; us < endUs; us += 20'000) {
        loop.isBehind(Stream::Sound, us, us);
        if (us % 40'000 == 0) {
            loop.isBehind(Stream::Pictures, us, us);
        }
        if (loop.isRead(true, true)) {
            return true;
        }
    }
    return false;
}

TEST(InputLoop, IsNoneUntilItIsAskedFor) {
    InputLoop loop;
    EXPECT_FALSE(loop.isOn());
    EXPECT_FALSE(loop.isAsked());
    EXPECT_EQ(loop.turn(), nullptr);
    EXPECT_EQ(loop.filmMs(1234), 1234);
    loop.seek(5000, 0);
    EXPECT_EQ(loop.turn(), nullptr);
}

TEST(InputLoop, GoesRoundAtItsEndOnALineThatGrows) {
    InputLoop loop;
    loop.ask(Loop{2000, 4000});
    EXPECT_TRUE(loop.isAsked());
    loop.take();
    EXPECT_FALSE(loop.isAsked());
    EXPECT_EQ(loop.turn()->shiftMs, 0);
    EXPECT_TRUE(readTurn(loop, 0, 60'000'000));
    ASSERT_TRUE(loop.goRound(loop.turn()->toUs));
    EXPECT_EQ(loop.turn()->shiftMs, 2000);
    EXPECT_EQ(loop.turn()->lineFromMs(), 4000);
    EXPECT_FALSE(loop.turn()->holds(3999)) << "what leads into the turn";
    EXPECT_TRUE(loop.turn()->holds(4000));
    EXPECT_TRUE(loop.turn()->holds(5999));
    EXPECT_FALSE(loop.turn()->holds(6000));
    EXPECT_TRUE(readTurn(loop, 0, 60'000'000));
    ASSERT_TRUE(loop.goRound(loop.turn()->toUs));
    EXPECT_EQ(loop.turn()->shiftMs, 4000);
    EXPECT_EQ(loop.filmMs(3999), 3999);
    EXPECT_EQ(loop.filmMs(4000), 2000);
    EXPECT_EQ(loop.filmMs(5999), 3999);
    EXPECT_EQ(loop.filmMs(6500), 2500);
    EXPECT_EQ(loop.lastFromMs(), 6000);
}

TEST(InputLoop, IsReadWhenPicturesAndSoundAre) {
    InputLoop loop;
    loop.ask(Loop{0, 1000});
    loop.take();
    EXPECT_FALSE(loop.isBehind(Stream::Pictures, 960'000, 1'040'000)) << "others may refer to it";
    EXPECT_TRUE(loop.isBehind(Stream::Pictures, 1'000'000, 1'000'000));
    EXPECT_FALSE(loop.isRead(true, true));
    EXPECT_TRUE(loop.isRead(true, false));
    EXPECT_FALSE(loop.isBehind(Stream::Sound, 990'000, 990'000));
    EXPECT_TRUE(loop.isBehind(Stream::Sound, 1'010'000, 1'010'000));
    EXPECT_TRUE(loop.isRead(true, true));
}

TEST(InputLoop, DoesntWaitForAStreamThatIsOver) {
    InputLoop loop;
    loop.ask(Loop{0, 1000});
    loop.take();
    EXPECT_TRUE(loop.isBehind(Stream::Pictures, 3'000'000, 3'000'000));
    EXPECT_FALSE(loop.isRead(true, true));
    EXPECT_TRUE(loop.isBehind(Stream::Pictures, 3'040'000, 3'040'000));
    EXPECT_TRUE(loop.isRead(true, true));
}

TEST(InputLoop, AddsUpLengthsThatAreNoWholeMilliseconds) {
    InputLoop loop;
    loop.ask(Loop{});
    loop.take();
    constexpr int64_t kLengthUs = 1'234'567;
    for (int turn = 1; turn <= 1000; ++turn) {
        readTurn(loop, 0, 40'000);
        ASSERT_TRUE(loop.goRound(kLengthUs));
        ASSERT_NEAR(static_cast<double>(loop.turn()->shiftMs), turn * 1234.567, 0.51);
    }
    EXPECT_EQ(loop.turn()->lineFromUs(), 1000 * kLengthUs);
    EXPECT_EQ(loop.turn()->toUs, kLengthUs) << "the sound is cut where the film was found to end";
}

TEST(InputLoop, IsGivenUpWhereThereIsNothingInIt) {
    InputLoop loop;
    loop.ask(Loop{50'000, 60'000});
    loop.take();
    readTurn(loop, 0, 1'000'000);
    EXPECT_FALSE(loop.goRound(1'000'000)) << "the film ends before it";
    EXPECT_FALSE(loop.isOn());
    loop.ask(Loop{500, 600});
    loop.take();
    readTurn(loop, 0, 1'000'000);
    EXPECT_TRUE(loop.goRound(600'000));
    EXPECT_TRUE(loop.goRound(600'000));
    EXPECT_TRUE(loop.goRound(600'000));
    EXPECT_FALSE(loop.goRound(600'000));
    EXPECT_FALSE(loop.isOn());
    EXPECT_EQ(loop.turn()->toUs, LoopTurn::kOpen);
}

TEST(InputLoop, IsPlayedOnFromWhenItEnds) {
    InputLoop loop;
    loop.ask(Loop{2000, 4000});
    loop.take();
    readTurn(loop, 0, 60'000'000);
    ASSERT_TRUE(loop.goRound(4'000'000));
    loop.ask(std::nullopt);
    loop.take();
    EXPECT_FALSE(loop.isOn());
    EXPECT_EQ(loop.turn()->shiftMs, 2000);
    EXPECT_TRUE(loop.turn()->holds(40'000));
    EXPECT_EQ(loop.filmMs(40'000), 38'000);
    loop.seek(1000, 0);
    EXPECT_EQ(loop.turn(), nullptr);
    EXPECT_EQ(loop.filmMs(40'000), 40'000);
}

TEST(InputLoop, HasItsLineBeginAnewWithASeek) {
    InputLoop loop;
    loop.ask(Loop{2000, 4000});
    loop.take();
    readTurn(loop, 0, 60'000'000);
    ASSERT_TRUE(loop.goRound(4'000'000));
    loop.seek(3000, 0);
    EXPECT_TRUE(loop.isOn());
    EXPECT_EQ(loop.turn()->shiftMs, 0);
    EXPECT_TRUE(loop.turn()->holds(1000)) << "also what lies before it";
    EXPECT_FALSE(loop.turn()->holds(4000));
    EXPECT_EQ(loop.filmMs(5000), 5000);
}

TEST(InputLoop, GoesBackToATurnBeforeForAStep) {
    InputLoop loop;
    loop.ask(Loop{2000, 4000});
    loop.take();
    for (int turn = 0; turn < 3; ++turn) {
        readTurn(loop, 0, 60'000'000);
        ASSERT_TRUE(loop.goRound(4'000'000));
    }
    EXPECT_EQ(loop.turn()->shiftMs, 6000);
    EXPECT_EQ(loop.shiftMs(7999), 4000);
    loop.seek(7999, 4000);
    EXPECT_EQ(loop.turn()->shiftMs, 4000);
    EXPECT_FALSE(loop.turn()->holds(5999));
    EXPECT_TRUE(loop.turn()->holds(6000));
    EXPECT_EQ(loop.filmMs(7999), 3999);
    EXPECT_EQ(loop.filmMs(5999), 3999);
    readTurn(loop, 0, 60'000'000);
    ASSERT_TRUE(loop.goRound(4'000'000));
    EXPECT_EQ(loop.filmMs(8000), 2000);
}

}  // namespace
}  // namespace kelp::test
