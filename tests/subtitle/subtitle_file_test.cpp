#include "subtitle/subtitle_file.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <iterator>

#include "subtitle/bounded_file.h"
#include "subtitle/picture_subtitles.h"
#include "subtitle/subtitle_files.h"
#include "support/deaf_port.h"
#include "support/log_capture.h"

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
}

namespace kelp::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct Line {
    int64_t startMs;
    int64_t endMs;
    std::string text;
    bool operator==(const Line&) const = default;
};
void PrintTo(const Line& line, std::ostream* out) {
    *out << line.startMs << " to " << line.endMs << " \"" << line.text << '"';
}

std::vector<Line> linesOf(const SubtitleTrack* track) {
    std::vector<Line> lines;
    for (const auto& event : track ? track->all() : std::vector<SubtitleTrack::Event>()) {
        lines.push_back({event->startMs, event->endMs, event->plainText()});
    }
    return lines;
}

class SubtitleText : public testing::TestWithParam<const char*> {};

TEST_P(SubtitleText, IsReadWithItsTimes) {
    const auto srt = writeFile("hello.srt", kSrt);
    const std::string form = GetParam();
    const bool isMov = form == "mov" || form == "mp4";
    const auto path = form == "srt" ? srt : convert(srt, "hello." + form, isMov ? "-c:s mov_text" : "");
    EXPECT_THAT(linesOf(readTrack(path).get()),
                ElementsAre(Line{1000, 2500, "Hello\nthere"}, Line{3000, 4000, "S\u00FC\u00DF"}));
}

INSTANTIATE_TEST_SUITE_P(OfEachForm, SubtitleText, testing::Values("srt", "vtt", "ass", "ssa", "mkv", "mov", "mp4"));

TEST(SubtitleFile, TellsOfItsTracks) {
    const auto path = convert(writeFile("hello.srt", kSrt), "told.mkv", "-c:s subrip -metadata:s:s:0 language=fin");
    const auto file = readSubtitles(path);
    ASSERT_EQ(file.entries.size(), 1U);
    const Track& track = file.entries[0].track;
    EXPECT_EQ(track.number, 5);
    EXPECT_EQ(track.kind, TRACK_KIND_SUBTITLE);
    EXPECT_EQ(track.codec, "subrip");
    EXPECT_EQ(track.language, "fin");
    EXPECT_THAT(track.title, HasSubstr("told.mkv"));
    EXPECT_TRUE(track.isPlayable);
    EXPECT_FALSE(track.isPlayed);
}

TEST(SubtitleFile, HasTracksOfItsOwnBehindThoseOfTheFilm) {
    const auto file = readSubtitles(convert(writeFile("hello.srt", kSrt), "two.mkv",
                                            "-map 0 -map 0 -c:s:0 subrip -c:s:1 ass -metadata:s:s:1 title=Second"));
    ASSERT_EQ(file.entries.size(), 2U);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(file.entries[i].track.number, 5 + static_cast<int>(i));
        EXPECT_EQ(file.entries[i].track.codec, i == 0 ? "subrip" : "ass");
        EXPECT_THAT(file.entries[i].track.title, HasSubstr(i == 0 ? "two.mkv" : "Second"));
        EXPECT_EQ(linesOf(file.entries[i].known.get()).size(), 2U);
    }
}

TEST(SubtitleFile, KeepsWhatStylesTheText) {
    const auto path = writeFile("styled.ass", std::string(kScript) +
                                                  "Dialogue: 3,0:00:01.00,0:00:02.00,Sign,,0,0,0,,"
                                                  "{\\pos(3,4)}Exit, left\n");
    const auto track = readTrack(path);
    ASSERT_TRUE(track);
    EXPECT_TRUE(track->head().isStyled);
    EXPECT_THAT(track->head().script, HasSubstr("Style: Sign,"));
    ASSERT_EQ(track->all().size(), 1U);
    EXPECT_EQ(track->all()[0]->ass, "3,Sign,,0,0,0,,{\\pos(3,4)}Exit, left");
    EXPECT_FALSE(readTrack(writeFile("hello.srt", kSrt))->head().isStyled);
}

TEST(SubtitleFile, TakesTextThatIsNotUtf8ForThatOfOlderPrograms) {
    const std::string first = "1\n00:00:01,000 --> 00:00:02,000\nCaf\xE9 \x93quoted\x94\n\n";
    EXPECT_THAT(linesOf(readTrack(writeFile("old.srt", first)).get()),
                ElementsAre(Line{1000, 2000, "Caf\u00E9 \u201Cquoted\u201D"}));
    std::string wide = "\xFF\xFE";
    for (const char letter : std::string("1\n00:00:01,000 --> 00:00:02,000\nwide\n\n")) {
        wide += letter;
        wide += '\0';
    }
    EXPECT_THAT(linesOf(readTrack(writeFile("wide.srt", wide)).get()), ElementsAre(Line{1000, 2000, "wide"}));
}

