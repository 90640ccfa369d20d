#include "subtitle/subtitle_drawer.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <iterator>

#include "subtitle/drawn_pixels.h"
#include "subtitle/picture_subtitles.h"
#include "subtitle/subtitle_files.h"
#include "subtitle/subtitle_tracks.h"
#include "support/log_capture.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace kelp::test {
namespace {

// What the ffmpeg command draws over a gray film, in one of its pictures. The film is made in the graph: as an input
// beside subtitles it makes version 7.1 hang now and then.
std::vector<Pixel> drawnByCommand(const std::string& inputs, const std::string& graph, double atSeconds, int width,
                                  int height) {
    const std::string raw = subtitlePath("reference.rgb");
    const std::string size = std::to_string(width) + "x" + std::to_string(height);
    const std::string command = "ffmpeg -nostdin -loglevel error -y " + inputs +
                                " -filter_complex \"color=c=0x646464:size=" + size +
                                ":rate=10:duration=12,format=rgb24[film];" + graph + "\" -map '[out]' -ss " +
                                std::to_string(atSeconds) + " -frames:v 1 -f rawvideo -pix_fmt rgb24 '" + raw + "'";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    std::ifstream in(raw, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), {});
    std::vector<Pixel> screen(static_cast<size_t>(width * height));
    EXPECT_EQ(bytes.size(), screen.size() * 3);
    for (size_t i = 0; i < screen.size() && i * 3 + 2 < bytes.size(); ++i) {
        const auto color = [&](size_t at) { return static_cast<double>(static_cast<uint8_t>(bytes[i * 3 + at])); };
        screen[i] = {color(0), color(1), color(2)};
    }
    return screen;
}

std::string script() {
    return std::string(kScript) +
           "Dialogue: 0,0:00:01.00,0:00:05.00,Default,,0,0,0,,Below {\\i1}slanted{\\i0} and {\\b1}bold\n"
           "Dialogue: 0,0:00:02.00,0:00:06.00,Default,,0,0,0,,Above it, for as long as the other\n"
           "Dialogue: 1,0:00:01.50,0:00:05.00,Sign,,0,0,0,,{\\pos(320,100)\\frz20}A sign\n"
           "Dialogue: 0,0:00:07.00,0:00:09.00,Sign,,0,0,0,,{\\move(0,0,600,300)\\fad(500,500)}It moves\n"
           "Dialogue: 0,0:00:10.00,0:00:11.00,Default,,0,0,0,,{\\p1}m 0 0 l 100 0 100 50 0 50{\\p0}\n";
}

