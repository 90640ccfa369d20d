#include <map>

#include "control/managed_table.h"

// Calls at moments that a host may choose freely: before the source is ready, in any order, and from within callbacks.

namespace kelp::test {
namespace {

enum class Request { Start, Pause, Resume };

class TarnPlayerRequests : public TarnPlayerFixture {
protected:
    void ask(Request request, bool preparing) {
        switch (request) {
            case Request::Start:
                // Out of preparation a start is refused, and isn't kept.
                EXPECT_EQ(player_->start(), preparing);
                startAsked_ = startAsked_ || preparing;
                break;
            case Request::Pause:
                EXPECT_TRUE(player_->pause());
                pauseAsked_ = true;
                break;
            case Request::Resume:
                EXPECT_TRUE(player_->resume());
                pauseAsked_ = false;
                break;
        }
    }

    int expectedState() const {
        return !startAsked_ ? PLAYER_STATE_PREPARED : pauseAsked_ ? PLAYER_STATE_PAUSED : PLAYER_STATE_STARTED;
    }

    bool startAsked_ = false;
    bool pauseAsked_ = false;
};

// Every sequence of up to five requests, cut by prepareAsync at every place.
TEST_F(TarnPlayerRequests, AreKeptInEveryOrder) {
    for (int length = 0; length <= 5; ++length) {
        int sequences = 1;
        for (int i = 0; i < length; ++i) {
            sequences *= 3;
        }
        for (int sequence = 0; sequence < sequences; ++sequence) {
            for (int before = 0; before <= length; ++before) {
                SCOPED_TRACE("length " + std::to_string(length) + ", sequence " + std::to_string(sequence) +
                             ", before prepareAsync " + std::to_string(before));
                startAsked_ = false;
                pauseAsked_ = false;
                reach(PLAYER_STATE_INITIALIZED);
                int rest = sequence;
                for (int i = 0; i < length; ++i, rest /= 3) {
                    if (i == before) {
                        ASSERT_TRUE(player_->prepareAsync());
                    }
                    ask(static_cast<Request>(rest % 3), /*preparing=*/i >= before);
                }
                if (before == length) {
                    ASSERT_TRUE(player_->prepareAsync());
                }
                events().onPrepared(nullptr, true, true);
                engine().runWorker();
                ASSERT_EQ(state(), expectedState());
                const Calls started{"prepared 1 1", "started"};
                const Calls prepared{"prepared 1 1"};
                ASSERT_EQ(host_.told, startAsked_ ? started : prepared);
                // A pause that wasn't consumed would act at the next start.
                player_->resume();
                player_->stop();
                player_->resume();
                player_->reset();
            }
        }
    }
}

// What a callback is called for, by what the host writes down.
const std::map<std::string, std::function<void(KelpPlayerObserver&)>>& callbacks() {
    static const std::map<std::string, std::function<void(KelpPlayerObserver&)>> all = {
        {"size", [](auto& o) { o.onVideoSizeUpdated(nullptr, 640, 360, 0); }},
        {"prepared", [](auto& o) { o.onPrepared(nullptr, true, true); }},
        {"started", nullptr},  // posted by start
        {"failed", [](auto& o) { o.onFailed(nullptr, 1, 0); }},
        {"picture", [](auto& o) { o.onFirstVideoFrame(nullptr, 40); }},
        {"sound", [](auto& o) { o.onFirstAudioFrame(nullptr, 40); }},
        {"completed", [](auto& o) { o.onCompleted(nullptr); }},
        {"duration", [](auto& o) { o.onDurationUpdated(nullptr, 8000); }},
    };
    return all;
}

// The player's state from within each callback, when it came in the course of an ordinary playback.
int stateWithin(const std::string& callback) {
    return callback == "prepared"    ? PLAYER_STATE_PREPARED
           : callback == "failed"    ? PLAYER_STATE_ERROR
           : callback == "completed" ? PLAYER_STATE_COMPLETED
           : callback == "size"      ? PLAYER_STATE_PREPARING
                                     : PLAYER_STATE_STARTED;
}

class TarnPlayerCallback : public TarnPlayerFixture, public testing::WithParamInterface<std::string> {};

// A lock held over the call would never let the operation in.
TEST_P(TarnPlayerCallback, MayCallEveryOperation) {
    const std::string callback = GetParam();
    const int within = stateWithin(callback);
    for (const auto& step : managedTable()) {
        if (step.name.starts_with("on") || step.prepare) {
            continue;
        }
        SCOPED_TRACE(step.name);
        const bool byStart = callback == "started";
        reach(byStart                                                               ? PLAYER_STATE_PREPARED
              : within == PLAYER_STATE_STARTED                                      ? PLAYER_STATE_STARTED
              : within == PLAYER_STATE_PREPARING || within == PLAYER_STATE_PREPARED ? PLAYER_STATE_PREPARING
                                                                                    : PLAYER_STATE_STARTED,
              kTableOffsetMs);
        engine().currentTimeMs = 700;
        engine().durationMs = 9000;
        engine().nextTimerId = 1;
        HostClock clock;
        TableStage stage{*player_, host_, engine(), clock};
        int runs = 0;
        host_.inAny = [&](const std::string& what) {
            if (what != callback || runs > 0) {
                return;
            }
            ++runs;
            EXPECT_EQ(state(), within);
            for (const auto& row : step.rows) {
                if (std::find(row.states.begin(), row.states.end(), within) != row.states.end()) {
                    EXPECT_EQ(step.run(stage), row.result);
                    EXPECT_EQ(state(), row.next == kSameState ? within : row.next);
                }
            }
        };
        if (byStart) {
            EXPECT_TRUE(player_->start());
        } else {
            callbacks().at(callback)(events());
        }
        engine().runWorker();
        EXPECT_EQ(runs, 1);
        host_.inAny = nullptr;
        player_->setSyncClock(nullptr);
        player_->stop();
        player_->reset();
        player_->setOption("retry_when_failed", "0");
        player_->enableHwDecoder(true, HW_DECODE_ALL);
    }
}

std::vector<std::string> callbackNames() {
    std::vector<std::string> names;
    for (const auto& callback : callbacks()) {
        names.push_back(callback.first);
    }
    return names;
}

INSTANTIATE_TEST_SUITE_P(Of, TarnPlayerCallback, testing::ValuesIn(callbackNames()),
                         [](const auto& callback) { return callback.param; });

TEST_F(TarnPlayerRequests, PlayAgainFromWithinTheEnd) {
    reach(PLAYER_STATE_STARTED);
    host_.inAny = [&](const std::string& what) {
        if (what == "completed") {
            EXPECT_TRUE(player_->stop());
            EXPECT_TRUE(player_->prepareAsync());
            EXPECT_TRUE(player_->start());
        }
    };
    for (int round = 0; round < 3; ++round) {
        events().onCompleted(nullptr);
        EXPECT_EQ(state(), PLAYER_STATE_PREPARING);
        events().onPrepared(nullptr, true, true);
        EXPECT_EQ(state(), PLAYER_STATE_STARTED);
    }
}

TEST_F(TarnPlayerRequests, OpenTheSourceAgainFromWithinItsFailure) {
    reach(PLAYER_STATE_PREPARING);
    host_.inAny = [&](const std::string& what) {
        if (what == "failed") {
            EXPECT_TRUE(player_->reset());
            EXPECT_TRUE(player_->setDataSource("another", 0, &host_));
            EXPECT_TRUE(player_->prepareAsync());
        }
    };
    events().onFailed(nullptr, 1, 0);
    EXPECT_EQ(state(), PLAYER_STATE_PREPARING);
    EXPECT_EQ(engine().takeCalls(),
              (Calls{"enableHwDecoder(1, 3)", "stop()", "runInWorker()", "loadFileAsync(another, 0)"}));
}

// A start that was asked for isn't forgotten by a stop, nor a pause by a stop or a reset.
TEST_F(TarnPlayerRequests, OutliveAStop) {
    reach(PLAYER_STATE_PREPARING);
    player_->start();
    player_->pause();
    EXPECT_TRUE(player_->stop());
    EXPECT_TRUE(player_->prepareAsync());
    events().onPrepared(nullptr, true, true);
    EXPECT_EQ(state(), PLAYER_STATE_PAUSED);
}

TEST_F(TarnPlayerRequests, ToStartAreTakenBackByAReset) {
    reach(PLAYER_STATE_PREPARING);
    player_->start();
    EXPECT_TRUE(player_->stop());
    EXPECT_TRUE(player_->reset());
    reach(PLAYER_STATE_PREPARING);
    events().onPrepared(nullptr, true, true);
    EXPECT_EQ(state(), PLAYER_STATE_PREPARED);
}

}  // namespace
}  // namespace kelp::test
