#include "present/seek_landing.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "decode/decoded_frame.h"

namespace kelp {
namespace {

using Verdict = SeekLanding::Verdict;
using Behind = SeekLanding::Behind;

constexpr int64_t kUnknown = std::numeric_limits<int64_t>::min();
constexpr int64_t kNoEnd = std::numeric_limits<int64_t>::max();

// The front frame, for a target at 1000, and what each rule makes of it.
struct Row {
    const char* name;
    int64_t pts;
    int64_t durationMs;
    int64_t lastsToMs;
    Behind behind;
    Verdict standard;
    Verdict exact;
};

class SeekLandingRow : public testing::TestWithParam<Row> {};

TEST_P(SeekLandingRow, JudgesTheFrontFrame) {
    const Row& row = GetParam();
    DecodedFrame frame;
    frame.pts = row.pts;
    frame.duration = row.durationMs;
    frame.lastsToMs = row.lastsToMs;
    const SeekLanding standard(SeekRule::Standard, 1000);
    const SeekLanding exact(SeekRule::Exact, 1000);
    EXPECT_EQ(standard.judge(frame, row.behind, standard.limitMs(kNoEnd)), row.standard);
    EXPECT_EQ(exact.judge(frame, row.behind, exact.limitMs(kNoEnd)), row.exact);
}

INSTANTIATE_TEST_SUITE_P(
    , SeekLandingRow,
    testing::Values(Row{"BeginsAtTheTarget", 1000, 40, kUnknown, Behind::Unknown, Verdict::Land, Verdict::Land},
                    Row{"BeginsBehindIt", 1001, 40, kUnknown, Behind::Unknown, Verdict::Land, Verdict::Land},
                    Row{"MayHoldIt", 990, 40, kUnknown, Behind::Unknown, Verdict::Land, Verdict::Wait},
                    Row{"IsKnownToHoldIt", 990, 5, 1000, Behind::Unknown, Verdict::Skip, Verdict::Land},
                    Row{"HoldsWhatComesBeforeIt", 990, 5, 999, Behind::Unknown, Verdict::Skip, Verdict::Wait},
                    Row{"HasOneBehindItThatComesTooLate", 990, 5, 1000, Behind::AFrame, Verdict::Skip, Verdict::Land},
                    Row{"HasOneBehindItThatIsInTime", 990, 40, 994, Behind::AFrame, Verdict::Land, Verdict::Skip},
                    Row{"HasOneBehindItOfAnEarlierTime", 990, 40, kUnknown, Behind::AFrame, Verdict::Land,
                        Verdict::Skip},
                    Row{"StandsForASecond", 100, 40, kUnknown, Behind::Unknown, Verdict::Skip, Verdict::Wait},
                    Row{"IsTheLast", 100, 40, kUnknown, Behind::Nothing, Verdict::Skip, Verdict::Land}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(SeekLanding, GoesNoFartherThanTheLastTimeKnownUnlessItIsExact) {
    EXPECT_EQ(SeekLanding(SeekRule::Standard, 1000).limitMs(800), 800);
    EXPECT_EQ(SeekLanding(SeekRule::Standard, 1000).limitMs(1200), 1000);
    EXPECT_EQ(SeekLanding(SeekRule::Exact, 1000).limitMs(800), 1000);
}

TEST(SeekLanding, ShowsTheFrameFromTheTargetOn) {
    DecodedFrame frame;
    frame.pts = 600;
    DecodedFrame later;
    later.pts = 1200;
    SeekLanding landing(SeekRule::Exact, 1000);
    EXPECT_TRUE(landing.isRunning());
    EXPECT_FALSE(landing.isLanded(frame));
    landing.land(frame);
    EXPECT_FALSE(landing.isRunning());
    EXPECT_TRUE(landing.isLanded(frame));
    EXPECT_EQ(landing.startOf(frame), 1000);
    EXPECT_FALSE(landing.isLanded(later));
    EXPECT_EQ(landing.startOf(later), 1200);

    landing = SeekLanding(SeekRule::Exact, 1000);
    landing.land(later);
    EXPECT_EQ(landing.startOf(later), 1200) << "the first one there is";

    landing = SeekLanding(SeekRule::Standard, 1000);
    landing.land(frame);
    EXPECT_FALSE(landing.isLanded(frame));
    EXPECT_EQ(landing.startOf(frame), 600);
    EXPECT_FALSE(SeekLanding().isRunning());
}

TEST(SeekLanding, KeepsAFrameThatASeekMayBeFor) {
    for (const bool isPresented : {false, true}) {
        for (const bool isSeekPending : {false, true}) {
            EXPECT_TRUE(SeekLanding::mayLeave(SeekRule::Standard, isPresented, isSeekPending));
            EXPECT_EQ(SeekLanding::mayLeave(SeekRule::Exact, isPresented, isSeekPending),
                      isPresented && !isSeekPending);
        }
    }
}

}  // namespace
}  // namespace kelp
