#include "control/option_table.h"

#include <gmock/gmock.h>

#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "control/document_parts.h"

namespace kelp::test {
namespace {

// Whether the row takes whatever text there is.
bool takesNames(const PlaybackOption& row) {
    return std::string_view(row.values).find("a name of") != std::string_view::npos;
}

// The words of a row; "or milliseconds" and the like are none.
std::vector<std::string> wordsOf(const PlaybackOption& row) {
    std::vector<std::string> words;
    std::istringstream values(row.values);
    for (std::string word; std::getline(values >> std::ws, word, ',');) {
        if (word.find(' ') == std::string::npos) {
            words.push_back(word);
        }
    }
    return words;
}

TEST(OptionTable, HasTheStandardFirstAndNamesAnotherOneAsTheBetter) {
    for (const auto& row : playbackOptions()) {
        PlaybackOptions options;
        EXPECT_TRUE(row.read(wordsOf(row).at(0), options)) << row.key;
        EXPECT_EQ(options, PlaybackOptions()) << row.key;
        const auto other = row.recommended ? row.recommended : takesNames(row) ? "A name" : wordsOf(row).back();
        EXPECT_TRUE(row.read(other, options)) << row.key;
        EXPECT_NE(options, PlaybackOptions()) << row.key;
        EXPECT_TRUE(row.read(wordsOf(row)[0], options)) << row.key;
        EXPECT_EQ(options, PlaybackOptions()) << row.key << " can't be set back";
    }
}

TEST(OptionTable, TakesEveryWordThatItNamesAndNoOther) {
    for (const auto& row : playbackOptions()) {
        for (const auto& word : takesNames(row) ? std::vector<std::string>() : wordsOf(row)) {
            PlaybackOptions options;
            EXPECT_TRUE(row.read(word, options)) << row.key << " " << word;
            const PlaybackOptions before = options;
            for (const auto& wrong :
                 {word + " ", " " + word, word + "s", std::string(), std::string("no such value")}) {
                EXPECT_FALSE(row.read(wrong, options)) << row.key << " \"" << wrong << "\"";
                EXPECT_EQ(options, before) << row.key << " \"" << wrong << "\"";
            }
        }
    }
}

TEST(OptionTable, SetsAllThatIsRecommendedAndNothingElseAtOnce) {
    PlaybackOptions wanted;
    for (const auto& row : playbackOptions().subspan(1)) {
        if (row.recommended) {
            EXPECT_TRUE(row.read(row.recommended, wanted)) << row.key;
        }
    }
    const auto* const preset = findPlaybackOption("preset");
    PlaybackOptions options;
    EXPECT_TRUE(preset->read("recommended", options));
    EXPECT_EQ(options, wanted);

    options.audioTrack = 2;
    EXPECT_TRUE(preset->read("standard", options));
    EXPECT_EQ(options, (PlaybackOptions{.audioTrack = 2}));
}

TEST(OptionTable, TakesTheNumberOfATrack) {
    PlaybackOptions options;
    const auto* const track = findPlaybackOption("audio_track");
    EXPECT_TRUE(track->read("12", options));
    EXPECT_EQ(options.audioTrack, 12);
    for (const char* wrong : {"", "-1", "-0", "+1", " 1", "1 ", "1x", "0x1", "99999999999", "auto "}) {
        EXPECT_FALSE(track->read(wrong, options)) << wrong;
        EXPECT_EQ(options.audioTrack, 12) << wrong;
    }
    EXPECT_TRUE(track->read("none", options));
    EXPECT_EQ(options.audioTrack, PlaybackOptions::kNoTrack);
}

TEST(OptionTable, TakesAnyNameOfASubtitleFile) {
    PlaybackOptions options;
    const auto* const file = findPlaybackOption("subtitle_file");
    EXPECT_TRUE(file->read("/films/a film, of 2.srt", options));
    EXPECT_EQ(options.subtitleFile, "/films/a film, of 2.srt");
    EXPECT_FALSE(file->read("", options));
    EXPECT_EQ(options.subtitleFile, "/films/a film, of 2.srt");
    EXPECT_TRUE(file->read("none", options));
    EXPECT_EQ(options.subtitleFile, "");
}

TEST(OptionTable, TakesAnyNameOfASoundDevice) {
    PlaybackOptions options;
    const auto* const device = findPlaybackOption("audio_device");
    EXPECT_TRUE(device->read("Kopfhörer, 2", options));
    EXPECT_EQ(options.audioDevice, "Kopfhörer, 2");
    EXPECT_FALSE(device->read("", options));
    EXPECT_EQ(options.audioDevice, "Kopfhörer, 2");
    EXPECT_TRUE(device->read("default", options));
    EXPECT_EQ(options.audioDevice, "");
}

TEST(OptionTable, TakesANumberOfPixels) {
    PlaybackOptions options;
    const auto* const limit = findPlaybackOption("max_pixels");
    EXPECT_TRUE(limit->read("9437184", options));
    for (const char* wrong : {"", "-1", "-0", "+1", "1e6", "1 ", "99999999999999999999"}) {
        EXPECT_FALSE(limit->read(wrong, options)) << wrong;
        EXPECT_EQ(options.maxPixels, 9437184) << wrong;
    }
}

TEST(OptionTable, TakesMilliseconds) {
    PlaybackOptions options;
    const auto* const ahead = findPlaybackOption("read_ahead");
    const auto* const rebuffer = findPlaybackOption("rebuffer");
    EXPECT_TRUE(ahead->read("30000", options));
    EXPECT_TRUE(rebuffer->read("500", options));
    // With nothing ahead nothing would be read.
    for (const char* wrong : {"", "0", "-1", "+1", "1s", "1 ", "99999999999999999999"}) {
        EXPECT_FALSE(ahead->read(wrong, options)) << wrong;
        EXPECT_EQ(options.readAheadMs, 30000) << wrong;
    }
    EXPECT_TRUE(ahead->read("standard", options));
    EXPECT_EQ(options.readAheadMs, 0);
    EXPECT_EQ(options.rebufferMs, 500);
}

TEST(OptionTable, FindsItsKeysAlone) {
    for (const auto& row : playbackOptions()) {
        EXPECT_EQ(findPlaybackOption(row.key), &row);
    }
    for (const char* key : {"", "picture", "Pictures", "log_level", "retry_when_failed", "max_delay"}) {
        EXPECT_EQ(findPlaybackOption(key), nullptr) << key;
    }
}

TEST(OptionTable, StandsInTheDocument) {
    std::string table =
        "| key | values, the standard first | recommended | what the others do | in force |\n"
        "| --- | --- | --- | --- | --- |\n";
    for (const auto& row : playbackOptions()) {
        table += "| `" + std::string(row.key) + "` | " + row.values + " | " + (row.recommended ? row.recommended : "") +
                 " | " + row.effect + " | " + row.inForce + " |\n";
    }
    expectDocumentShows(KELP_OPTIONS_DOCUMENT, {{"options", table}});
}

}  // namespace
}  // namespace kelp::test
