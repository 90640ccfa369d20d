#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "control/current_source.h"
#include "control/fake_engine.h"
#include "kelp_player/sync_clock.h"
#include "kelp_player/tarn_player.h"
#include "support/private_member.h"

namespace kelp::test {

using TarnPlayerState = PlayerStates TarnPlayer::*;
TarnPlayerState privateMember(PrivateMember<struct TarnPlayerStateTag, TarnPlayerState>);
template struct ExposeMember<struct TarnPlayerStateTag, &TarnPlayer::state_>;
using TarnPlayerSource = std::unique_ptr<CurrentSource> TarnPlayer::*;
TarnPlayerSource privateMember(PrivateMember<struct TarnPlayerSourceTag, TarnPlayerSource>);
template struct ExposeMember<struct TarnPlayerSourceTag, &TarnPlayer::source_>;

using Calls = std::vector<std::string>;

constexpr int kPlayerStates[] = {PLAYER_STATE_ERROR,     PLAYER_STATE_IDLE,     PLAYER_STATE_INITIALIZED,
                                 PLAYER_STATE_PREPARING, PLAYER_STATE_PREPARED, PLAYER_STATE_STARTED,
                                 PLAYER_STATE_PAUSED,    PLAYER_STATE_STOPPED,  PLAYER_STATE_COMPLETED};

// Writes down what it is told, and may do something at that moment.
class RecordingHost final : public TarnPlayerObserver {
public:
    Calls told;
    std::function<void()> inPrepared;
    std::function<void(const std::string& what)> inAny;  // "prepared", "completed", ...

    void onVideoSizeUpdated(int width, int height, int rotate) override {
        note("size", " " + std::to_string(width) + " " + std::to_string(height) + " " + std::to_string(rotate));
    }
    void onPrepared(bool hasVideo, bool hasAudio) override {
        note("prepared", " " + std::to_string(hasVideo) + " " + std::to_string(hasAudio));
        if (inPrepared) {
            inPrepared();
        }
    }
    void onStarted() override { note("started", ""); }
    void onFailed(int errorType) override { note("failed", " " + std::to_string(errorType)); }
    void onFirstVideoFrame(int ptsMs) override { note("picture", " " + std::to_string(ptsMs)); }
    void onFirstAudioFrame(int ptsMs) override { note("sound", " " + std::to_string(ptsMs)); }
    void onCompleted() override { note("completed", ""); }
    void onDurationUpdated(int durationMs) override { note("duration", " " + std::to_string(durationMs)); }

private:
    void note(const std::string& what, const std::string& numbers) {
        told.push_back(what + numbers);
        if (inAny) {
            inAny(what);
        }
    }
};

class HostClock final : public KelpSyncClock {
public:
    int64_t now = 0;
    int64_t getNoSyncThreshold() override { return 10000; }
    bool isForceSync() override { return true; }
    int64_t getSyncPts() override { return now; }
};

// A managed player on the fake engine. All runs on the test's thread.
class TarnPlayerFixture : public testing::Test {
protected:
    TarnPlayerFixture() {
        FakeEngine::reset();
        player_ = TarnPlayer::create();
        atBirth_ = engine().takeCalls();
    }
    ~TarnPlayerFixture() override {
        TarnPlayer::destroy(player_);
        FakeEngine::reset();
    }

    // Another player, as at first.
    void renew() {
        TarnPlayer::destroy(player_);
        FakeEngine::reset();
        player_ = TarnPlayer::create();
        engine().takeCalls();
        host_.told.clear();
    }

    static FakeEngine& engine() { return FakeEngine::get(); }

    // For an event of the engine, which comes behind all that is queued on the worker.
    static KelpPlayerObserver& events() {
        engine().runWorker();
        return *engine().observer;
    }

    int state() const { return player_->*privateMember(PrivateMember<TarnPlayerStateTag, TarnPlayerState>{}); }
    CurrentSource& source() {
        return *(player_->*privateMember(PrivateMember<TarnPlayerSourceTag, TarnPlayerSource>{}));
    }

    // Brings a new player into `state`, and forgets the calls that took.
    void reach(int state, int offsetMs = 0) {
        if (state == PLAYER_STATE_IDLE) {
            return;
        }
        ASSERT_TRUE(player_->setDataSource("source", offsetMs, &host_));
        if (state != PLAYER_STATE_INITIALIZED) {
            ASSERT_TRUE(player_->prepareAsync());
            if (state == PLAYER_STATE_ERROR) {
                events().onFailed(nullptr, 1, 0);
            } else if (state != PLAYER_STATE_PREPARING) {
                events().onPrepared(nullptr, true, true);
                if (state != PLAYER_STATE_PREPARED && state != PLAYER_STATE_STOPPED) {
                    ASSERT_TRUE(player_->start());
                }
                if (state == PLAYER_STATE_PAUSED) {
                    ASSERT_TRUE(player_->pause());
                } else if (state == PLAYER_STATE_STOPPED) {
                    ASSERT_TRUE(player_->stop());
                } else if (state == PLAYER_STATE_COMPLETED) {
                    events().onCompleted(nullptr);
                }
            }
        }
        engine().runWorker();
        engine().calls.clear();
        host_.told.clear();
        ASSERT_EQ(this->state(), state);
    }

    RecordingHost host_;
    TarnPlayer* player_ = nullptr;
    Calls atBirth_;
};

}  // namespace kelp::test
