// What a recorder makes of a playback in real time.

#include <gmock/gmock.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "e2e/child_process.h"
#include "e2e/managed_playback.h"
#include "e2e/media.h"
#include "e2e/playback.h"
#include "e2e/rtsp_server.h"
#include "kelp_player/recorder.h"
#include "support/temp_files.h"

namespace kelp::test {
namespace {

constexpr int kHashField = 6;  // of a line of ffmpeg's framehash

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class RecordedFiles final : public RecorderObserver {
public:
    void onFileBegun(const std::string& path) override { note(begun_, path); }
    void onFileEnded(const std::string& path, int64_t) override { note(ended_, path); }
    void onRecordingFailed(const std::string& path, const std::string& reason) override {
        note(failures_, path + ": " + reason);
    }

    bool waitForBegun(size_t count) { return waitFor(begun_, count); }
    bool waitForEnded(size_t count) { return waitFor(ended_, count); }
    std::vector<std::string> ended() {
        std::lock_guard lock(mutex_);
        return ended_;
    }
    std::vector<std::string> failures() {
        std::lock_guard lock(mutex_);
        return failures_;
    }

private:
    void note(std::vector<std::string>& list, const std::string& text) {
        std::lock_guard lock(mutex_);
        list.push_back(text);
        changed_.notify_all();
    }
    bool waitFor(const std::vector<std::string>& list, size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(60), [&] { return list.size() >= count; });
    }

    std::mutex mutex_;  // guards the lists
    std::condition_variable changed_;
    std::vector<std::string> begun_;
    std::vector<std::string> ended_;
    std::vector<std::string> failures_;
};
#pragma GCC diagnostic pop

// Hashes of a stream's packets, in their order.
std::vector<std::string> packetsOf(const std::string& path, const std::string& stream) {
    std::istringstream lines(
        outputOf({"ffmpeg", "-v", "error", "-i", path, "-map", "0:" + stream, "-c", "copy", "-f", "framehash", "-"}));
    std::vector<std::string> packets;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line[0] != '#') {
            std::istringstream fields(line);
            std::string field;
            for (int i = 0; i < kHashField; ++i) {
                std::getline(fields, field, ',');
            }
            packets.push_back(field);
        }
    }
    return packets;
}

TEST(Recording, HoldsEachPacketOfAFilmThatIsPlayed) {
    const TempFolder folder;
    RecordedFiles files;
    Recorder recorder(&files);
    Playback playback;
    playback.player().setPacketSink(&recorder);
    ASSERT_TRUE(recorder.start(folder.path("film.mp4")));
    ASSERT_TRUE(playback.open(mediaPath("small.mp4")));
    ASSERT_TRUE(playback.playToEnd());
    EXPECT_GT(playback.player().getStatistics().packetSinkMs, 0);
    playback.player().stop();
    recorder.stop();
    playback.player().setPacketSink(nullptr);
    EXPECT_THAT(files.failures(), testing::IsEmpty());
    ASSERT_EQ(files.ended().size(), 1U);
    for (const char* const stream : {"v", "a"}) {
        const auto packets = packetsOf(folder.path("film.mp4"), stream);
        EXPECT_GE(packets.size(), 75U);
        EXPECT_EQ(packets, packetsOf(mediaPath("small.mp4"), stream));
    }
}

TEST(Recording, GoesOnInANewFileBehindASeek) {
    const TempFolder folder;
    RecordedFiles files;
    Recorder recorder(&files);
    Playback playback;
    ASSERT_TRUE(playback.open(mediaPath("long.mp4")));
    ASSERT_TRUE(playback.player().play());
    ASSERT_TRUE(playback.waitFor(Happened::FirstVideoFrame, 20000));
    ASSERT_TRUE(recorder.start(folder.path("film.mkv")));
    playback.player().setPacketSink(&recorder);
    ASSERT_TRUE(files.waitForBegun(1));
    ASSERT_TRUE(playback.player().seek(100'000));
    ASSERT_TRUE(files.waitForBegun(2));
    playback.player().setPacketSink(nullptr);
    recorder.stop();
    playback.player().stop();
    EXPECT_THAT(files.ended(), testing::ElementsAre(folder.path("film.mkv"), folder.path("film-2.mkv")));
    for (const auto& file : files.ended()) {
        EXPECT_GT(packetsOf(file, "v").size(), 0U);
    }
}

TEST(Recording, GoesOnInANewFileWhenACameraComesBack) {
    RtspServer server({{"loop", mediaPath("short.mp4")}});
    const TempFolder folder;
    RecordedFiles files;
    Recorder recorder(&files);
    ASSERT_TRUE(recorder.start(folder.path("camera.mp4")));
    ManagedPlayback playback;
    playback.player().setOption("closed_live_source", "failed");
    playback.player().setOption("retry_when_failed", "200");
    playback.player().setPacketSink(&recorder);
    ASSERT_TRUE(playback.open(server.url("loop")));
    playback.player().start();
    ASSERT_TRUE(files.waitForBegun(1));
    server.kill();
    ASSERT_TRUE(files.waitForEnded(1));
    server.start();
    ASSERT_TRUE(files.waitForBegun(2));
    EXPECT_TRUE(recorder.isRecording());
    ASSERT_TRUE(playback.waitFor("picture"));
    recorder.stop();
    EXPECT_GE(playback.player().getStatistics().restarts, 1);
    playback.player().setPacketSink(nullptr);
    playback.player().stop();
    EXPECT_THAT(files.failures(), testing::IsEmpty());
    EXPECT_THAT(files.ended(), testing::ElementsAre(folder.path("camera.mp4"), folder.path("camera-2.mp4")));
    for (const auto& file : files.ended()) {
        EXPECT_GT(packetsOf(file, "v").size(), 0U);
    }
}

}  // namespace
}  // namespace kelp::test
