#include "stress/seek_stress.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "e2e/media.h"
#include "e2e/recording_sink.h"
#include "kelp_player/log.h"

namespace kelp::test {

namespace {

// Far longer than anything takes, on the slowest machine with the slowest tool.
constexpr int kPatienceMs = 60000;
constexpr int64_t kGuardUs = 150'000'000;
// By which an event may come late.
constexpr int64_t kEventLagUs = 10'000'000;

template <class Condition>
bool waitFor(Condition condition) {
    const int64_t end = steadyUs() + int64_t{kPatienceMs} * 1000;
    while (!condition()) {
        if (steadyUs() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
    return true;
}

}  // namespace

const std::vector<SeekStress::File>& SeekStress::files() {
    static const std::vector<File> table = {
        {"numbers.mp4", 20000, true, true, 0},
        {"numbers.mkv", 20000, true, true, 21},
        {"numbers.ts", 20000, true, true, 21},
        {"numbers.avi", 20000, true, true, 0},
        {"numbers_video.mp4", 12000, true, true, 0},
        {"numbers_sound.m4a", 12000, false, false, 0},
        {"numbers_sound_short.mp4", 12000, true, true, 0},
        {"numbers_picture_short.mp4", 12000, true, true, 0},
        {"numbers_half.mp4", 500, true, true, 0},
        {"numbers_one_key.mp4", 12000, true, true, 0},
        {"numbers_open_gop.mp4", 12000, true, true, 0},
        {"numbers_unknown.mkv", 8000, true, true, 21},
        {"subtitles.mkv", 20000, true, true, 21},
        {"small.mp4", 3000, true, false, 0},
        {"hevc.ts", 3000, true, false, 0},
        {"hevc_size_change.ts", 3000, true, false, 0},
        {"msmpeg4v3.avi", 3000, true, false, 0},
        {"mjpeg_alaw.mov", 3000, true, false, 0},
        {"vfr.mkv", 4000, true, false, 0},
        {"vorbis.ogg", 3000, false, false, 0},
        {"tone.mp3", 3000, false, false, 0},
        {"cut.avi", 2000, true, false, 0},
        {"flipped.ts", 3000, true, false, 0},
    };
    return table;
}

SeekStress::SeekStress(uint32_t seed) : seed_(seed) {
    lastSignUs_ = steadyUs();
    guard_ = std::thread([this] { guard(); });
}

SeekStress::~SeekStress() {
    playback_.reset();
    finished_ = true;
    guard_.join();
}

bool SeekStress::run(int seconds) {
    const int64_t end = steadyUs() + int64_t{seconds} * 1'000'000;
    while (steadyUs() < end) {
        if (!round()) {
            return false;
        }
        ++rounds_;
    }
    const SeekWatch::Totals totals = watch_.totals();
    std::printf(
        "%d rounds, %d actions, %d seeks: %d at the demuxer, %d in the packets, %d in the frames, %d parked of "
        "which %d were carried out\n",
        rounds_, actions_, totals.requests - totals.replayed, totals.atDemuxer, totals.inPackets, totals.inFrames,
        totals.parked, totals.replayed);
    return true;
}

// Not a distribution of the library's, whose numbers differ from one to the next.
int SeekStress::pick(int low, int high) {
    return low + static_cast<int>(random_() % static_cast<uint32_t>(high - low + 1));
}

void SeekStress::rest(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    lastSignUs_ = steadyUs();
}

bool SeekStress::round() {
    doing_ = "open";
    // Each round from its own seed: what depends on the machine in one of them doesn't reach the next.
    random_.seed(seed_ + static_cast<uint32_t>(rounds_) * 2654435761U);
    file_ = &files()[static_cast<size_t>(pick(0, static_cast<int>(files().size()) - 1))];
    if (!playback_ || chance(20)) {
        playback_.reset();
        sink_ = std::make_unique<NumberSink>();
        playback_ = std::make_unique<Playback>();
        Log::SetLevel(4);  // the first player has set another one
        playback_->player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(sink_.get()), 0, 0);
        playback_->player().setSubtitleSink(&subtitles_);
    }
    KelpPlayer& player = playback_->player();
    player.setOption("preset", chance(50) ? "recommended" : "standard");
    player.setOption("subtitle_file", chance(30) ? mediaPath("subtitles.mkv").c_str() : "none");
    player.setAVSyncMode(static_cast<SyncMasterMode>(pick(0, 2)));
    loopFromMs_ = chance(25) ? pick(0, file_->durationMs) : -1;
    if (loopFromMs_ >= 0) {
        player.setLoop(loopFromMs_, loopFromMs_ + pick(200, 4000));
    } else {
        player.clearLoop();
    }
    watch_.reset(file_->hasVideo);
    paused_ = false;
    sink_->clear();

    const int prepared = playback_->count(Happened::Prepared);
    player.loadFileAsync(mediaPath(file_->name).c_str(), chance(20) ? target() : 0);
    for (int i = chance(20) ? pick(1, 5) : 0; i > 0; --i) {
        seek();  // refused or not, as far as the load has come
    }
    if (chance(5)) {
        player.stop();
        return true;
    }
    const int early = chance(20) ? pick(1, 3) : 0;
    // An onPrepared of the round before may come after its stop: nothing can be played then, and the next one counts.
    bool playing = false;
    for (int times = prepared + 1; !playing; ++times) {
        doing_ = "wait for onPrepared";
        if (!playback_->waitFor(Happened::Prepared, kPatienceMs, times)) {
            return fault("the file isn't opened and played");
        }
        for (int i = early; i > 0; --i) {
            seek();
        }
        doing_ = "play";
        playing = player.play();
    }
    for (int parts = pick(1, 3); parts > 0; --parts) {
        for (int i = pick(1, 15); i > 0; --i) {
            act();
        }
        if (chance(25)) {
            break;  // and stop in the middle of it
        }
        if (!settle()) {
            return false;
        }
    }
    doing_ = "stop";
    player.setSpeed(1.0F);
    player.resume();  // a pause outlives a stop
    player.stop();
    lastSignUs_ = steadyUs();
    return checkPictures();
}

void SeekStress::act() {
    ++actions_;
    KelpPlayer& player = playback_->player();
    const int what = pick(1, 100);
    if (what <= 45) {
        doing_ = "seek";
        seek();
        rest(chance(50) ? 0 : pick(1, 150));
    } else if (what <= 55) {
        doing_ = "seeks in a row";
        for (int i = pick(2, 30); i > 0; --i) {
            seek();
            rest(pick(0, 12));
        }
    } else if (what <= 60) {
        doing_ = "seeks from two threads";
        seekFromTwoThreads();
    } else if (what <= 70) {
        doing_ = "pause";
        player.pause();
        paused_ = true;
    } else if (what <= 80) {
        doing_ = "resume";
        player.resume();
        paused_ = false;
    } else if (what <= 88) {
        doing_ = "speed";
        static constexpr std::array kSpeeds = {0.5F, 0.75F, 1.0F, 1.5F, 2.0F, 4.0F};
        player.setSpeed(kSpeeds.at(static_cast<size_t>(pick(0, 5))));
    } else if (what <= 91) {
        doing_ = "sync mode";
        player.setAVSyncMode(static_cast<SyncMasterMode>(pick(0, 2)));
    } else if (what <= 94) {
        doing_ = "subtitles";
        player.selectTrack(TRACK_KIND_SUBTITLE, pick(-1, 4));
    } else if (what <= 97) {
        doing_ = "steps";
        player.pause();
        paused_ = true;
        for (int i = pick(1, 8); i > 0; --i) {
            player.stepFrame(pick(-6, 6));
            rest(pick(0, 60));
        }
    } else if (what <= 98) {
        doing_ = "sound and a snapshot";
        static constexpr std::array kDevices = {"default", "System audio output device", "no such device"};
        player.setOption("audio_device", kDevices.at(static_cast<size_t>(pick(0, 2))));
        player.setMute(chance(50));
        player.takeSnapshot("/dev/null");
    } else {
        doing_ = "rest";
        rest(pick(1, 400));
    }
    lastSignUs_ = steadyUs();
}

void SeekStress::seek() {
    completedBefore_ = playback_->count(Happened::Completed);
    endsBefore_ = watch_.endsWithoutAFrame();
    playback_->player().seek(target());
}

void SeekStress::seekFromTwoThreads() {
    std::vector<int> targets;
    for (int i = pick(2, 10); i > 0; --i) {
        targets.push_back(target());
    }
    std::thread other([&] {
        for (const int ms : targets) {
            playback_->player().seek(ms);
            playback_->player().getCurrentTime();
        }
    });
    for (int i = pick(1, 5); i > 0; --i) {
        seek();
    }
    other.join();
    // The other thread's may have been the last one.
    seek();
}

int SeekStress::target() {
    const int kind = pick(1, 10);
    if (kind <= 5) {
        return pick(0, file_->durationMs);
    }
    if (kind <= 7) {
        return playback_->player().getCurrentTime() + pick(-100, 200);  // among the frames, perhaps
    }
    if (kind <= 8) {
        return playback_->player().getCurrentTime() + pick(0, 2500);  // among the packets
    }
    return kind == 9 ? file_->durationMs - pick(-2000, 1000) : pick(-1000, 40);
}

bool SeekStress::settle() {
    doing_ = "settle";
    KelpPlayer& player = playback_->player();
    // A pause holds back the end of the file, and so the end of some seeks: half of the seeks have to end during it.
    if (paused_ && chance(50)) {
        rest(pick(0, 300));
    }
    player.setSpeed(1.0F);
    player.resume();
    paused_ = false;
    const auto isOver = [&] { return playback_->count(Happened::Completed) > completedBefore_; };
    if (!waitFor([&] { return watch_.isIdle() || isOver() || watch_.endsWithoutAFrame() > endsBefore_; })) {
        return fault("a seek doesn't end");
    }
    lastSignUs_ = steadyUs();
    if (!waitFor([&] { return !isOneForgotten() || watch_.endsWithoutAFrame() > endsBefore_; })) {
        return fault("a request is forgotten");
    }
    lastSignUs_ = steadyUs();
    const int position = player.getCurrentTime();
    // There may be but one picture in a loop.
    if (loopFromMs_ < 0 && !waitFor([&] { return player.getCurrentTime() != position || isOver(); })) {
        return fault("playback stands still");
    }
    lastSignUs_ = steadyUs();
    return true;
}

// The end of the file ends the running seek, too, and drops what waits for it. An end long after that seek has ended
// by itself is no excuse.
bool SeekStress::isOneForgotten() {
    const SeekWatch::Forgotten forgotten = watch_.forgotten();
    if (!forgotten.is) {
        return false;
    }
    const auto events = playback_->events();
    return std::none_of(events.begin(), events.end(), [&](const Event& event) {
        return event.what == Happened::Completed && event.atUs >= forgotten.parkedAtUs &&
               event.atUs <= forgotten.endedAtUs + kEventLagUs;
    });
}

bool SeekStress::checkPictures() {
    if (!file_->isNumbered) {
        return true;
    }
    for (const NumberedFrame& frame : sink_->frames()) {
        const int64_t pts = file_->firstPtsMs + int64_t{frame.number} * kNumberedFrameMs;
        const bool leadsIn = frame.pts == loopFromMs_ && pts < loopFromMs_;  // to a turn without others for long
        if (frame.number < 0 || (frame.pts != pts && !leadsIn)) {
            return fault("at " + std::to_string(frame.pts) + " picture " + std::to_string(frame.number) + " is shown");
        }
    }
    return true;
}

bool SeekStress::fault(const std::string& what) {
    watch_.printTail();
    std::printf("FAULT in round %d with %s: %s; position %d, %zu events\n", rounds_, file_->name, what.c_str(),
                playback_->player().getCurrentTime(), playback_->events().size());
    return false;
}

void SeekStress::guard() {
    while (!finished_) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (steadyUs() - lastSignUs_ > kGuardUs) {
            watch_.printTail();
            std::printf("FAULT: nothing happens any more, last: %s\n", doing_.load());
            std::fflush(stdout);
            std::abort();
        }
    }
}

}  // namespace kelp::test
