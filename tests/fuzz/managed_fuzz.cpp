// The managed player under operations of its host and events of its engine in any order, against a model of its states.

#include <iterator>

#include "control/fake_engine.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/managed_model.h"
#include "fuzz/quiet.h"
#include "kelp_player/sync_clock.h"
#include "kelp_player/tarn_player.h"

using kelp::TarnPlayer;
using kelp::test::FakeEngine;
using kelp::test::FuzzInput;
using kelp::test::ManagedModel;
using kelp::test::require;

namespace {

constexpr int kMaxOperations = 120;
constexpr const char* kAnswers[] = {"loadFileAsync", "play",      "pause",   "resume",      "seek",        "stop",
                                    "setVolume",     "stepFrame", "setLoop", "selectTrack", "takeSnapshot"};

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) {
        text += line + "; ";
    }
    return text;
}

class Clock final : public kelp::KelpSyncClock {
public:
    virtual ~Clock() = default;
    int64_t getNoSyncThreshold() override { return 0; }
    bool isForceSync() override { return false; }
    int64_t getSyncPts() override { return nowMs; }

    int64_t nowMs = 0;
};

class Host final : public kelp::TarnPlayerObserver {
public:
    virtual ~Host() = default;

    void onVideoSizeUpdated(int, int, int) override {}
    void onPrepared(bool hasVideo, bool hasAudio) override {
        told.push_back("prepared " + std::to_string(hasVideo) + " " + std::to_string(hasAudio));
        if (whenPrepared) {
            whenPrepared();
        }
    }
    void onStarted() override { told.emplace_back("started"); }
    void onFailed(int errorType) override { told.push_back("failed " + std::to_string(errorType)); }
    void onFirstVideoFrame(int ptsMs) override { told.push_back("first picture " + std::to_string(ptsMs)); }
    void onFirstAudioFrame(int) override {}
    void onCompleted() override { told.emplace_back("completed"); }
    void onDurationUpdated(int durationMs) override { told.push_back("duration " + std::to_string(durationMs)); }

    std::vector<std::string> told;
    std::function<void()> whenPrepared;
};

