#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kelp_player/kelp_player.h"

namespace kelp::test {

enum class Happened {
    SizeUpdated,
    Prepared,
    Failed,
    FirstPacket,
    FirstVideoFrame,
    FirstAudioFrame,
    Completed,
    DurationUpdated
};

// One call of the observer: which, and its numbers in order.
struct Event {
    Happened what;
    int a = 0;
    int b = 0;
    int c = 0;
    int64_t atUs = 0;  // on the steady clock

    bool operator==(const Event& other) const {
        return what == other.what && a == other.a && b == other.b && c == other.c;
    }
};

std::ostream& operator<<(std::ostream& out, const Event& event);

// A player with an observer that remembers every event. It stops and releases the player when it goes.
class Playback final : private KelpPlayerObserver {
public:
    Playback();
    ~Playback();
    Playback(const Playback&) = delete;
    Playback& operator=(const Playback&) = delete;

    KelpPlayer& player() { return *player_; }

    // Loads `path` and waits for onPrepared or onFailed; whether it was the first.
    bool open(const std::string& path, int timeoutMs = 20000);

    // Plays what was opened to its end; false after `timeoutMs`.
    bool playToEnd(int timeoutMs = 60000);

    std::vector<Event> events();
    // How often `what` came.
    int count(Happened what);
    // Waits until `what` came `times` times in all; false after `timeoutMs`.
    bool waitFor(Happened what, int timeoutMs, int times = 1);
    // The first event of its kind; ends the test program if there is none.
    Event first(Happened what);
    Event last(Happened what);

private:
    void onVideoSizeUpdated(std::shared_ptr<KelpPlayer> player, int width, int height, int rotate) override;
    void onPrepared(std::shared_ptr<KelpPlayer> player, bool hasVideo, bool hasAudio) override;
    void onFailed(std::shared_ptr<KelpPlayer> player, int errorType, int extraData) override;
    void onFirstPacket(std::shared_ptr<KelpPlayer> player, int ptsMs) override;
    void onFirstVideoFrame(std::shared_ptr<KelpPlayer> player, int ptsMs) override;
    void onFirstAudioFrame(std::shared_ptr<KelpPlayer> player, int ptsMs) override;
    void onCompleted(std::shared_ptr<KelpPlayer> player) override;
    void onDurationUpdated(std::shared_ptr<KelpPlayer> player, int durationMs) override;

    void note(Happened what, int a = 0, int b = 0, int c = 0);
    int countLocked(Happened what) const;

    std::mutex mutex_;  // guards events_
    std::condition_variable changed_;
    std::vector<Event> events_;
    std::shared_ptr<KelpPlayer> player_;
};

}  // namespace kelp::test
