#pragma once

#include <atomic>
#include <memory>

#include "kelp_player/kelp_player.h"
#include "kelp_player/tarn_player.h"

namespace kelp {

// Takes the engine's events for a TarnPlayer, moves its state, mends what can be mended and tells the host the rest.
//
// All operations come on the worker thread of the engine. The player's mutex is never held while the host is called.
class InnerPlayerObserver final : public KelpPlayerObserver {
public:
    explicit InnerPlayerObserver(TarnPlayer* owner) : owner_(owner) {}

    // The host to tell, and what to add to the times that it is told. From the host's threads.
    void set(TarnPlayerObserver* observer, int offsetMs);

    void onVideoSizeUpdated(std::shared_ptr<KelpPlayer> player, int width, int height, int rotate) override;
    void onPrepared(std::shared_ptr<KelpPlayer> player, bool hasVideo, bool hasAudio) override;
    void onFailed(std::shared_ptr<KelpPlayer> player, int errorType, int extraData) override;
    void onFirstPacket(std::shared_ptr<KelpPlayer> player, int ptsMs) override;
    void onFirstVideoFrame(std::shared_ptr<KelpPlayer> player, int ptsMs) override;
    void onFirstAudioFrame(std::shared_ptr<KelpPlayer> player, int ptsMs) override;
    void onCompleted(std::shared_ptr<KelpPlayer> player) override;
    void onDurationUpdated(std::shared_ptr<KelpPlayer> player, int durationMs) override;

private:
    // Starts, and perhaps pauses, a source that became ready, as was asked for; `startRequested` says whether a start
    // was when the host was told. False if it doesn't play. The player's mutex is held.
    bool carryOutRequests(bool startRequested);
    // The host, if there is one and the event at hand is for it.
    TarnPlayerObserver* hostToTell() const;

    // Something of the source was seen or heard.
    void noteShown();

    TarnPlayer* const owner_;
    std::atomic<TarnPlayerObserver*> observer_{nullptr};
    std::atomic<int> offsetMs_{0};
    bool hasVideo_ = false;  // from the last onPrepared
    bool hasAudio_ = false;
};

}  // namespace kelp
