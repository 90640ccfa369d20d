#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kelp_player/subtitle_sink.h"
#include "subtitle/subtitle_files.h"
#include "subtitle/subtitle_screen.h"

namespace kelp {

class SubtitleScreenPeer {
public:
    static void work(SubtitleScreen& screen) { screen.work(); }
    static void tellEnd(SubtitleScreen& screen) { screen.tellEnd(); }
    // Whether the thread would have been woken since the last question.
    static bool isAsked(SubtitleScreen& screen) { return screen.asked_.exchange(0) != 0; }
};

namespace test {

constexpr int kNumber = 2;
constexpr SubtitleScreenSize kSize{640, 360, 640, 360};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
// Writes down what it is told: the time, the texts, and how many pictures.
class WritingSink : public ExternSubtitleSink {
public:
    void onSubtitles(const ShownSubtitles& subtitles) override {
        std::lock_guard lock(mutex_);
        std::string text = std::to_string(subtitles.timeMs);
        for (const auto& line : subtitles.lines) {
            text += " " + line.text;
        }
        if (!subtitles.pictures.empty()) {
            text += " +" + std::to_string(subtitles.pictures.size());
        }
        calls_.push_back(text);
        last = subtitles;
        for (auto& picture : last.pictures) {
            picture.pixels = nullptr;
        }
        told_.notify_all();
        if (onCall) {
            onCall();
        }
    }
    SubtitlePictureSize pictureSize() override { return size; }

    std::vector<std::string> take() {
        std::lock_guard lock(mutex_);
        return std::exchange(calls_, {});
    }
    bool waitFor(const std::string& call) {
        std::unique_lock lock(mutex_);
        return told_.wait_for(lock, std::chrono::seconds(20), [&] { return std::ranges::count(calls_, call) > 0; });
    }

    SubtitlePictureSize size;
    ShownSubtitles last;
    std::function<void()> onCall;

private:
    std::mutex mutex_;
    std::condition_variable told_;
    std::vector<std::string> calls_;
};
#pragma GCC diagnostic pop

// A screen without its thread, of a track with three lines: each stands for every second second, and the last one
// moves.
class SubtitleScreenTest : public testing::Test {
protected:
    SubtitleScreenTest() {
        const std::string script = std::string(kScript) +
                                   "Dialogue: 0,0:00:01.00,0:00:02.00,Default,,0,0,0,,one\n"
                                   "Dialogue: 0,0:00:03.00,0:00:04.00,Default,,0,0,0,,two\n"
                                   "Dialogue: 0,0:00:05.00,0:00:06.00,Default,,0,0,0,,{\\move(0,0,600,300)}moves\n";
        track = readTrack(writeFile("screen.ass", script));
        tracks->add(kNumber, track);
    }

    void work() { SubtitleScreenPeer::work(screen); }
    bool isAsked() { return SubtitleScreenPeer::isAsked(screen); }
    void show(int64_t timeMs) {
        screen.shown(timeMs);
        work();
    }

    std::shared_ptr<SubtitleTrack> track;
    std::shared_ptr<SubtitleTracks> tracks = std::make_shared<SubtitleTracks>();
    SubtitleScreen screen{tracks};
};

}  // namespace test
}  // namespace kelp