// A player and its model, which are led alike.
class Pair {
public:
    Pair() {
        FakeEngine::reset();
        player_ = TarnPlayer::create();
        engine().takeCalls();
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;
    ~Pair() {
        TarnPlayer::destroy(player_);
        FakeEngine::reset();
    }

    void step(FuzzInput& input) {
        const uint8_t operation = input.byte() % 36;
        if (operation < 18 || operation >= 30) {
            hostOperation(operation, input);
        } else {
            engineEvent(operation, input);
        }
        compare(operation);
    }

private:
    static FakeEngine& engine() { return FakeEngine::get(); }

    // Few values, so that they meet again, and some of the far ends.
    static int number(FuzzInput& input) {
        const uint8_t byte = input.byte();
        return byte < 200 ? (byte % 16 - 8) * 1000 : input.take<int>();
    }

    void same(bool player, bool model, const char* what) { require(player == model, what); }

    void hostOperation(int operation, FuzzInput& input) {
        switch (operation) {
            case 0:
            case 1: {
                const int offset = input.byte() % 2 == 0 ? 0 : number(input);
                const bool observer = input.byte() % 8 != 0;
                const char* url = offset % 2 == 0 ? "file" : "other";
                same(player_->setDataSource(url, offset, observer ? &host_ : nullptr),
                     model_.setDataSource(url, offset, observer), "setDataSource");
                break;
            }
            case 2:
            case 3:
                same(player_->prepareAsync(), model_.prepareAsync(), "prepareAsync");
                break;
            case 4:
            case 5:
                same(player_->start(), model_.start(), "start");
                break;
            case 6:
                same(player_->pause(), model_.pause(), "pause");
                break;
            case 7:
                same(player_->resume(), model_.resume(), "resume");
                break;
            case 8: {
                const int timeMs = number(input);
                same(player_->seek(timeMs), model_.seek(timeMs), "seek");
                break;
            }
            case 9:
                same(player_->stop(), model_.stop(), "stop");
                break;
            case 10:
                same(player_->reset(), model_.reset(), "reset");
                break;
            case 11:
                require(player_->getCurrentTime() == model_.getCurrentTime(), "getCurrentTime");
                require(player_->getDuration() == model_.getDuration(), "getDuration");
                require(player_->getStatistics().restarts == model_.restarts, "restarts of the statistics");
                break;
            case 12:
                same(player_->setVolume(0.5F), model_.setVolume(0.5F), "setVolume");
                break;
            case 13: {
                const uint8_t mode = input.byte() % 8;
                player_->enableHwDecoder(mode > 3, static_cast<kelp::HwDecodeMode>(mode % 4));
                model_.enableHwDecoder(mode > 3, mode % 4);
                break;
            }
            case 14: {
                const bool set = input.byte() % 2 == 0;
                player_->setSyncClock(set ? &clock_ : nullptr);
                model_.setSyncClock(set);
                break;
            }
            case 15: {
                const int offset = number(input);
                same(player_->setOffsetToClockMs(offset), model_.setOffsetToClockMs(offset), "setOffsetToClockMs");
                break;
            }
            case 16: {
                const int interval = number(input);
                player_->setOption("retry_when_failed", std::to_string(interval).c_str());
                model_.setRetry(interval);
                break;
            }
            case 30: {
                const int pictures = number(input);
                same(player_->stepFrame(pictures), model_.stepFrame(pictures), "stepFrame");
                break;
            }
            case 31: {
                const int startMs = number(input);
                const int endMs = number(input);
                same(player_->setLoop(startMs, endMs), model_.setLoop(startMs, endMs), "setLoop");
                break;
            }
            case 32:
                player_->clearLoop();
                model_.clearLoop();
                break;
            case 33: {
                const int kind = input.byte() % 3;
                const int track = number(input);
                same(player_->selectTrack(static_cast<kelp::TrackKind>(kind), track), model_.selectTrack(kind, track),
                     "selectTrack");
                break;
            }
            case 34: {
                const bool muted = input.byte() % 2 == 0;
                player_->setMute(muted);
                model_.setMute(muted);
                break;
            }
            case 35:
                same(player_->takeSnapshot("picture.png"), model_.takeSnapshot("picture.png"), "takeSnapshot");
                break;
            default:
                player_->addTimer(7, /*oneShot=*/true, [] {});
                model_.addHostTimer();
                break;
        }
    }

    void engineEvent(int operation, FuzzInput& input) {
        auto* observer = engine().observer;
        switch (operation) {
            case 18:
            case 19:
            case 20: {
                const uint8_t bits = input.byte();
                host_.whenPrepared = reaction(bits >> 2U);
                model_.onHostPrepared = modelReaction(bits >> 2U);
                observer->onPrepared(nullptr, (bits & 1U) != 0, (bits & 2U) != 0);
                model_.prepared((bits & 1U) != 0, (bits & 2U) != 0);
                break;
            }
            case 21: {
                const uint8_t bits = input.byte();
                observer->onFailed(nullptr, bits % 4, bits / 4 % 2);
                model_.failed(bits % 4, bits / 4 % 2);
                break;
            }
            case 22:
                observer->onCompleted(nullptr);
                model_.completed();
                break;
            case 23: {
                const int ptsMs = number(input);
                observer->onFirstPacket(nullptr, ptsMs);
                observer->onFirstVideoFrame(nullptr, ptsMs);
                model_.firstVideoFrame(ptsMs);
                observer->onDurationUpdated(nullptr, ptsMs);
                model_.durationUpdated(ptsMs);
                break;
            }
            case 24:
            case 25:
            case 26:
                engine().runWorker();
                model_.runWorker();
                break;
            case 27:
                fireTimer(input.byte());
                break;
            case 28: {
                const uint8_t bits = input.byte();
                const char* name = kAnswers[bits % std::size(kAnswers)];
                engine().answers[name] = model_.answers[name] = bits < 128;
                break;
            }
            default:
                engine().currentTimeMs = model_.currentTimeMs = number(input);
                engine().durationMs = model_.durationMs = number(input);
                clock_.nowMs = model_.clockMs = number(input);
                break;
        }
    }

    void fireTimer(uint8_t which) {
        if (engine().timers.empty()) {
            return;
        }
        const auto timer = std::next(engine().timers.begin(), which % static_cast<int>(engine().timers.size()));
        const unsigned int id = timer->first;
        engine().fire(id);
        model_.fire(id);
    }

    // What the host does from within its callback.
    std::function<void()> reaction(unsigned int what) {
        switch (what % 8) {
            case 0:
                return [this] { player_->start(); };
            case 1:
                return [this] { player_->stop(); };
            case 2:
                return [this] { player_->pause(); };
            case 3:
                return [this] {
                    player_->stop();
                    player_->reset();
                };
            default:
                return {};
        }
    }

    std::function<void()> modelReaction(unsigned int what) {
        switch (what % 8) {
            case 0:
                return [this] { model_.start(); };
            case 1:
                return [this] { model_.stop(); };
            case 2:
                return [this] { model_.pause(); };
            case 3:
                return [this] {
                    model_.stop();
                    model_.reset();
                };
            default:
                return {};
        }
    }

    void compare(int operation) {
        if (engine().calls != model_.calls) {
            require(false, "operation " + std::to_string(operation) + ": the engine was asked " +
                               joined(engine().calls) + "not " + joined(model_.calls));
        }
        if (host_.told != model_.told) {
            require(false, "operation " + std::to_string(operation) + ": the host was told " + joined(host_.told) +
                               "not " + joined(model_.told));
        }
        require(engine().timers.size() == model_.timers.size(), "as many timers");
        engine().calls.clear();
        model_.calls.clear();
        host_.told.clear();
        model_.told.clear();
    }

    Host host_;
    Clock clock_;
    TarnPlayer* player_ = nullptr;
    ManagedModel model_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kelp::test::quiet();
    FuzzInput input(data, size);
    Pair pair;
    for (int i = 0; i < kMaxOperations && !input.empty(); ++i) {
        pair.step(input);
    }
    return 0;
}
