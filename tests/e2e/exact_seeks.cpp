#include "e2e/exact_seeks.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>

#include "e2e/media.h"
#include "e2e/packet_facts.h"
#include "e2e/recording_sink.h"
#include "e2e/sound.h"
#include "kelp_player/log.h"

namespace kelp::test {

namespace {

constexpr int kPatienceMs = 40000;

int below(std::mt19937& random, int64_t limit) {
    return static_cast<int>(random() % static_cast<uint32_t>(std::max<int64_t>(limit, 1)));
}

}  // namespace

ExactSeeks::ExactSeeks(const ExactFile& file) : file_(file), times_(pictureTimes(mediaPath(file.name))) {
    forgetSound();  // before the first player
    Log::SetLevel(0);
    player().setOption("preset", "recommended");
    player().setAVSyncMode(SYNC_MASTER_AUDIO);
    player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink_), 0, 0);
}

bool ExactSeeks::open() {
    return !times_.empty() && playback_.open(mediaPath(file_.name), kPatienceMs);
}

bool ExactSeeks::start() {
    // Sought from the start, as without a seek a decoder may hold back the first of slides for a minute.
    if (!open() || !player().seek(0) || !player().play() ||
        !playback_.waitFor(Happened::FirstVideoFrame, kPatienceMs) || !sink_.waitForFrames(1, kPatienceMs)) {
        return false;
    }
    durationMs_ = player().getDuration();
    return true;
}

int64_t ExactSeeks::holderOf(int target) {
    target = std::clamp(target, 0, std::max(player().getDuration(), 1));
    const auto behind = std::upper_bound(times_.begin(), times_.end(), target);
    return behind == times_.begin() ? times_.front() : *(behind - 1);
}

int ExactSeeks::target(std::mt19937& random) {
    const int kind = below(random, 10);
    if (kind < 5) {
        return below(random, durationMs_ + 300);
    }
    if (kind < 7) {
        const auto at = static_cast<size_t>(below(random, static_cast<int64_t>(times_.size())));
        return static_cast<int>(times_[at]) + below(random, 3) - 1;
    }
    return static_cast<int>(sink_.shown().pts) + below(random, kind < 9 ? 150 : 2500);
}

std::string ExactSeeks::seekTo(int target) {
    const int framesBefore = frames();
    const int eventsBefore = events();
    if (!player().seek(target)) {
        return "it is refused";
    }
    const int64_t wanted = holderOf(target);
    if (!playback_.waitFor(Happened::FirstVideoFrame, kPatienceMs, eventsBefore + 1)) {
        return "it doesn't end";
    }
    const int told = playback_.last(Happened::FirstVideoFrame).a;
    if (told != wanted) {
        return "to " + std::to_string(target) + " in picture " + std::to_string(wanted) + ": " + std::to_string(told) +
               " is told";
    }
    return expectDrawn(target, framesBefore);
}

std::string ExactSeeks::expectLast(int target, int framesBefore) {
    const int64_t wanted = holderOf(target);
    const int64_t end = steadyUs() + int64_t{kPatienceMs} * 1000;
    while (events() == 0 || playback_.last(Happened::FirstVideoFrame).a != wanted) {
        if (steadyUs() > end) {
            return "it isn't told of";
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    // And no other one comes behind it.
    const int told = events();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return events() == told ? expectDrawn(target, framesBefore) : "another one is told of behind it";
}

std::string ExactSeeks::expectDrawn(int target, int framesBefore) {
    const int64_t wanted = holderOf(target);
    const std::string asked = "to " + std::to_string(target) + " in picture " + std::to_string(wanted);
    const int64_t end = steadyUs() + int64_t{kPatienceMs} * 1000;
    const auto number =
        static_cast<int>(std::llround(static_cast<double>(wanted - times_.front()) * file_.rate / 1000));
    while (steadyUs() < end) {
        // Where the same picture was there before, no other one comes.
        const auto frames = sink_.frames();
        for (size_t i = static_cast<size_t>(std::max(framesBefore - 1, 0)); i < frames.size(); ++i) {
            if (frames[i].pts != wanted) {
                continue;
            }
            return frames[i].number == number ? ""
                                              : asked + ": number " + std::to_string(frames[i].number) +
                                                    " is drawn for " + std::to_string(number);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return asked + ": it isn't shown, but " + std::to_string(sink_.shown().pts);
}

}  // namespace kelp::test
