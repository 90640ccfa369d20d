#include "input/read_ahead.h"

#include <gtest/gtest.h>

namespace kelp {
namespace {

TEST(ReadAhead, CountsPacketsAndNothingElseWithoutATime) {
    const ReadAhead ahead;
    EXPECT_FALSE(ahead.isByTime());
    EXPECT_FALSE(ahead.isEnough(199, {.longestMs = 1'000'000, .bytes = int64_t{1} << 40}));
    EXPECT_TRUE(ahead.isEnough(200, {}));
    EXPECT_EQ(ahead.few(250), 100);
}

TEST(ReadAhead, GoesByTheStreamThatReachesFarthest) {
    const ReadAhead ahead(10'000);
    EXPECT_TRUE(ahead.isByTime());
    EXPECT_FALSE(ahead.isEnough(5000, {.longestMs = 9999, .bytes = 1}));
    EXPECT_TRUE(ahead.isEnough(2, {.longestMs = 10'000, .bytes = 1}));
}

TEST(ReadAhead, IsBoundedByMemory) {
    const ReadAhead ahead(10'000);
    EXPECT_FALSE(ahead.isEnough(5000, {.longestMs = 0, .bytes = (64 << 20) - 1}));
    EXPECT_TRUE(ahead.isEnough(5000, {.longestMs = 0, .bytes = 64 << 20}));
}

}  // namespace
}  // namespace kelp