TEST(SubtitleDrawer, DrawsTextAsLibassDoes) {
    const auto track = readTrack(writeFile("drawn.ass", script()));
    ASSERT_TRUE(track);
    struct Screen {
        int width;
        int height;
    };
    for (const auto& [width, height] : {Screen{640, 360}, Screen{1001, 563}, Screen{400, 400}}) {
        SubtitleDrawer drawer;
        Libass libass(script(), width, height);
        // In the order of the film, as what stood before decides where a line stands.
        for (const int64_t timeMs : {500, 1200, 2500, 5500, 7100, 8000, 10'500}) {
            const auto drawn = drawer.draw(track, timeMs, {width, height, 640, 360});
            EXPECT_EQ(drawn == nullptr, timeMs == 500) << timeMs;
            EXPECT_LE(farthest(seen(drawn, width, height), libass.draw(timeMs)), 4)
                << timeMs << " ms, " << width << "x" << height;
        }
    }
}

TEST(SubtitleDrawer, DrawsTextAsTheFfmpegCommandDoes) {
    const auto path = writeFile("reference.ass", script());
    const auto track = readTrack(path);
    ASSERT_TRUE(track);
    for (const double atSeconds : {1.2, 2.5, 8.0}) {
        SubtitleDrawer drawer;
        const auto drawn =
            seen(drawer.draw(track, static_cast<int64_t>(atSeconds * 1000), {640, 360, 640, 360}), 640, 360);
        const auto wanted = drawnByCommand("", "[film]subtitles=" + path + "[out]", atSeconds, 640, 360);
        // It has its own way to lay an edge over a picture.
        const double whole = meanDistance(seen(nullptr, 640, 360), wanted);
        EXPECT_GT(whole, 0.5) << atSeconds << ": there is something to see";
        EXPECT_LE(meanDistance(drawn, wanted), whole / 10) << atSeconds;
    }
}

class DrawnPictures : public testing::TestWithParam<AVCodecID> {};

TEST_P(DrawnPictures, LieWhereTheFfmpegCommandLaysThem) {
    const std::string name = avcodec_get_name(GetParam());
    const std::vector<PictureSubtitle> subtitles = {{1000, 3000, 100, 400, 64, 32}, {4000, 5000, 200, 40, 32, 16}};
    const bool isPgs = GetParam() == AV_CODEC_ID_HDMV_PGS_SUBTITLE;
    const auto path = subtitlePath(name + (isPgs ? ".sup" : ".mkv"));
    if (isPgs) {
        writePgsSubtitles(path, subtitles);
    } else {
        writePictureSubtitles(path, GetParam(), subtitles);
    }
    const auto track = readTrack(path);
    ASSERT_TRUE(track);
    constexpr SubtitleScreenSize kScreen{kPictureCanvasWidth, kPictureCanvasHeight, 0, 0};
    for (const double atSeconds : {2.0, 3.5, 4.5}) {
        const auto drawn = seen(SubtitleDrawer().draw(track, static_cast<int64_t>(atSeconds * 1000), kScreen),
                                kScreen.width, kScreen.height);
        const auto wanted =
            // It takes the first time of a file for 0.
            drawnByCommand(std::string(isPgs ? "-itsoffset 1 " : "") + "-canvas_size 720x576 -i '" + path + "'",
                           "[0:s]format=rgba[over];[film][over]overlay=format=rgb:eof_action=pass,format=rgb24[out]",
                           atSeconds, kScreen.width, kScreen.height);
        EXPECT_LE(farthest(drawn, wanted), 4) << atSeconds;
        const bool isAny = meanDistance(seen(nullptr, kScreen.width, kScreen.height), wanted) > 0.01;
        EXPECT_EQ(isAny, atSeconds != 3.5) << atSeconds;
    }
}

INSTANTIATE_TEST_SUITE_P(OfEachForm, DrawnPictures,
                         testing::Values(AV_CODEC_ID_DVD_SUBTITLE, AV_CODEC_ID_DVB_SUBTITLE,
                                         AV_CODEC_ID_HDMV_PGS_SUBTITLE),
                         [](const auto& of) { return std::string(avcodec_get_name(of.param)); });

// A font of this system under a name that it doesn't have here, so that it comes from the film or not at all.
std::string writeUnknownFont() {
    std::string path;
    if (FILE* const answer = popen("fc-match -f '%{file}' 'DejaVu Serif:bold'", "r")) {
        char text[500] = {};
        path = std::fgets(text, sizeof(text), answer) ? text : "";
        pclose(answer);
    }
    std::ifstream in(path, std::ios::binary);
    std::string font((std::istreambuf_iterator<char>(in)), {});
    const auto inTwoBytes = [](const std::string& name) {
        std::string wide;
        for (const char letter : name) {
            wide += '\0';
            wide += letter;
        }
        return wide;
    };
    int names = 0;
    for (const auto& [before, after] :
         {std::pair<std::string, std::string>{"DejaVu", "Nowher"}, {inTwoBytes("DejaVu"), inTwoBytes("Nowher")}}) {
        for (size_t at = font.find(before); at != std::string::npos; at = font.find(before, at)) {
            font.replace(at, before.size(), after);
            ++names;
        }
    }
    EXPECT_GT(names, 0) << path;
    return writeFile("nowhere.ttf", font);
}

TEST(SubtitleDrawer, TakesTheFontsThatAreAttachedToTheFilm) {
    const std::string text =
        std::string(kScript) +
        "Style: Film,Nowher Serif,60,&H00FFFFFF,&H000000FF,&H00000000,&H80000000,1,0,0,0,100,100,0,"
        "0,1,0,0,5,20,20,20,1\n";
    // Styles come before the events.
    std::string styled = text;
    const size_t events = styled.find("\n[Events]");
    const size_t style = styled.find("Style: Film");
    const std::string line = styled.substr(style);
    styled.erase(style);
    styled.insert(events, line);
    const std::string dialogue = "Dialogue: 0,0:00:01.00,0:00:05.00,Film,,0,0,0,,Serifs\n";
    const auto plain = convert(writeFile("font.ass", styled + dialogue), "without.mkv", "-c:s ass");
    const auto with = subtitlePath("with.mkv");
    const std::string command = "ffmpeg -nostdin -loglevel error -y -i '" + plain + "' -c copy -attach '" +
                                writeUnknownFont() + "' -metadata:s:t mimetype=application/x-truetype-font '" + with +
                                "'";
    ASSERT_EQ(std::system(command.c_str()), 0);
    constexpr SubtitleScreenSize kSize{640, 360, 640, 360};
    const auto drawnOf = [&](const std::shared_ptr<const SubtitleTrack>& track) {
        return seen(SubtitleDrawer().draw(track, 2000, kSize), 640, 360);
    };
    // The same letters from this system, under their own name.
    std::string known = styled;
    known.replace(known.find("Nowher Serif"), 12, "DejaVu Serif");
    const auto wanted = drawnOf(readTrack(writeFile("known.ass", known + dialogue)));
    EXPECT_GT(meanDistance(drawnOf(readTrack(plain)), wanted), 0.5) << "another one stands in for what isn't there";
    EXPECT_LE(farthest(drawnOf(readTrack(with)), wanted), 4) << "of a file beside the film";

    // The film's own, as the parser hands them on.
    AVFormatContext* input = nullptr;
    ASSERT_EQ(avformat_open_input(&input, with.c_str(), nullptr, nullptr), 0);
    SubtitleTracks tracks;
    tracks.onSubtitleStream(*input, *input->streams[0], 0);
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(input, packet) >= 0) {
        tracks.onSubtitlePacket(*packet);
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&input);
    tracks.choose(0);
    EXPECT_LE(farthest(drawnOf(tracks.current()), wanted), 4);
}

