#include "e2e/managed_playback.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "e2e/recording_sink.h"
#include "kelp_player/log.h"
#include "support/gate.h"

namespace kelp::test {

namespace {

std::string numbers(std::initializer_list<int> values) {
    std::string text;
    for (const int value : values) {
        text += " " + std::to_string(value);
    }
    return text;
}

bool isWord(const std::string& text, const std::string& word) {
    return text == word || text.starts_with(word + " ");
}

}  // namespace

int CountingSink::count() {
    std::lock_guard lock(mutex_);
    return count_;
}

bool CountingSink::waitFor(int count, int timeoutMs) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return count_ >= count; });
}

bool CountingSink::onVideoFrame(int, int64_t, uint8_t**, int*, int, int64_t) {
    std::lock_guard lock(mutex_);
    ++count_;
    changed_.notify_all();
    return true;
}

ManagedPlayback::ManagedPlayback() : player_(TarnPlayer::create()) {
    if (!player_) {
        std::fprintf(stderr, "the player can't be made\n");
        std::abort();
    }
    player_->addWindow(static_cast<ExternFrameSink*>(&sink_), WINDOW_TYPE_EXTERN, 0, 0);
}

ManagedPlayback::~ManagedPlayback() {
    destroy();
}

void ManagedPlayback::destroy() {
    if (player_) {
        TarnPlayer::destroy(player_);
        player_ = nullptr;
        destroyed_ = true;
    }
}

bool ManagedPlayback::setSource(const std::string& url, int offsetMs) {
    return player_->setDataSource(url.c_str(), offsetMs, this);
}

bool ManagedPlayback::open(const std::string& url, int offsetMs) {
    return setSource(url, offsetMs) && player_->prepareAsync();
}

std::vector<std::string> ManagedPlayback::told() {
    std::lock_guard lock(mutex_);
    std::vector<std::string> texts;
    for (const auto& one : told_) {
        texts.push_back(one.text);
    }
    return texts;
}

int ManagedPlayback::countLocked(const std::string& word) const {
    return static_cast<int>(
        std::count_if(told_.begin(), told_.end(), [&](const Told& one) { return isWord(one.text, word); }));
}

int ManagedPlayback::count(const std::string& word) {
    std::lock_guard lock(mutex_);
    return countLocked(word);
}

void ManagedPlayback::forget() {
    std::lock_guard lock(mutex_);
    std::vector<Told>().swap(told_);
}

int64_t ManagedPlayback::lastUs(const std::string& word) {
    std::lock_guard lock(mutex_);
    for (auto one = told_.rbegin(); one != told_.rend(); ++one) {
        if (isWord(one->text, word)) {
            return one->atUs;
        }
    }
    return 0;
}

bool ManagedPlayback::waitFor(const std::string& word, int times, int timeoutMs) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return countLocked(word) >= times; });
}

void ManagedPlayback::waitForWorker() {
    Gate through;
    player_->runInWorker([through]() mutable { through.open(); });
    through.wait();
}

int ManagedPlayback::state() {
    constexpr int kErrorLevel = 1;
    struct Found {
        std::mutex mutex;
        int state = PLAYER_STATE_IDLE;  // guarded by mutex
    };
    const auto found = std::make_shared<Found>();
    const int oldLevel = Log::GetLevel();
    Log::SetLogCallback([found](const char* line) {
        const std::string text = line;
        constexpr char kMark[] = "setDataSource, error state:";
        const auto at = text.find(kMark);
        if (at != std::string::npos) {
            std::lock_guard lock(found->mutex);
            found->state = std::atoi(text.c_str() + at + sizeof kMark - 1);
        }
    });
    Log::SetLevel(std::max(oldLevel, kErrorLevel));
    player_->setDataSource(nullptr, 0, nullptr);
    Log::SetLogCallback(nullptr);
    Log::SetLevel(oldLevel);
    std::lock_guard lock(found->mutex);
    return found->state;
}

void ManagedPlayback::note(const std::string& word, const std::string& more) {
    if (destroyed_) {
        ++toldLate_;
    }
    {
        std::lock_guard lock(mutex_);
        told_.push_back({word + more, steadyUs()});
        changed_.notify_all();
    }
    if (inCallback) {
        inCallback(word);
    }
}

void ManagedPlayback::onVideoSizeUpdated(int width, int height, int rotate) {
    note("size", numbers({width, height, rotate}));
}
void ManagedPlayback::onPrepared(bool hasVideo, bool hasAudio) {
    note("prepared", numbers({hasVideo, hasAudio}));
}
void ManagedPlayback::onStarted() {
    note("started");
}
void ManagedPlayback::onFailed(int errorType) {
    note("failed", numbers({errorType}));
}
void ManagedPlayback::onFirstVideoFrame(int ptsMs) {
    note("picture", numbers({ptsMs}));
}
void ManagedPlayback::onFirstAudioFrame(int ptsMs) {
    note("sound", numbers({ptsMs}));
}
void ManagedPlayback::onCompleted() {
    note("completed");
}
void ManagedPlayback::onDurationUpdated(int durationMs) {
    note("duration", numbers({durationMs}));
}

}  // namespace kelp::test
