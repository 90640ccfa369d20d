// Subtitles in windows and sinks. The lines are coloured rectangles that the script draws, so no font has a say.

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "e2e/playback.h"
#include "kelp_player/subtitle_sink.h"
#include "support/temp_files.h"
#include "support/x_screen.h"

namespace kelp::test {
namespace {

constexpr int kPatienceMs = 20000;
constexpr Rgb kGray = {128, 128, 128};
constexpr Rgb kGreen = {0, 255, 0};
constexpr Rgb kBlue = {0, 0, 255};

// A script for a picture of 320x180; each event is a time, "0:00:01.00,0:00:02.00", and a text.
void writeScript(const std::string& path, const std::vector<std::pair<std::string, std::string>>& events) {
    std::ofstream script(path);
    script << "[Script Info]\nScriptType: v4.00+\nPlayResX: 320\nPlayResY: 180\n\n[V4+ Styles]\n"
              "Format: Name, Fontname, Fontsize, PrimaryColour\nStyle: Default,Sans,20,&H00FFFFFF\n\n"
              "[Events]\nFormat: Layer, Start, End, Style, Name, MarginL, MarginR, MarginV, Effect, Text\n";
    for (const auto& [time, text] : events) {
        script << "Dialogue: 0," << time << ",Default,,0,0,0,," << text << '\n';
    }
}

// Fills from (100, 50) to (200, 100); the colour as a script has it.
std::string rectangle(const std::string& color) {
    return "{\\an7\\pos(100,50)\\bord0\\shad0\\1c&H" + color + "&\\p1}m 0 0 l 100 0 100 50 0 50{\\p0}";
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class TextSink : public ExternSubtitleSink {
public:
    struct Call {
        int64_t timeMs;
        std::string text;
    };
    void onSubtitles(const ShownSubtitles& subtitles) override {
        std::lock_guard lock(mutex_);
        std::string text;
        for (const auto& line : subtitles.lines) {
            text += line.text;
        }
        calls_.push_back({subtitles.timeMs, text});
    }
    std::vector<Call> calls() {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    std::mutex mutex_;
    std::vector<Call> calls_;
};
#pragma GCC diagnostic pop

// All tests share one screen: SDL keeps the connection that it opened first.
class Subtitles : public testing::Test {
protected:
    static std::unique_ptr<XScreen>& sharedScreen() {
        static std::unique_ptr<XScreen> screen;
        return screen;
    }
    static void SetUpTestSuite() {
        if (!sharedScreen()) {
            sharedScreen() = std::make_unique<XScreen>(800, 600);
        }
    }

    // Track 0 is gray; behind it comes one track for each script.
    std::string makeFilm(const std::string& name, int seconds, int scripts) {
        std::string command = "-f lavfi -i color=c=0x808080:size=320x180:rate=25:duration=" + std::to_string(seconds);
        std::string maps = " -map 0";
        for (int i = 0; i < scripts; ++i) {
            command += " -i " + folder_.path(std::to_string(i) + ".ass");
            maps += " -map " + std::to_string(i + 1);
        }
        runFFmpeg(command + maps + " -c:v libx264 -preset veryfast -g 25 -pix_fmt yuv420p -c:s ass " +
                  folder_.path(name));
        return folder_.path(name);
    }
    std::string script(int number) const { return folder_.path(std::to_string(number) + ".ass"); }

    const TempFolder folder_;
    XScreen& screen_ = *sharedScreen();
};

TEST_F(Subtitles, GoToTheHostsSinkWithThePicturesOfTheirTime) {
    writeScript(script(0), {{"0:00:00.40,0:00:00.80", "{\\i1}one"}, {"0:00:01.20,0:00:01.60", "two"}});
    Playback playback;
    TextSink sink;
    playback.player().setAVSyncMode(SYNC_MASTER_VIDEO);
    playback.player().setOption("subtitle_track", "1");
    playback.player().setSubtitleSink(&sink);
    ASSERT_TRUE(playback.open(makeFilm("sink.mkv", 2, 1)));
    const auto tracks = playback.player().getTracks();
    ASSERT_EQ(tracks.size(), 2U);
    EXPECT_TRUE(tracks[1].isPlayable);
    EXPECT_TRUE(tracks[1].isPlayed);
    EXPECT_EQ(tracks[1].kind, TRACK_KIND_SUBTITLE);
    ASSERT_TRUE(playback.playToEnd());
    playback.player().stop();
    playback.player().setSubtitleSink(nullptr);
    const auto calls = sink.calls();
    // On a machine that is held up a line may come with a later picture, or the picture with none.
    ASSERT_FALSE(calls.empty());
    for (const auto& [timeMs, text] : calls) {
        const bool isOne = timeMs >= 400 && timeMs < 800;
        const bool isTwo = timeMs >= 1200 && timeMs < 1600;
        EXPECT_EQ(text, isOne ? "one" : isTwo ? "two" : "") << timeMs;
    }
}

class SubtitleWindow : public Subtitles {
protected:
    ~SubtitleWindow() override {
        playback_.reset();
        screen_.destroyWindows();
    }

    KelpPlayer& player() { return playback_->player(); }
    bool isShown(int x, int y, Rgb color) { return screen_.waitForPixel(x, y, color, 12, kPatienceMs); }

    std::unique_ptr<Playback> playback_;
};

TEST_F(SubtitleWindow, ShowsThemOverThePictureInItsOwnSizeAndChangesThemAtOnceWhilePaused) {
    writeScript(script(0), {{"0:00:00.00,0:00:20.00", rectangle("00FF00")}});
    writeScript(script(1), {{"0:00:00.00,0:00:20.00", rectangle("FF0000")}});
    const auto window = screen_.createWindow(0, 0, 640, 360);
    playback_ = std::make_unique<Playback>();
    player().setAVSyncMode(SYNC_MASTER_VIDEO);
    player().setOption("subtitle_track", "1");
    ASSERT_TRUE(playback_->open(makeFilm("window.mkv", 40, 2)));
    player().addWindow(WINDOW_TYPE_QT_WINID, reinterpret_cast<void*>(window), 640, 360);
    ASSERT_TRUE(player().play());
    // The canvas is half as large as the window.
    EXPECT_TRUE(isShown(204, 104, kGreen));
    EXPECT_TRUE(isShown(396, 196, kGreen));
    EXPECT_TRUE(isShown(195, 104, kGray));
    EXPECT_TRUE(isShown(404, 196, kGray));
    player().pause();
    EXPECT_TRUE(isShown(300, 150, kGreen));
    EXPECT_TRUE(player().selectTrack(TRACK_KIND_SUBTITLE, 2));
    EXPECT_TRUE(isShown(300, 150, kBlue)) << "another track";
    EXPECT_TRUE(player().selectTrack(TRACK_KIND_SUBTITLE, -1));
    EXPECT_TRUE(isShown(300, 150, kGray)) << "none";
    EXPECT_FALSE(player().selectTrack(TRACK_KIND_SUBTITLE, 0)) << "a track of another kind";
    EXPECT_TRUE(player().selectTrack(TRACK_KIND_SUBTITLE, 1));
    EXPECT_TRUE(isShown(300, 150, kGreen)) << "the first one again";
    player().seek(30000);
    EXPECT_TRUE(isShown(300, 150, kGray)) << "behind a seek to where nothing stands";
    player().seek(10000);
    EXPECT_TRUE(isShown(300, 150, kGreen)) << "behind a seek back";
    player().updateWindowSize(reinterpret_cast<void*>(window), 320, 180);
    EXPECT_TRUE(isShown(102, 52, kGreen)) << "in a smaller window";
    EXPECT_TRUE(isShown(198, 98, kGreen));
    EXPECT_TRUE(isShown(97, 52, kGray));
}

}  // namespace
}  // namespace kelp::test
