#include "runtime/utf8.h"

#include <gtest/gtest.h>

namespace kelp {
namespace {

TEST(ReadableUtf8, KeepsWhatIsAndMarksWhatIsNot) {
    for (const char* text : {"", "film", "ääni", "日本語", "\U0001F3AC", "two\nlines"}) {
        EXPECT_EQ(readableUtf8(text), text);
    }
    EXPECT_EQ(readableUtf8("\xE9t\xE9"), "\uFFFDt\uFFFD");
    EXPECT_EQ(readableUtf8("a\xC3"), "a\uFFFD");
    EXPECT_EQ(readableUtf8("\xC0\x80"), "\uFFFD\uFFFD");
    EXPECT_EQ(readableUtf8("\xED\xA0\x80!"), "\uFFFD\uFFFD\uFFFD!");
}

// What the first `size` bytes get of a text.
std::string copied(const char* text, size_t size) {
    std::string to(size + 1, '#');
    copyReadableUtf8(text, to.data(), size);
    EXPECT_EQ(to.back(), '#');
    return to.c_str();
}

TEST(ReadableUtf8, IsCopiedInWholeCharacters) {
    EXPECT_EQ(copied("", 1), "");
    EXPECT_EQ(copied("gr\u00FC\u00DF", 7), "gr\u00FC\u00DF");
    EXPECT_EQ(copied("film", 4), "fil");
    EXPECT_EQ(copied("gr\u00FC\u00DF", 6), "gr\u00FC");
    EXPECT_EQ(copied("a\U0001F3AC", 5), "a");
    EXPECT_EQ(copied("\u00FC", 2), "");
    EXPECT_EQ(copied("a\xE9", 5), "a\uFFFD");
    EXPECT_EQ(copied("a\xE9", 4), "a");
}

}  // namespace
}  // namespace kelp