TEST(SubtitleDrawer, GivesTheSameObjectWhileItLooksTheSame) {
    const auto track = readTrack(writeFile("same.ass", script()));
    SubtitleDrawer drawer;
    const SubtitleScreenSize size{640, 360, 640, 360};
    const auto first = drawer.draw(track, 1100, size);
    ASSERT_TRUE(first);
    EXPECT_EQ(drawer.draw(track, 1400, size), first);
    EXPECT_NE(drawer.draw(track, 1600, size), first);
    EXPECT_EQ(drawer.draw(track, 6500, size), nullptr);
    EXPECT_NE(drawer.draw(track, 7200, size), drawer.draw(track, 7400, size));
}

TEST(SubtitleDrawer, DrawsWhatIsReadWhileItDraws) {
    const auto whole = readTrack(writeFile("whole.ass", script()));
    const auto growing = std::make_shared<SubtitleTrack>(whole->head());
    SubtitleDrawer drawer;
    SubtitleDrawer atOnce;
    const SubtitleScreenSize size{640, 360, 640, 360};
    size_t count = 0;
    for (const auto& event : whole->all()) {
        growing->add(*event);
        const int64_t timeMs = event->startMs + 400;
        const auto drawn = drawer.draw(growing, timeMs, size);
        ASSERT_TRUE(drawn) << ++count;
        EXPECT_EQ(*drawn, *atOnce.draw(whole, timeMs, size)) << timeMs;
    }
}

TEST(SubtitleDrawer, KeepsPlainTextInShapeWhereThePictureIsStretched) {
    const auto track = readTrack(writeFile("plain.srt", "1\n00:00:01,000 --> 00:00:02,000\nHHHHHHHH\n\n"));
    SubtitleDrawer drawer;
    const auto square = drawer.draw(track, 1500, {600, 600, 1920, 1080});
    const auto same = SubtitleDrawer().draw(track, 1500, {600, 600, 600, 600});
    ASSERT_TRUE(square && same);
    EXPECT_EQ(square->parts[0].width, same->parts[0].width);
    EXPECT_EQ(square->parts[0].height, same->parts[0].height);
}

// A track with two pixels of a picture from 1 to 2 s.
std::shared_ptr<SubtitleTrack> trackOfPicture(int x, int y, int canvasWidth, int canvasHeight) {
    auto track = std::make_shared<SubtitleTrack>(
        SubtitleTrack::Head{.isText = false, .isStyled = false, .script = "", .fonts = nullptr});
    SubtitleEvent event;
    event.startMs = 1000;
    event.endMs = 2000;
    event.canvasWidth = canvasWidth;
    event.canvasHeight = canvasHeight;
    event.bitmaps.push_back({x, y, 2, 1, {1, 2}, {0, 0xFF102030, 0x80405060}});
    event.bitmaps[0].palette.resize(256);
    track->add(event);
    return track;
}

