// Subtitles in windows and sinks. The lines are coloured rectangles that the script draws, so no font has a say.

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "e2e/media.h"
#include "e2e/playback.h"
#include "kelp_player/subtitle_sink.h"
#include "support/deaf_port.h"
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
    // Whether it is told of this text, and of no other one behind it.
    bool waitFor(const std::string& text) {
        for (int i = 0; i < kPatienceMs / 10; ++i) {
            if (const auto told = calls(); !told.empty() && told.back().text == text) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
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

TEST_F(Subtitles, GoWithTheirPicturesAtEverySpeed) {
    writeScript(script(0), {{"0:00:00.20,0:00:00.60", "one"}, {"0:00:01.00,0:00:01.40", "two"}});
    const auto film = makeFilm("speeds.mkv", 2, 1);
    size_t told = 0;  // on a machine that is held up perhaps not at all of them
    for (const float speed : {0.5F, 2.0F, 4.0F}) {
        Playback playback;
        TextSink sink;
        playback.player().setOption("timing", "exact");
        playback.player().setOption("subtitle_track", "1");
        playback.player().setSubtitleSink(&sink);
        ASSERT_TRUE(playback.open(film));
        playback.player().setSpeed(speed);
        ASSERT_TRUE(playback.playToEnd());
        playback.player().stop();
        playback.player().setSubtitleSink(nullptr);
        for (const auto& [timeMs, text] : sink.calls()) {
            ++told;
            const bool isOne = timeMs >= 200 && timeMs < 600;
            const bool isTwo = timeMs >= 1000 && timeMs < 1400;
            EXPECT_EQ(text, isOne ? "one" : isTwo ? "two" : "") << timeMs << " at " << speed;
        }
    }
    EXPECT_GT(told, 0U);
}

class SecondFile : public Subtitles {
protected:
    SecondFile() {
        writeScript(script(0), {{"0:00:00.00,0:00:20.00", "own"}});
        film_ = makeFilm("film.mkv", 2, 1);
        beside_ = folder_.path("beside.srt");
        std::ofstream(beside_) << "1\n00:00:00,000 --> 00:00:20,000\nbeside\n\n";
    }

    // How many tracks there are, and the number of the subtitles that are played, -1 for none.
    std::pair<size_t, int> load(const std::string& track, const std::string& file) {
        Playback playback;
        playback.player().setOption("subtitle_track", track.c_str());
        playback.player().setOption("subtitle_file", file.c_str());
        EXPECT_TRUE(playback.open(film_)) << file;
        const auto tracks = playback.player().getTracks();
        int played = -1;
        for (const Track& each : tracks) {
            played = each.kind == TRACK_KIND_SUBTITLE && each.isPlayed ? each.number : played;
        }
        return {tracks.size(), played};
    }

    std::string film_;    // video 0, subtitles 1
    std::string beside_;  // so 2
};

TEST_F(SecondFile, IsShownUnlessAnotherTrackIsChosen) {
    using Loaded = std::pair<size_t, int>;
    EXPECT_EQ(load("auto", "none"), Loaded(2, -1));
    EXPECT_EQ(load("auto", beside_), Loaded(3, 2));
    EXPECT_EQ(load("2", beside_), Loaded(3, 2));
    EXPECT_EQ(load("1", beside_), Loaded(3, 1));
    EXPECT_EQ(load("none", beside_), Loaded(3, -1));
    EXPECT_EQ(load("0", beside_), Loaded(3, 2)) << "no subtitles: as auto";
    EXPECT_EQ(load("7", beside_), Loaded(3, 2)) << "no track: as auto";
    EXPECT_EQ(load("2", "none"), Loaded(2, -1));
}

TEST_F(SecondFile, HurtsNothingWhereItCantBeRead) {
    using Loaded = std::pair<size_t, int>;
    const std::string noise = folder_.path("noise.srt");
    std::ofstream(noise) << "neither this nor that";
    std::filesystem::create_directory(folder_.path("folder.srt"));
    const std::string pipe = folder_.path("pipe.srt");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    for (const std::string& file :
         {folder_.path("missing.srt"), noise, folder_.path("folder.srt"), pipe, "file:" + pipe, "cache:file:" + pipe,
          "concat:" + beside_ + "|" + pipe, std::string("pipe:0"), std::string("/dev/zero"),
          std::string("http://127.0.0.1:1/none.srt"), std::string("nonsense://x"), mediaPath("small.mp4")}) {
        EXPECT_EQ(load("1", file), Loaded(2, 1)) << file;
        EXPECT_EQ(load("auto", file), Loaded(2, -1)) << file;
    }
    const std::string film = std::exchange(film_, mediaPath("missing.mp4"));
    Playback playback;
    playback.player().setOption("subtitle_file", beside_.c_str());
    EXPECT_FALSE(playback.open(film_)) << "subtitles alone are no film";
    playback.player().stop();
    EXPECT_TRUE(playback.open(film)) << "and the next one has them";
    EXPECT_EQ(playback.player().getTracks().size(), 3U);
}

TEST_F(SecondFile, IsLeftByAStopWhereItDoesNotCome) {
    DeafPort port;
    ASSERT_TRUE(port.isOpen());
    Playback playback;
    playback.player().setOption("subtitle_file", port.url("film.srt").c_str());
    ASSERT_TRUE(playback.player().loadFileAsync(film_.c_str(), 0));
    bool isAsked = false;
    for (int i = 0; !isAsked && i < kPatienceMs / 10; ++i) {
        isAsked = port.wasCalled();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(isAsked);
    playback.player().stop();
    playback.player().setOption("subtitle_file", "none");
    EXPECT_TRUE(playback.open(film_));
    EXPECT_EQ(playback.count(Happened::Prepared), 1) << "of the second load alone";
    EXPECT_EQ(playback.count(Happened::Failed), 0);
}

TEST_F(SecondFile, TakesTurnsWithTheFilmsOwnWhileItPlays) {
    Playback playback;
    TextSink sink;
    KelpPlayer& player = playback.player();
    player.setAVSyncMode(SYNC_MASTER_VIDEO);
    player.setOption("seek", "exact");
    player.setOption("subtitle_file", beside_.c_str());
    player.setSubtitleSink(&sink);
    ASSERT_TRUE(playback.open(film_));
    ASSERT_TRUE(player.play());
    EXPECT_TRUE(sink.waitFor("beside"));
    player.pause();
    player.seek(500);
    EXPECT_TRUE(player.selectTrack(TRACK_KIND_SUBTITLE, 1));
    EXPECT_TRUE(sink.waitFor("own"));
    EXPECT_TRUE(player.selectTrack(TRACK_KIND_SUBTITLE, 2));
    EXPECT_TRUE(sink.waitFor("beside"));
    EXPECT_TRUE(player.selectTrack(TRACK_KIND_SUBTITLE, -1));
    EXPECT_TRUE(sink.waitFor(""));
    EXPECT_FALSE(player.selectTrack(TRACK_KIND_SUBTITLE, 3));
    EXPECT_TRUE(player.selectTrack(TRACK_KIND_SUBTITLE, 2));
    EXPECT_TRUE(sink.waitFor("beside"));
    player.stop();
    EXPECT_TRUE(sink.waitFor(""));
    player.setSubtitleSink(nullptr);
}

// The text is damaged in the middle of the file, in every second line.
TEST_F(Subtitles, OfADamagedTrackLeaveTheFilmAlone) {
    const std::string text = folder_.path("long.srt");
    {
        std::ofstream out(text);
        for (int i = 0; i < 20; ++i) {
            char line[100];
            std::snprintf(line, sizeof(line), "%d\n00:00:0%d,%03d --> 00:00:0%d,%03d\ngood line\n\n", i + 1, i / 10,
                          i % 10 * 100, i / 10, i % 10 * 100 + 90);
            out << line;
        }
    }
    runFFmpeg("-f lavfi -i color=c=0x808080:size=320x180:rate=25:duration=2 -i " + text +
              " -map 0 -map 1 -c:v libx264 -preset veryfast -g 25 -pix_fmt yuv420p -c:s srt " +
              folder_.path("whole.mkv"));
    std::string bytes;
    {
        std::ifstream in(folder_.path("whole.mkv"), std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(in), {});
    }
    int number = 0;
    for (size_t at = bytes.find("good line"); at != std::string::npos; at = bytes.find("good line", at + 9)) {
        if (++number % 2 == 0) {
            bytes.replace(at, 9, std::string("{\\p9}\xFF\xFE\x00<", 9));
        }
    }
    ASSERT_EQ(number, 20);
    std::ofstream(folder_.path("damaged.mkv"), std::ios::binary) << bytes;
    Playback playback;
    TextSink sink;
    playback.player().setOption("timing", "exact");
    playback.player().setOption("subtitle_track", "1");
    playback.player().setSubtitleSink(&sink);
    ASSERT_TRUE(playback.open(folder_.path("damaged.mkv")));
    EXPECT_TRUE(playback.playToEnd());
    EXPECT_EQ(playback.count(Happened::Failed), 0);
    playback.player().stop();
    playback.player().setSubtitleSink(nullptr);
    EXPECT_TRUE(std::ranges::any_of(sink.calls(), [](const auto& call) { return call.text == "good line"; }));
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
