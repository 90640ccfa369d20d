#include "subtitle/subtitle_event.h"

#include <gtest/gtest.h>

namespace kelp::test {
namespace {

SubtitleEvent lineOf(const std::string& text, const std::string& effect = "") {
    SubtitleEvent event;
    event.ass = "0,Default,,0,0,0," + effect + "," + text;
    return event;
}

TEST(SubtitleEvent, GivesItsTextWithoutWhatStylesIt) {
    const auto plain = [](const std::string& text) { return lineOf(text).plainText(); };
    EXPECT_EQ(plain("Hello, world, again"), "Hello, world, again");
    EXPECT_EQ(plain("{\\i1}Hello{\\i0}\\Nthere\\h{\\an8\\pos(1,2)}you\\nall"), "Hello\nthere you\nall");
    EXPECT_EQ(plain("{\\p1}m 0 0 l 1 1{\\p0}seen"), "seen");
    EXPECT_EQ(plain("{\\pos(3,4)}seen"), "seen");
    EXPECT_EQ(plain("an open { brace and a back\\slash"), "an open { brace and a back\\slash");
    EXPECT_EQ(plain(""), "");
    EXPECT_EQ(SubtitleEvent().plainText(), "");
}

TEST(SubtitleEvent, KnowsWhatMovesByItsOverrides) {
    for (const char* moving : {"{\\move(0,0,9,9)}a", "{\\t(\\fs40)}a", "{\\k20}a", "{\\K20}a", "{\\kf20}a",
                               "{\\fad(100,100)}a", "{\\fade(1,2,3,4,5,6,7)}a"}) {
        EXPECT_TRUE(lineOf(moving).isMoving()) << moving;
    }
    EXPECT_TRUE(lineOf("a", "Banner;10").isMoving());
    EXPECT_FALSE(lineOf("{\\i1\\pos(3,4)}a").isMoving());
    EXPECT_FALSE(SubtitleEvent().isMoving());
}

}  // namespace
}  // namespace kelp::test
