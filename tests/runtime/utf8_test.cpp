#include "runtime/utf8.h"

#include <gtest/gtest.h>

namespace kelp {
namespace {

TEST(WholeCharacters, AreAllOfATextThatFits) {
    EXPECT_EQ(wholeCharacters("", 0), 0U);
    EXPECT_EQ(wholeCharacters("gr\xC3\xBC\xC3\x9F", 6), 6U);
    EXPECT_EQ(wholeCharacters("film", 100), 4U);
}

TEST(WholeCharacters, EndBeforeTheOneThatDoesNotFit) {
    EXPECT_EQ(wholeCharacters("film", 3), 3U);
    EXPECT_EQ(wholeCharacters("gr\xC3\xBC\xC3\x9F", 5), 4U);
    EXPECT_EQ(wholeCharacters("a\xF0\x9F\x8E\xAC", 4), 1U);
    EXPECT_EQ(wholeCharacters("\xC3\xBC", 1), 0U);
}

}  // namespace
}  // namespace kelp
