#include "e2e/playback.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ostream>

#include "e2e/recording_sink.h"

namespace kelp::test {

std::ostream& operator<<(std::ostream& out, const Event& event) {
    static constexpr std::array kNames = {"SizeUpdated",     "Prepared",        "Failed",    "FirstPacket",
                                          "FirstVideoFrame", "FirstAudioFrame", "Completed", "DurationUpdated"};
    return out << kNames.at(static_cast<size_t>(event.what)) << "(" << event.a << ", " << event.b << ", " << event.c
               << ")";
}

Playback::Playback() : player_(std::make_shared<KelpPlayer>()) {
    if (!player_->init(this)) {
        std::fprintf(stderr, "the player can't be initialised\n");
        std::abort();
    }
}

Playback::~Playback() {
    player_->stop();
    player_->release();
}

bool Playback::open(const std::string& path, int timeoutMs) {
    const int prepared = count(Happened::Prepared);
    const int failed = count(Happened::Failed);
    if (!player_->loadFileAsync(path.c_str(), 0)) {
        return false;
    }
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        return countLocked(Happened::Prepared) > prepared || countLocked(Happened::Failed) > failed;
    });
    return countLocked(Happened::Prepared) > prepared;
}

bool Playback::playToEnd(int timeoutMs) {
    const int completed = count(Happened::Completed);
    return player_->play() && waitFor(Happened::Completed, timeoutMs, completed + 1);
}

std::vector<Event> Playback::events() {
    std::lock_guard lock(mutex_);
    return events_;
}

int Playback::countLocked(Happened what) const {
    return static_cast<int>(
        std::count_if(events_.begin(), events_.end(), [&](const Event& event) { return event.what == what; }));
}

int Playback::count(Happened what) {
    std::lock_guard lock(mutex_);
    return countLocked(what);
}

bool Playback::waitFor(Happened what, int timeoutMs, int times) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return countLocked(what) >= times; });
}

Event Playback::first(Happened what) {
    for (const auto& event : events()) {
        if (event.what == what) {
            return event;
        }
    }
    std::fprintf(stderr, "no such event came\n");
    std::abort();
}

Event Playback::last(Happened what) {
    const auto all = events();
    for (auto event = all.rbegin(); event != all.rend(); ++event) {
        if (event->what == what) {
            return *event;
        }
    }
    std::fprintf(stderr, "no such event came\n");
    std::abort();
}

void Playback::note(Happened what, int a, int b, int c) {
    std::lock_guard lock(mutex_);
    events_.push_back({what, a, b, c, steadyUs()});
    changed_.notify_all();
}

void Playback::onVideoSizeUpdated(std::shared_ptr<KelpPlayer>, int width, int height, int rotate) {
    note(Happened::SizeUpdated, width, height, rotate);
}
void Playback::onPrepared(std::shared_ptr<KelpPlayer>, bool hasVideo, bool hasAudio) {
    note(Happened::Prepared, hasVideo, hasAudio);
}
void Playback::onFailed(std::shared_ptr<KelpPlayer>, int errorType, int extraData) {
    note(Happened::Failed, errorType, extraData);
}
void Playback::onFirstPacket(std::shared_ptr<KelpPlayer>, int ptsMs) {
    note(Happened::FirstPacket, ptsMs);
}
void Playback::onFirstVideoFrame(std::shared_ptr<KelpPlayer>, int ptsMs) {
    note(Happened::FirstVideoFrame, ptsMs);
}
void Playback::onFirstAudioFrame(std::shared_ptr<KelpPlayer>, int ptsMs) {
    note(Happened::FirstAudioFrame, ptsMs);
}
void Playback::onCompleted(std::shared_ptr<KelpPlayer>) {
    note(Happened::Completed);
}
void Playback::onDurationUpdated(std::shared_ptr<KelpPlayer>, int durationMs) {
    note(Happened::DurationUpdated, durationMs);
}

}  // namespace kelp::test
