#include "input/input_loop.h"

#include <gmock/gmock.h>

#include <vector>

namespace kelp::test {
namespace {

using Stream = InputLoop::Stream;

// Reads a turn of pictures every 40 ms and of sound every 20, up to `endUs` of the film. Whether it was read before.
bool readTurn(InputLoop& loop, int64_t fromUs, int64_t endUs) {
    for (int64_t us = fromUs; us < endUs; us += 20'000) {
        for (const auto stream : {Stream::Sound, Stream::Pictures}) {
            if ((stream == Stream::Sound || us % 40'000 == 0) && !loop.isBehind(stream, us)) {
                loop.noteHandedOn(us);
            }
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
    EXPECT_FALSE(loop.isBehind(Stream::Pictures, 960'000)) << "others may refer to it";
    EXPECT_TRUE(loop.isBehind(Stream::Pictures, 1'000'000));
    EXPECT_FALSE(loop.isRead(true, true));
    EXPECT_TRUE(loop.isRead(true, false));
    EXPECT_FALSE(loop.isBehind(Stream::Sound, 990'000));
    EXPECT_TRUE(loop.isBehind(Stream::Sound, 1'010'000));
    EXPECT_TRUE(loop.isRead(true, true));
}

TEST(InputLoop, WaitsForThePicturesWhereSoundIsReadFirst) {
    InputLoop loop;
    loop.ask(Loop{0, 1000});
    loop.take();
    EXPECT_TRUE(loop.isBehind(Stream::Sound, 1'000'000));
    EXPECT_FALSE(loop.isRead(true, true));
    EXPECT_TRUE(loop.isRead(false, true));
    loop.ask(Loop{0, 5000});
    loop.take();
    EXPECT_FALSE(loop.isEndMet()) << "that was the end of another one";
}

TEST(InputLoop, DoesntWaitForAStreamThatIsOver) {
    InputLoop loop;
    loop.ask(Loop{0, 1000});
    loop.take();
    EXPECT_TRUE(loop.isBehind(Stream::Pictures, 3'000'000));
    EXPECT_FALSE(loop.isRead(true, true));
    EXPECT_TRUE(loop.isBehind(Stream::Pictures, 3'040'000));
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
    EXPECT_EQ(loop.shiftMs(0), 1235) << "so many turns are kept that the first one isn't any more";
}

TEST(InputLoop, IsGivenUpWhereThereIsNothingInIt) {
    InputLoop loop;
    loop.ask(Loop{50'000, 60'000});
    loop.take();
    readTurn(loop, 0, 1'000'000);
    EXPECT_FALSE(loop.goRound(1'000'000)) << "the film ends before it";
    EXPECT_FALSE(loop.isOn());
    EXPECT_TRUE(loop.isGivenUp());
    loop.ask(Loop{500, 600});
    EXPECT_TRUE(loop.take());
    EXPECT_FALSE(loop.isGivenUp());
    readTurn(loop, 0, 1'000'000);
    EXPECT_TRUE(loop.goRound(600'000));
    EXPECT_TRUE(loop.goRound(600'000));
    EXPECT_TRUE(loop.goRound(600'000));
    EXPECT_FALSE(loop.goRound(600'000));
    EXPECT_FALSE(loop.isOn());
    EXPECT_EQ(loop.turn()->toUs, LoopTurn::kOpen);
}

TEST(InputLoop, IsGivenUpWhereWhatIsReadIsNeverHandedOn) {
    InputLoop loop;
    loop.ask(Loop{});
    loop.take();
    for (int turn = 0; turn < 3; ++turn) {
        EXPECT_FALSE(loop.isBehind(Stream::Pictures, 500'000));
        EXPECT_EQ(loop.goRound(1'000'000), turn < 2);
    }
}

TEST(InputLoop, IsGivenUpWhereOnlyWhatLeadsIntoItIsHandedOn) {
    InputLoop loop;
    loop.ask(Loop{1000, 2000});
    loop.take();
    for (int turn = 0; turn < 4; ++turn) {
        loop.noteHandedOn(500'000);
        loop.noteHandedOn(2'000'000);
        EXPECT_EQ(loop.goRound(2'000'000), turn < 3);
    }
}

TEST(InputLoop, SaysWhetherAnythingHasChanged) {
    InputLoop loop;
    loop.ask(std::nullopt);
    EXPECT_FALSE(loop.take());
    loop.ask(Loop{0, 1000});
    EXPECT_TRUE(loop.take());
    loop.ask(Loop{0, 1000});
    EXPECT_FALSE(loop.take());
    loop.ask(std::nullopt);
    EXPECT_TRUE(loop.take());
}

TEST(InputLoop, TakesNoEarlyEndForTheFilms) {
    constexpr int64_t kLengthUs = 60'000'000;
    InputLoop loop;
    loop.ask(Loop{});
    loop.take();
    const auto endAt = [&loop](int64_t us) {
        readTurn(loop, 0, 40'000);
        EXPECT_TRUE(loop.goRound(us, kLengthUs));
        return loop.turn()->toUs;
    };
    EXPECT_EQ(endAt(4'000'000), LoopTurn::kOpen);
    EXPECT_EQ(endAt(5'000'000), LoopTurn::kOpen);
    EXPECT_EQ(endAt(59'500'000), 59'500'000);
    loop.forget();
    loop.ask(Loop{});
    loop.take();
    EXPECT_EQ(endAt(4'000'000), LoopTurn::kOpen);
    EXPECT_EQ(endAt(4'000'000), 4'000'000) << "it is as long as that, whatever it says";
}

TEST(InputLoop, PlaysTheTurnOnIfTheNextOneCantBeRead) {
    InputLoop loop;
    loop.ask(Loop{2000, 4000});
    loop.take();
    for (const int64_t shiftMs : {0, 2000}) {
        readTurn(loop, 0, 60'000'000);
        ASSERT_TRUE(loop.goRound(4'000'000));
        loop.cancelTurn();
        EXPECT_FALSE(loop.isOn());
        EXPECT_TRUE(loop.isGivenUp());
        EXPECT_EQ(loop.turn()->shiftMs, shiftMs);
        EXPECT_EQ(loop.turn()->toUs, LoopTurn::kOpen);
        EXPECT_EQ(loop.filmMs(10'000), 10'000 - shiftMs);
        EXPECT_EQ(loop.isBent(), shiftMs != 0);
        loop.ask(Loop{2000, 4000});
        loop.take();
        readTurn(loop, 0, 60'000'000);
        ASSERT_TRUE(loop.goRound(4'000'000));
    }
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
    EXPECT_EQ(loop.lastFromMs(), 6000);
    EXPECT_TRUE(loop.isBent());
    readTurn(loop, 0, 60'000'000);
    ASSERT_TRUE(loop.goRound(4'000'000));
    EXPECT_EQ(loop.filmMs(8000), 2000);
}

TEST(InputLoop, GoesBackToATurnThatIsNotKnownAnyMore) {
    for (const bool isOn : {true, false}) {
        InputLoop loop;
        loop.ask(isOn ? std::optional(Loop{2000, 4000}) : std::nullopt);
        loop.take();
        loop.seek(7999, 4000);
        EXPECT_EQ(loop.turn()->shiftMs, 4000);
        EXPECT_EQ(loop.turn()->shiftUs, 4'000'000);
        EXPECT_EQ(loop.turn()->toUs, isOn ? 4'000'000 : LoopTurn::kOpen);
        EXPECT_TRUE(loop.turn()->holds(4000)) << "also what lies before its beginning";
        EXPECT_TRUE(loop.isBent());
        EXPECT_EQ(loop.filmMs(5999), 1999);
        loop.seek(1000, 0);
        EXPECT_FALSE(loop.isBent());
        EXPECT_EQ(loop.filmMs(5999), 5999);
    }
}

}  // namespace
}  // namespace kelp::test