TEST(SubtitleDrawer, PlacesPicturesOnTheScreenAsOnTheirCanvas) {
    const auto track = trackOfPicture(72, 288, 720, 576);
    SubtitleDrawer drawer;
    EXPECT_EQ(drawer.draw(track, 500, {1440, 1152, 0, 0}), nullptr);
    const auto drawn = drawer.draw(track, 1500, {1440, 1152, 0, 0});
    ASSERT_TRUE(drawn);
    SubtitleOverlay::Part part{144, 576, 4, 2, 2, 1, {0x10, 0x20, 0x30, 0xFF, 0x40, 0x50, 0x60, 0x80}};
    EXPECT_EQ(drawn->parts, std::vector<SubtitleOverlay::Part>{part});
    EXPECT_EQ(drawer.draw(track, 1600, {1440, 1152, 0, 0}), drawn);
    EXPECT_NE(drawer.draw(track, 1600, {720, 576, 0, 0}), drawn);
    EXPECT_EQ(drawer.draw(track, 2000, {720, 576, 0, 0}), nullptr);
}

TEST(SubtitleDrawer, TakesTheFilmsPictureForACanvasThatIsntTold) {
    const auto drawn = [](int canvasWidth, int canvasHeight, const SubtitleScreenSize& screen) {
        return SubtitleDrawer().draw(trackOfPicture(9, 9, canvasWidth, canvasHeight), 1500, screen);
    };
    const auto wanted = drawn(720, 576, {1000, 800, 0, 0});
    ASSERT_TRUE(wanted);
    const auto& part = wanted->parts[0];
    EXPECT_EQ((std::vector{part.x, part.y, part.width, part.height}), (std::vector{13, 13, 2, 1}));
    for (const auto& [width, height] : {std::pair{0, 0}, std::pair{0, 576}, std::pair{720, 0}}) {
        const auto placed = drawn(width, height, {1000, 800, 720, 576});
        ASSERT_TRUE(placed) << width << "x" << height;
        EXPECT_EQ(*placed, *wanted) << width << "x" << height;
        EXPECT_FALSE(drawn(width, height, {1000, 800, 0, 0}));
        EXPECT_FALSE(drawn(width, height, {1000, 800, 720, 0}));
        EXPECT_FALSE(drawn(width, height, {1000, 800, 0, 576}));
    }
}

TEST(SubtitleDrawer, LeavesOutThousandsOfLinesAtOnceAndSaysSoOnce) {
    std::string crowd = script();
    for (int i = 0; i < 501; ++i) {
        crowd += "Dialogue: 0,0:00:12.00,0:00:13.00,Default,,0,0,0,,.\n";
    }
    const auto track = readTrack(writeFile("crowd.ass", crowd));
    LogCapture log;
    SubtitleDrawer drawer;
    const SubtitleScreenSize size{640, 360, 640, 360};
    EXPECT_TRUE(drawer.draw(track, 1100, size));
    EXPECT_FALSE(drawer.draw(track, 12'100, size));
    EXPECT_FALSE(drawer.draw(track, 12'500, size));
    EXPECT_TRUE(drawer.draw(track, 1100, size));
    EXPECT_EQ(log.count("[TextDrawer]: draw, 501 lines at once are too many and aren't drawn\n"), 1);
}

TEST(SubtitleDrawer, DrawsNothingOfNothing) {
    SubtitleDrawer drawer;
    EXPECT_EQ(drawer.draw(nullptr, 0, {640, 360, 640, 360}), nullptr);
    EXPECT_EQ(drawer.draw(readTrack(writeFile("none.ass", script())), 1500, {0, 0, 640, 360}), nullptr);
    for (const auto& [width, height] : {std::pair{0, 360}, std::pair{640, 0}, std::pair{-1, -1}}) {
        EXPECT_EQ(drawer.draw(trackOfPicture(0, 0, 640, 360), 1500, {width, height, 640, 360}), nullptr);
    }
}

}  // namespace
}  // namespace kelp::test
