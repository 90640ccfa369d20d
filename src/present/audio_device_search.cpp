#include "present/audio_device_search.h"

#include <system_error>
#include <utility>

namespace kelp {

constexpr int kAgainMs = 2000;

AudioDeviceSearch::~AudioDeviceSearch() {
    end();
}

void AudioDeviceSearch::begin(AudioOutputSpec spec, std::shared_ptr<IAudioOutput> lost) {
    std::lock_guard lock(threadMutex_);
    spec_ = spec;
    lost_ = std::move(lost);
    start();
}

// Where no thread is to be had now, the next `take` tries again.
void AudioDeviceSearch::start() {
    if (isStarted_ || hasEnded_) {
        return;
    }
    try {
        isStarted_ = startThread();
    } catch (const std::system_error&) {
        isStarted_ = false;
    }
}

void AudioDeviceSearch::waitForFirst(int ms) {
    firstTry_.forMs(ms, [this] { return hasTried_.load(); });
}

std::shared_ptr<IAudioOutput> AudioDeviceSearch::take() {
    std::lock_guard lock(threadMutex_);
    auto output = found_.exchange(nullptr);
    if (output) {
        joinThread();
        isStarted_ = false;
    } else {
        start();
    }
    return output;
}

void AudioDeviceSearch::end() {
    prepareStop();
    std::lock_guard lock(threadMutex_);
    hasEnded_ = true;
    joinThread();
    for (const auto& output : {found_.exchange(nullptr), std::exchange(lost_, nullptr)}) {
        if (output) {
            output->close();
        }
    }
}

void AudioDeviceSearch::Run() {
    setName("AudioDevice");
    if (const auto lost = std::exchange(lost_, nullptr)) {
        lost->close();
    }
    while (restBeforeAttempt()) {
        auto output = makeOutput_(std::exchange(isFirst_, false) ? Attempt::First : Attempt::Again);
        const bool isOpen = output->init(spec_);
        if (isOpen) {
            found_.store(std::move(output));
        } else {
            output->close();
        }
        triedMs_ = KelpTime::getTimeMs();
        hasTried_ = true;
        firstTry_.end();
        if (isOpen) {
            return;
        }
    }
}

bool AudioDeviceSearch::restBeforeAttempt() {
    const int64_t nowMs = KelpTime::getTimeMs();
    if (triedMs_ <= nowMs && nowMs < triedMs_ + kAgainMs) {
        rest(static_cast<int>(triedMs_ + kAgainMs - nowMs));
    }
    return !isStopRequested();
}

}  // namespace kelp
