#include "decode/seek_skip.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "decode/video_test_support.h"
#include "input/loop_turn.h"

namespace kelp {
namespace {

using test::makeEndPacket;
using test::makeVideoPacket;

constexpr int64_t kAll = SeekSkip::kNone;

// Packets that are taken one by one, all others of the list waiting behind.
class Taken {
public:
    explicit Taken(int64_t leadInMs = 200) : skip(leadInMs) {}

    void queue(int64_t pts, int64_t dts) {
        packets.push_back(makeVideoPacket(pts));
        packets.back()->dts = dts;
    }
    // In the order of showing.
    void queueEvery(int64_t stepMs, int64_t fromMs, int64_t toMs) {
        for (int64_t time = fromMs; time <= toMs; time += stepMs) {
            queue(time, time);
        }
    }
    // What is needed when the next one goes to the decoder.
    int64_t take() {
        const auto packet = packets.front();
        packets.pop_front();
        skip.take(*packet, packets);
        return skip.neededFromMs();
    }
    int64_t takeTo(int64_t pts) {
        while (packets.front()->pts != pts) {
            take();
        }
        return take();
    }

    SeekSkip skip;
    SeekSkip::Packets packets;
};

TEST(SeekSkip, LeavesOutNothingWithoutATarget) {
    Taken taken;
    taken.queueEvery(40, 0, 2000);
    EXPECT_EQ(taken.takeTo(2000), kAll);
    EXPECT_FALSE(taken.skip.isLeftOut(std::numeric_limits<int64_t>::min()));
}

struct Row {
    const char* name;
    int64_t stepMs;
    int64_t targetMs;
    int64_t lastMs;        // that is queued
    int64_t neededFromMs;  // when all are taken
};

class SeekSkipRow : public testing::TestWithParam<Row> {};

TEST_P(SeekSkipRow, NeedsTheFramesNearTheTarget) {
    const Row& row = GetParam();
    Taken taken;
    taken.skip.aim(row.targetMs, /*flush=*/true);
    taken.queueEvery(row.stepMs, 0, row.lastMs);
    EXPECT_EQ(taken.takeTo(row.lastMs), row.neededFromMs);
    EXPECT_EQ(taken.skip.isLeftOut(row.targetMs - 1), row.neededFromMs != kAll);
    EXPECT_FALSE(taken.skip.isLeftOut(row.targetMs));
}

INSTANTIATE_TEST_SUITE_P(Rates, SeekSkipRow,
                         testing::Values(Row{"TwoHundredMillisecondsOfThem", 40, 1000, 2000, 801},
                                         Row{"ATargetBetweenTwo", 40, 1039, 2000, 801},
                                         Row{"ThreeOfARareKind", 500, 5000, 9000, 3501},
                                         Row{"ThreeOfOnesSecondsApart", 3000, 11000, 30000, 1},
                                         Row{"AllWhereThreeAreAllThatThereIs", 500, 1000, 5000, kAll},
                                         Row{"AllOfATargetNearTheStart", 40, 200, 2000, 1},
                                         Row{"AllBeforeTheStart", 40, 199, 2000, kAll},
                                         Row{"TheLastBehindTheEnd", 40, 99999, 1000, 801},
                                         Row{"TheLastThreeBehindTheEnd", 500, 99999, 5000, 3501}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(SeekSkip, NeedsWhatNothingIsKnownBehind) {
    Taken taken;
    taken.skip.aim(5000, /*flush=*/true);
    for (int64_t time = 0; time < 4800; time += 40) {
        taken.queue(time, time);
        EXPECT_EQ(taken.take(), kAll) << time;
    }
}

TEST(SeekSkip, CountsNoPacketThatMakesNoFrame) {
    Taken taken;
    taken.skip.aim(1000, /*flush=*/true);
    taken.queueEvery(500, 0, 1500);
    for (int i = 0; i < 10; ++i) {
        taken.packets.insert(taken.packets.begin() + 1, makeVideoPacket(400, 0));
        taken.packets[1]->dts = 400;
    }
    taken.packets.push_back(makeEndPacket(true));
    EXPECT_EQ(taken.takeTo(1500), kAll);
    EXPECT_EQ(taken.take(), kAll);
}

// Decoded before the two pictures that are shown before it.
TEST(SeekSkip, NeedsAllOnceAPacketNearTheTargetWasTaken) {
    Taken taken;
    taken.skip.aim(1000, /*flush=*/true);
    taken.queue(0, 0);
    taken.queue(120, 1);
    taken.queue(40, 2);
    taken.queue(80, 3);
    taken.queue(840, 4);
    taken.queue(160, 5);
    for (const int64_t time : {880, 900, 920, 940, 1000, 1040}) {
        taken.queue(time, time);
    }
    EXPECT_EQ(taken.take(), 1);
    EXPECT_EQ(taken.take(), 121);
    EXPECT_EQ(taken.take(), 121);
    EXPECT_EQ(taken.take(), 121);
    EXPECT_EQ(taken.take(), 121);
    EXPECT_EQ(taken.take(), 121);
}

TEST(SeekSkip, NeedsAllOnceDecodingTimesGoBack) {
    Taken taken;
    taken.skip.aim(3000, /*flush=*/true);
    taken.queueEvery(40, 1000, 2000);
    taken.queueEvery(40, 0, 5000);
    EXPECT_EQ(taken.takeTo(1720), 1721);
    // What is behind the step isn't known to come out in this order.
    EXPECT_EQ(taken.takeTo(2000), 1801);
    EXPECT_EQ(taken.takeTo(0), kAll);
    EXPECT_EQ(taken.takeTo(5000), kAll);
}

TEST(SeekSkip, NeedsAllAgainWhenTimesGoBackBehindTheTarget) {
    Taken taken;
    taken.skip.aim(1000, /*flush=*/true);
    taken.queueEvery(40, 0, 2000);
    taken.queueEvery(40, 0, 2000);
    EXPECT_EQ(taken.takeTo(2000), 801);
    EXPECT_EQ(taken.take(), kAll);
}

// In groups of one that refers back, one between it and the last such one, and those between these two.
TEST(SeekSkip, CountsWhatIsTakenBehindTheTargetOnceAllUpToItAre) {
    Taken taken;
    const auto takenBehind = [&] {
        taken.take();
        return taken.skip.takenBehind();
    };
    taken.skip.aim(250, /*flush=*/true);
    int64_t decoded = -80;
    for (const int64_t time : {0, 160, 80, 40, 120, 320, 240, 200, 280, 480, 400, 360, 440}) {
        taken.queue(time, decoded);
        decoded += 40;
    }
    for (const int64_t time : {0, 160, 80, 40, 120, 320, 240}) {
        EXPECT_EQ(takenBehind(), SeekSkip::kNotYet) << time;
    }
    EXPECT_EQ(takenBehind(), 1);  // 320
    EXPECT_EQ(takenBehind(), 2);
    EXPECT_EQ(takenBehind(), 3);
    taken.skip.aim(400, /*flush=*/false);
    EXPECT_EQ(takenBehind(), SeekSkip::kNotYet);
    // Another one up to the target may follow, for all that is known.
    EXPECT_EQ(takenBehind(), SeekSkip::kNotYet);
}

TEST(SeekSkip, CountsNoFartherThanADecoderReorders) {
    Taken taken;
    taken.skip.aim(1000, /*flush=*/true);
    taken.queueEvery(40, 1000, 2000);
    for (int i = 0; i <= 16; ++i) {
        taken.take();
        EXPECT_EQ(taken.skip.takenBehind(), i);
    }
    taken.take();
    EXPECT_EQ(taken.skip.takenBehind(), SeekSkip::kNotYet);
}

TEST(SeekSkip, ForgetsWithAFlush) {
    Taken taken;
    taken.skip.aim(3000, /*flush=*/true);
    taken.queueEvery(40, 0, 3000);
    EXPECT_EQ(taken.takeTo(1000), 1001);
    EXPECT_TRUE(taken.skip.isLeftOut(2999));
    taken.skip.aim(500, /*flush=*/true);
    EXPECT_FALSE(taken.skip.isLeftOut(0));
    EXPECT_EQ(taken.take(), kAll);
}

TEST(SeekSkip, GoesOnToALaterTargetWithoutAFlush) {
    Taken taken;
    taken.skip.aim(1000, /*flush=*/true);
    taken.queueEvery(40, 0, 4000);
    EXPECT_EQ(taken.takeTo(1000), 801);
    taken.skip.aim(3000, /*flush=*/false);
    EXPECT_EQ(taken.skip.neededFromMs(), 801);
    EXPECT_FALSE(taken.skip.isLeftOut(1000));
    EXPECT_EQ(taken.takeTo(3000), 2801);
    EXPECT_TRUE(taken.skip.isLeftOut(2999));
}

TEST(SeekSkip, TakesAnyTimeOfADamagedStream) {
    Taken taken;
    taken.skip.aim(1000, /*flush=*/true);
    const int64_t lowest = std::numeric_limits<int64_t>::min();
    const int64_t highest = std::numeric_limits<int64_t>::max();
    for (int i = 0; i < 3; ++i) {
        taken.queue(lowest, 0);
        taken.queue(highest, 0);
        taken.queueEvery(1, 0, 0);
    }
    EXPECT_EQ(taken.take(), lowest + 1);
    while (!taken.packets.empty()) {
        EXPECT_EQ(taken.take(), lowest + 1);
    }
}

TEST(SeekSkip, KnowsTheFrameThatHoldsTheTarget) {
    Taken taken;
    taken.skip.aim(1900, /*flush=*/true);
    // In the order of decoding; the last one that isn't behind the target is the second of them.
    taken.queue(0, 0);
    taken.queue(1000, 1);
    taken.queue(500, 2);
    taken.queue(3000, 1500);
    taken.queue(2000, 1950);
    taken.takeTo(1000);
    EXPECT_EQ(taken.skip.holder().timeMs, kAll) << "the next one is in time";
    taken.take();
    EXPECT_EQ(taken.skip.holder().timeMs, 1000);
    EXPECT_EQ(taken.skip.holder().targetMs, 1900);
    taken.take();
    EXPECT_EQ(taken.skip.holder().timeMs, 1000) << "until another seek";
    taken.skip.aim(100, /*flush=*/true);
    EXPECT_EQ(taken.skip.holder().timeMs, kAll);
}

// What was taken for an earlier target counts as well; where it lies behind the new one, nothing is known.
TEST(SeekSkip, KnowsTheFrameOfASeekWithoutFlush) {
    for (const bool isKnown : {true, false}) {
        Taken taken;
        taken.skip.aim(100, /*flush=*/true);
        taken.queue(0, 0);
        taken.queue(isKnown ? 400 : 600, 0);
        taken.queue(200, 0);
        taken.queue(800, 700);
        taken.queue(900, 800);
        taken.takeTo(isKnown ? 400 : 600);
        taken.skip.aim(500, /*flush=*/false);
        taken.take();
        EXPECT_EQ(taken.skip.holder().timeMs, isKnown ? 400 : 0) << "which was the first target's";
    }
}

TEST(SeekSkip, LeavesOutWhatComesTooLate) {
    Taken taken;
    taken.queueEvery(40, 0, 200);
    const auto isLate = [&](int64_t dueMs) {
        const auto packet = taken.packets.front();
        taken.take();
        return taken.skip.leaveOutIfLate(*packet, taken.packets, dueMs);
    };
    EXPECT_FALSE(isLate(39)) << "nothing else is due";
    EXPECT_TRUE(isLate(80));
    EXPECT_EQ(taken.skip.neededFromMs(), 41);
    EXPECT_FALSE(isLate(119));
    EXPECT_TRUE(isLate(1000));
    EXPECT_EQ(taken.skip.neededFromMs(), 121);
    EXPECT_TRUE(taken.skip.isLeftOut(120));
    EXPECT_FALSE(taken.skip.isLeftOut(121));
    EXPECT_TRUE(isLate(1000));
    EXPECT_FALSE(isLate(1000)) << "none waits";
    taken.skip.aim(0, /*flush=*/true);
    EXPECT_EQ(taken.skip.neededFromMs(), kAll);
    EXPECT_FALSE(taken.skip.isLeftOut(0));
}

// Packets 40 ms apart, key frames as named.
SeekSkip::Packets packetsWithKeys(int64_t toMs, std::initializer_list<int64_t> keys) {
    SeekSkip::Packets packets;
    for (int64_t time = 0; time <= toMs; time += 40) {
        const auto packet = makeVideoPacket(time);
        packet->keyFrame = std::ranges::count(keys, time) > 0;
        packets.push_back(packet);
    }
    return packets;
}

TEST(SeekSkip, DropsWhatLiesBeforeAKeyFrameThatIsDue) {
    SeekSkip skip(200);
    const auto packets = packetsWithKeys(800, {0, 200, 400, 600});
    EXPECT_EQ(skip.countDropped(packets, 0), 0);
    EXPECT_EQ(skip.countDropped(packets, 199), 0);
    EXPECT_EQ(skip.countDropped(packets, 200), 5);
    EXPECT_EQ(skip.neededFromMs(), 200);
    EXPECT_EQ(skip.countDropped(packets, 599), 10);
    EXPECT_TRUE(skip.isLeftOut(399));
    EXPECT_FALSE(skip.isLeftOut(400));
}

TEST(SeekSkip, DropsUpToAnyKeyFrameFarBehindPlayback) {
    SeekSkip skip(200);
    EXPECT_EQ(skip.countDropped(packetsWithKeys(4000, {3000}), 2000), 0);
    EXPECT_EQ(skip.countDropped(packetsWithKeys(4000, {3000}), 2001), 75);
    EXPECT_EQ(skip.countDropped(packetsWithKeys(400, {80, 200}), 2401), 5);
    EXPECT_EQ(skip.countDropped(packetsWithKeys(400, {0}), 2001), 0);
    EXPECT_EQ(skip.countDropped({}, 9000), 0);
}

TEST(SeekSkip, NeedsTheKeyFrameThatEndsADropWhateverTimesWereDropped) {
    for (const int64_t wrong : {int64_t{201}, int64_t{1'000'000}, std::numeric_limits<int64_t>::max()}) {
        SeekSkip skip(200);
        const auto packets = packetsWithKeys(800, {200});
        packets[3]->pts = wrong;
        EXPECT_EQ(skip.countDropped(packets, 300), 5);
        EXPECT_EQ(skip.neededFromMs(), 200) << wrong;
        skip.take(*packets[5], {});
        EXPECT_FALSE(skip.leaveOutIfLate(*packets[5], {}, std::nullopt)) << wrong;
    }
}

TEST(SeekSkip, DropsNothingWhereNoKeyFrameHasCome) {
    SeekSkip skip(200);
    EXPECT_EQ(skip.countDropped(packetsWithKeys(400, {}), 9000), 0) << "none may ever come";
    auto withEnd = packetsWithKeys(400, {});
    withEnd.push_back(makeEndPacket(true));
    EXPECT_EQ(skip.countDropped(withEnd, 9000), 0);
    EXPECT_EQ(skip.countDropped(packetsWithKeys(400, {80}), std::nullopt), 0);
}

// A key frame and two pictures that are decoded behind it and shown before it.
void queueOpenGroup(Taken& taken) {
    for (const int64_t time : {480, 400, 440, 520}) {
        taken.queue(time, static_cast<int64_t>(taken.packets.size()));
        std::static_pointer_cast<VideoPacket>(taken.packets.back())->keyFrame = time == 480;
    }
}

TEST(SeekSkip, LeavesOutWhatIsShownBeforeTheKeyFrameThatEndsADrop) {
    for (const int64_t dueMs : {500, 5000}) {
        Taken taken;
        taken.queue(320, -2);
        taken.queue(360, -1);
        queueOpenGroup(taken);
        EXPECT_EQ(taken.skip.countDropped(taken.packets, dueMs), 2);
        taken.packets.erase(taken.packets.begin(), taken.packets.begin() + 2);
        EXPECT_TRUE(taken.skip.isLeftOut(479));
        for (const int64_t time : {480, 400, 440, 520}) {
            const auto packet = taken.packets.front();
            EXPECT_EQ(taken.take(), 480) << time;
            EXPECT_EQ(taken.skip.leaveOutIfLate(*packet, taken.packets, std::nullopt), time < 480) << time;
        }
    }
}

TEST(SeekSkip, NeedsWhatLeadsToAKeyFrameThatFollowsWhatWasDecoded) {
    for (const int64_t dueMs : {500, 5000}) {
        Taken taken;
        queueOpenGroup(taken);
        EXPECT_EQ(taken.skip.countDropped(taken.packets, dueMs), 0);
        EXPECT_EQ(taken.skip.neededFromMs(), kAll) << dueMs;
    }
}

TEST(SeekSkip, NeedsAllOfTimesThatBeginAnewBehindADrop) {
    SeekSkip skip(200);
    auto packets = packetsWithKeys(120, {120});
    for (const auto& packet : packets) {
        packet->pts = packet->dts += 100'000;
    }
    EXPECT_EQ(skip.countDropped(packets, 200'000), 3);
    EXPECT_EQ(skip.neededFromMs(), 100'120);
    const auto anew = packetsWithKeys(400, {0});
    EXPECT_EQ(skip.countDropped(anew, std::nullopt), 0);
    skip.take(*anew.front(), {});
    EXPECT_EQ(skip.neededFromMs(), kAll);
    EXPECT_FALSE(skip.leaveOutIfLate(*anew[1], {}, std::nullopt));
}

TEST(SeekSkip, NeedsAllOfTimesThatBeginAnewBehindALateFrame) {
    Taken taken;
    taken.queueEvery(40, 100'000, 100'040);
    taken.queueEvery(40, 0, 40);
    const auto late = taken.packets.front();
    taken.take();
    EXPECT_TRUE(taken.skip.leaveOutIfLate(*late, taken.packets, 200'000));
    EXPECT_EQ(taken.take(), 100'001);
    EXPECT_EQ(taken.take(), kAll);
    EXPECT_FALSE(taken.skip.leaveOutIfLate(*taken.packets.front(), taken.packets, std::nullopt));
}

// A decoder gives out none before the one that was left out, whenever it is decoded.
TEST(SeekSkip, CountsAsLateWhatIsShownBeforeALateFrame) {
    Taken taken;
    int64_t decoded = 0;
    for (const int64_t time : {120, 40, 80, 240}) {
        taken.queue(time, decoded++);
    }
    const auto isLate = [&](std::optional<int64_t> dueMs) {
        const auto packet = taken.packets.front();
        taken.take();
        return taken.skip.leaveOutIfLate(*packet, taken.packets, dueMs);
    };
    EXPECT_TRUE(isLate(300));
    EXPECT_TRUE(isLate(std::nullopt));
    EXPECT_TRUE(isLate(std::nullopt));
    EXPECT_FALSE(isLate(std::nullopt));
    const auto ofALoop = makeVideoPacket(40);
    ofALoop->turn = std::make_shared<LoopTurn>();
    EXPECT_FALSE(taken.skip.leaveOutIfLate(*ofALoop, {}, std::nullopt));
    taken.skip.aim(0, /*flush=*/true);
    EXPECT_FALSE(taken.skip.leaveOutIfLate(*makeVideoPacket(40), {}, std::nullopt));
}

// What a decoder holds back for the order of showing when a later one is found to be late comes out for nobody as well.
TEST(SeekSkip, CountsWhatWasInTheDecoderWhenALaterOneCameTooLate) {
    Taken taken;
    int64_t decoded = 0;
    for (const int64_t time : {0, 160, 80, 40, 120, 200, 400}) {
        taken.queue(time, decoded++);
    }
    const auto isLate = [&](std::optional<int64_t> dueMs) {
        const auto packet = taken.packets.front();
        taken.take();
        return taken.skip.leaveOutIfLate(*packet, taken.packets, dueMs);
    };
    for (int i = 0; i < 5; ++i) {
        EXPECT_FALSE(isLate(std::nullopt));
    }
    taken.skip.noteDelivered(40);
    EXPECT_TRUE(isLate(500));
    EXPECT_EQ(taken.skip.takeOvertaken(), 3) << "80, 120 and 160";
    EXPECT_EQ(taken.skip.takeOvertaken(), 0);
    EXPECT_FALSE(isLate(500));
}

TEST(SeekSkip, CountsWhatWasInTheDecoderWhenPacketsAreDroppedUpToAKeyFrame) {
    SeekSkip skip(SeekSkip::kShortestLeadInMs);
    auto packets = packetsWithKeys(240, {0, 200});
    for (const bool isFlushed : {false, true}) {
        for (int i = 0; i < 3; ++i) {
            skip.take(*packets[static_cast<size_t>(i)], {});
            EXPECT_FALSE(skip.leaveOutIfLate(*packets[static_cast<size_t>(i)], {}, std::nullopt));
        }
        skip.noteDelivered(0);
        const SeekSkip::Packets waiting(packets.begin() + 3, packets.end());
        if (isFlushed) {
            skip.aim(0, /*flush=*/true);
        }
        EXPECT_EQ(skip.countDropped(waiting, 220), 2);
        EXPECT_EQ(skip.takeOvertaken(), isFlushed ? 0 : 2) << "40 and 80";
        skip.aim(0, /*flush=*/true);
    }
}

TEST(SeekSkip, CountsNoneAsLateThatASeekPassesOver) {
    Taken taken;
    taken.queueEvery(40, 0, 2000);
    taken.skip.aim(1000, /*flush=*/true);
    for (int64_t time = 0; time <= 1200; time += 40) {
        const auto packet = taken.packets.front();
        taken.take();
        const auto dueMs = time == 1200 ? std::optional<int64_t>(5000) : std::nullopt;
        EXPECT_EQ(taken.skip.leaveOutIfLate(*packet, taken.packets, dueMs), dueMs.has_value()) << time;
    }
    EXPECT_EQ(taken.skip.takeOvertaken(), 9) << "840 to 1160";
}

}  // namespace
}  // namespace kelp