TEST(SubtitleFile, TakesTextThatIsNotUtf8ForThatOfTheCharsetThatIsAskedFor) {
    // The word in Windows-1251.
    const auto path = writeFile("old.srt", "1\n00:00:01,000 --> 00:00:02,000\n\xCC\xE8\xF0\n\n");
    const auto textIn = [&](const std::string& charset) {
        const auto file = SubtitleFile::read(path, {{"sub_charenc", charset}}, 0, [] { return false; });
        const auto lines = linesOf(file.entries.empty() ? nullptr : file.entries[0].known.get());
        return lines.empty() ? std::string() : lines[0].text;
    };
    EXPECT_EQ(textIn("CP1251"), "\u041C\u0438\u0440");
    LogCapture log;
    EXPECT_EQ(textIn("no such charset"), "\u00CC\u00E8\u00F0");
    EXPECT_THAT(log.lines(), Contains(HasSubstr("there is no charset no such charset")));
    const auto good =
        SubtitleFile::read(writeFile("good.srt", kSrt), {{"sub_charenc", "CP1251"}}, 0, [] { return false; });
    ASSERT_EQ(good.entries.size(), 1U);
    EXPECT_EQ(linesOf(good.entries[0].known.get()).back().text, "S\u00FC\u00DF") << "UTF-8 stays what it is";
}

class PictureSubtitles : public testing::TestWithParam<AVCodecID> {
protected:
    static std::string write(const std::vector<PictureSubtitle>& subtitles) {
        const auto path = subtitlePath("pictures." + std::string(avcodec_get_name(GetParam())));
        if (GetParam() == AV_CODEC_ID_HDMV_PGS_SUBTITLE) {
            writePgsSubtitles(path + ".sup", subtitles);
            return path + ".sup";
        }
        writePictureSubtitles(path + ".mkv", GetParam(), subtitles);
        return path + ".mkv";
    }
};

