#include "e2e/seeking.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <utility>

#include "e2e/media.h"
#include "e2e/recording_sink.h"
#include "e2e/sound.h"
#include "kelp_player/log.h"

namespace kelp::test {

namespace {

constexpr int64_t kCutMs = 500;
// Pictures that a slow machine may skip between two that are shown.
constexpr int kSkipped = 50;

}  // namespace

bool waitUntil(const std::function<bool()>& condition, int timeoutMs) {
    const int64_t end = steadyUs() + int64_t{timeoutMs} * 1000;
    while (!condition()) {
        if (steadyUs() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

Seeking::SoundGoesToAFile::SoundGoesToAFile() {
    if (!getenv("SDL_DISKAUDIOFILE")) {
        forgetSound();  // SDL chooses its driver once: it is the same one for all
    }
}

Seeking::Seeking(std::string file, SyncMasterMode master) : file_(std::move(file)) {
    Log::SetLevel(4);  // the first player has set another one
    player().setAVSyncMode(master);
    player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
}

bool Seeking::open() {
    if (!playback.open(mediaPath(file_), kPatienceMs)) {
        return false;
    }
    const Event prepared = playback.last(Happened::Prepared);
    hasVideo_ = prepared.a != 0;
    hasAudio_ = prepared.b != 0;
    return true;
}

bool Seeking::start() {
    if (!open() || !player().play()) {
        return false;
    }
    if (hasAudio_ && !playback.waitFor(Happened::FirstAudioFrame, kPatienceMs)) {
        return false;
    }
    if (!hasVideo_) {
        return true;
    }
    if (!playback.waitFor(Happened::FirstVideoFrame, kPatienceMs) || !sink.waitForFrames(1, kPatienceMs)) {
        return false;
    }
    const NumberedFrame first = sink.frames().front();
    firstPts_ = static_cast<int>(first.pts) - first.number * kNumberedFrameMs;
    return first.number >= 0;
}

bool Seeking::pause() {
    return player().pause() && sink.waitUntilStill(10, kPatienceMs);
}

bool Seeking::playUntil(int ms) {
    return waitUntil([&] { return player().getCurrentTime() >= ms; });
}

int Seeking::numberAt(int64_t pts) const {
    return static_cast<int>((pts - firstPts_) / kNumberedFrameMs);
}

void Seeking::seekTo(int target) {
    beginSeek(target);
    expectShown(target);
}

void Seeking::beginSeek(int target) {
    framesBefore_ = sink.frameCount();
    eventsBefore_ = playback.count(Happened::FirstVideoFrame);
    ASSERT_TRUE(player().seek(target));
}

void Seeking::expectShown(int target) {
    ASSERT_TRUE(playback.waitFor(Happened::FirstVideoFrame, kPatienceMs, eventsBefore_ + 1)) << "seek to " << target;
    const int64_t pts = playback.last(Happened::FirstVideoFrame).a;
    EXPECT_LE(pts, target);
    EXPECT_GT(pts + kNumberedFrameMs, target);

    const auto begin = static_cast<size_t>(framesBefore_);
    std::vector<NumberedFrame> frames;
    size_t at = begin;
    // On a machine that is slow enough the sound runs ahead, and the picture is left out as any late one.
    const std::string tooLate = "skip draw too late frame, pts " + std::to_string(pts) + ",";
    ASSERT_TRUE(waitUntil([&] {
        frames = sink.frames();
        for (at = begin; at < frames.size() && frames[at].pts != pts; ++at) {
        }
        return at < frames.size() || log.has(tooLate);
    })) << "seek to "
        << target;
    if (at == frames.size()) {
        return;
    }
    EXPECT_EQ(frames[at].number, numberAt(pts)) << "seek to " << target;
    // What was shown until then goes on from where it was.
    for (size_t i = begin; i < at; ++i) {
        EXPECT_EQ(frames[i].number, numberAt(frames[i].pts));
        if (i > 0) {
            EXPECT_GT(frames[i].number, frames[i - 1].number) << "seek to " << target;
            EXPECT_LE(frames[i].number, frames[i - 1].number + kSkipped) << "seek to " << target;
        }
    }
}

void Seeking::expectLast(int number) {
    waitUntil([&] { return sink.frameCount() > framesBefore_ && sink.shown().number == number; });
    EXPECT_EQ(sink.shown().number, number);
}

SeekCounts Seeking::counts() {
    SeekCounts counts;
    const auto holds = [](const std::string& line, const char* text) { return line.find(text) != std::string::npos; };
    for (const std::string& line : log.lines()) {
        counts.inFrames += holds(line, "[VideoPlayThread], clearBuffer, frame pts:") && holds(line, " found\n");
        counts.inPackets += holds(line, "[VideoDecodeThread]: onSeek,") && holds(line, "flush:0");
        counts.atDemuxer += holds(line, "[StreamParser]: processSeekRequest, seekPos:");
        counts.parked += holds(line, "now is seeking...");
    }
    return counts;
}

bool Seeking::hasReplayBeenOutrun() {
    int replayed = -1;
    for (const auto& line : log.lines()) {
        int target = 0;
        const auto seek = line.find("[PlayTask]: seek, ");
        const auto replay = line.find("processBufferedSeekRequest, startSeek ");
        if (replay != std::string::npos &&
            std::sscanf(line.c_str() + replay, "processBufferedSeekRequest, startSeek seekTimeMs:%d", &replayed) == 1) {
            continue;
        }
        if (seek != std::string::npos &&
            std::sscanf(line.c_str() + seek, "[PlayTask]: seek, seekTimeMs:%d", &target) == 1) {
            if (replayed >= 0 && target != replayed) {
                return true;
            }
            replayed = -1;
        }
    }
    return false;
}

bool Seeking::isSeeking() {
    const auto lines = log.lines();
    bool ended = false;
    // From the end: what came last, the beginning of a seek or its end.
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        const auto holds = [&](const char* text) { return line->find(text) != std::string::npos; };
        if (holds("now is seeking...")) {
            return true;  // the end of the seek before it has not come to it yet
        }
        if (holds("[PlayTask]: seek, ") || holds("processBufferedSeekRequest, startSeek")) {
            return !ended;
        }
        if (holds("[PlayTask]: onFirstVideoFrame") || holds("[VideoPlayThread], clearBuffer, frame")) {
            ended = true;
        }
    }
    return false;
}

Recording::Recording(const std::string& name)
    : path_((std::filesystem::temp_directory_path() / ("kelp_seek_" + name + "_" + std::to_string(getpid()) + ".raw"))
                .string()) {
    recordSoundTo(path_);
}

Recording::~Recording() {
    forgetSound();
    std::filesystem::remove(path_);
}

int64_t Recording::afterLastCut() const {
    const auto all = moments();
    for (size_t i = all.size(); i-- > 1;) {
        if (std::llabs(all[i].streamMs - all[i - 1].streamMs) > kCutMs) {
            return all[i].streamMs;
        }
    }
    return -1;
}

}  // namespace kelp::test
