#pragma once

#include <QObject>
#include <atomic>

#include "kelp_player/stall_observer.h"
#include "kelp_player/tarn_player.h"

// What is known of a source when it is open.
struct SourceInfo {
    bool hasVideo = false;
    bool hasAudio = false;
    int durationMs = 0;
    int width = 0;  // of the picture, in pixels; 0 without video
    int height = 0;
    int framesPerSecond = 0;
};

// [embed] Events: from the player's worker thread to signals
//
// The player calls its observer on its worker thread. A signal that is emitted there reaches the slots of objects of
// the GUI thread through that thread's event queue, in order.
class PlayerEvents : public QObject, public kelp::TarnPlayerObserver, public kelp::StallObserver {
    Q_OBJECT

public:
    // Before `setDataSource` of that player.
    void setPlayer(kelp::TarnPlayer* player) { player_ = player; }
    // From any thread. Each playback begins at full volume, so this is set again whenever one has begun.
    void setVolume(float volume) { volume_ = volume; }

    void onVideoSizeUpdated(int, int, int) override {}
    void onPrepared(bool hasVideo, bool hasAudio) override;
    void onStarted() override;
    void onFailed(int errorType) override;
    void onFirstVideoFrame(int ptsMs) override;
    void onFirstAudioFrame(int ptsMs) override;
    void onCompleted() override;
    void onDurationUpdated(int durationMs) override;

    void onStalled() override;
    void onBuffering(int waitingMs, int percent) override;
    void onStallEnded() override;

signals:
    void prepared(const SourceInfo& info);
    void started();
    void failed(int errorType);
    void firstFrame(bool isVideo, int ptsMs);
    void completed();
    void durationUpdated(int durationMs);
    // Playback stands for want of data, and so much of what it takes is there.
    void stalled(int percent);
    void stallEnded();

private:
    kelp::TarnPlayer* player_ = nullptr;
    std::atomic<float> volume_{1.0F};
};
// [embed end]