TEST_P(PictureSubtitles, AreReadWithTheirTimesPlacesAndColors) {
    const auto track = readTrack(write({{1000, 3000, 100, 400, 64, 32}, {4000, 5000, 200, 40, 32, 16}}));
    ASSERT_TRUE(track);
    EXPECT_FALSE(track->head().isText);
    for (const int64_t none : {999, 3500, 6000}) {
        EXPECT_THAT(track->at(none).events, IsEmpty()) << none;
    }
    ASSERT_EQ(track->at(2000).events.size(), 1U);
    const SubtitleEvent& event = *track->at(2000).events[0];
    EXPECT_EQ(event.startMs, 1000);
    EXPECT_NEAR(event.endMs, 3000, 12);  // the units of a DVD are 11 ms
    EXPECT_EQ(event.canvasWidth, kPictureCanvasWidth);
    EXPECT_EQ(event.canvasHeight, kPictureCanvasHeight);
    ASSERT_EQ(event.bitmaps.size(), 1U);
    const SubtitleBitmap& bitmap = event.bitmaps[0];
    EXPECT_EQ(bitmap.x, 100);
    EXPECT_EQ(bitmap.y, 400);
    ASSERT_EQ(bitmap.width, 64);
    ASSERT_EQ(bitmap.height, 32);
    // Some forms have few colours, or others than red, green and blue: near is enough.
    const auto isNear = [](uint32_t color, uint32_t wanted) {
        bool near = true;
        for (const int shift : {0, 8, 16, 24}) {
            near = near &&
                   std::abs(static_cast<int>(color >> shift & 0xFF) - static_cast<int>(wanted >> shift & 0xFF)) < 20;
        }
        return near;
    };
    const auto colorAt = [&](int x, int y) {
        return bitmap.palette[bitmap.indices[static_cast<size_t>(y * bitmap.width + x)]];
    };
    EXPECT_TRUE(isNear(colorAt(1, 1), kLeftColor)) << std::hex << colorAt(1, 1);
    EXPECT_TRUE(isNear(colorAt(62, 30), kRightColor)) << std::hex << colorAt(62, 30);
    EXPECT_EQ(track->at(4500).events.size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(OfEachForm, PictureSubtitles,
                         testing::Values(AV_CODEC_ID_DVD_SUBTITLE, AV_CODEC_ID_DVB_SUBTITLE,
                                         AV_CODEC_ID_HDMV_PGS_SUBTITLE),
                         [](const auto& of) { return std::string(avcodec_get_name(of.param)); });

TEST(SubtitleFile, SaysWhatItCantRead) {
    LogCapture log;
    EXPECT_THAT(readSubtitles(subtitlePath("missing.srt")).entries, IsEmpty());
    EXPECT_THAT(log.lines(), Contains(HasSubstr("missing.srt can't be read: No such file or directory")));
    EXPECT_THAT(readSubtitles(writeFile("noise.srt", "neither this nor that")).entries, IsEmpty());
    EXPECT_THAT(log.lines(), Contains(HasSubstr("noise.srt can't be read: Invalid data")));
    const auto sound = subtitlePath("sound.wav");
    const std::string command = "ffmpeg -nostdin -loglevel error -y -f lavfi -i sine=duration=0.1 '" + sound + "'";
    ASSERT_EQ(std::system(command.c_str()), 0);
    EXPECT_THAT(readSubtitles(sound).entries, IsEmpty());
    EXPECT_THAT(log.lines(), Contains(HasSubstr("sound.wav has no subtitles")));
}

TEST(SubtitleFile, ReadsNoPipeWhichMightKeepTheFilmWaiting) {
    LogCapture log;
    const auto whole = writeFile("hello.srt", kSrt);
    const auto pipe = subtitlePath("pipe.srt");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::string refused[] = {pipe,
                                   "file:" + pipe,
                                   "cache:async:file:" + pipe,
                                   "cache:cache:" + whole,
                                   "async:async:" + whole,
                                   "pipe:0",
                                   "fd:0",
                                   "concat:" + whole + "|" + pipe,
                                   "concatf:" + whole,
                                   "subfile,,start,0,end,9,,:" + whole};
    for (const auto& path : refused) {
        EXPECT_THAT(readSubtitles(path).entries, IsEmpty());
        EXPECT_EQ(log.lines().back(), "[SubtitleFile]: read, " + path + " is no file\n");
    }
    std::remove(pipe.c_str());
    EXPECT_EQ(readSubtitles("file:" + whole).entries.size(), 1U);
}

TEST(SubtitleFile, ReadsWhatIsWholeOfADamagedOne) {
    LogCapture log;
    std::string damaged = kSrt;
    damaged.insert(damaged.find("2\n"), "\xFF\xFE\x01garbage\n00:99:xx --> \n\n");
    const auto track = readTrack(writeFile("damaged.srt", damaged));
    ASSERT_TRUE(track);
    EXPECT_FALSE(track->at(3500).events.empty());
}

TEST(SubtitleFile, CallsNobodyThatAFileNames) {
    DeafPort port;
    ASSERT_TRUE(port.isOpen());
    LogCapture log;
    for (const auto& [name, text] : std::vector<std::pair<std::string, std::string>>{
             {"list.m3u8", "#EXTM3U\n#EXT-X-TARGETDURATION:9\n#EXTINF:9,\n" + port.url("a.ts") + "\n#EXT-X-ENDLIST\n"},
             {"list.ffconcat", "ffconcat version 1.0\nfile '" + port.url("a.srt") + "'\n"}}) {
        int asked = 0;
        // Not for long, if it does.
        const auto file = SubtitleFile::read(writeFile(name, text), {{"safe", "0"}}, 0, [&] { return ++asked > 100; });
        EXPECT_THAT(file.entries, IsEmpty()) << name;
        EXPECT_FALSE(port.wasCalled()) << name;
    }
}

TEST(SubtitleFile, OpensWhatTheHostAllowsAlone) {
    LogCapture log;
    const auto path = writeFile("hello.srt", kSrt);
    const auto count = [&](const char* key, const char* value) {
        return SubtitleFile::read(path, {{key, value}}, 0, [] { return false; }).entries.size();
    };
    EXPECT_EQ(count("protocol_whitelist", "file"), 1U);
    EXPECT_EQ(count("protocol_whitelist", "http,tcp"), 0U);
    EXPECT_EQ(count("format_whitelist", "srt,ass"), 1U);
    EXPECT_EQ(count("format_whitelist", "matroska"), 0U);
}

TEST(SubtitleFile, EndsWhereItsBytesAreTooMany) {
    const auto path = writeFile("long.srt", std::string(100'000, 'x'));
    for (const int most : {0, 1, 65'536, 99'999, 100'000, 200'000}) {
        BoundedFile file(most);
        ASSERT_EQ(file.open(path, {}, {}), 0);
        std::vector<unsigned char> bytes(300'000);
        int read = 0;
        for (int count = 1; count > 0;) {
            count = avio_read(file.io(), bytes.data() + read, 30'000);
            read += std::max(count, 0);
        }
        EXPECT_EQ(read, std::min(most, 100'000));
        EXPECT_EQ(file.isCut(), most <= 100'000) << most;
        EXPECT_EQ(avio_size(file.io()), 100'000);
    }
    BoundedFile none(1);
    EXPECT_EQ(none.open(subtitlePath("missing.srt"), {}, {}), AVERROR(ENOENT));
}

TEST(SubtitleFile, IsClosedWhenItWasRead) {
    const auto openFiles = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    const auto before = openFiles();
    EXPECT_TRUE(readTrack(writeFile("hello.srt", kSrt)));
    EXPECT_EQ(openFiles(), before);
}

TEST(SubtitleFile, GivesUpWhenAsked) {
    LogCapture log;
    const auto path = writeFile("hello.srt", kSrt);
    int asked = 0;
    SubtitleFile::read(path, {}, 0, [&] { return ++asked > 0; });
    EXPECT_GT(asked, 0);
}

}  // namespace
}  // namespace kelp::test
