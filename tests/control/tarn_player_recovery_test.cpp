#include "control/tarn_player_fixture.h"
#include "support/log_capture.h"

// What happens by itself after a failure.

namespace kelp::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class TarnPlayerRecoveryTest : public TarnPlayerFixture {};

class TarnPlayerRecovery : public TarnPlayerFixture, public testing::WithParamInterface<int> {};

TEST_P(TarnPlayerRecovery, BringsAFailedStreamBackIntoItsState) {
    const int from = GetParam();
    player_->setOption("retry_when_failed", "2000");
    reach(from);
    LogCapture log;
    events().onFailed(nullptr, 1, 1);
    EXPECT_TRUE(log.has("onFailed, errorType:1, extraData:1, current state:" + std::to_string(from) + "\n"));
    EXPECT_TRUE(log.has("onFailed, add retry timer, retryTimerId_:1\n"));
    EXPECT_EQ(state(), PLAYER_STATE_ERROR);
    EXPECT_THAT(engine().takeCalls(), ElementsAre("addTimer(2000, 1)"));
    EXPECT_EQ(player_->getStatistics().restarts, 0);
    engine().fire(1);
    EXPECT_THAT(engine().takeCalls(),
                ElementsAre("removeTimer(1)", "runInWorker()", "stop()", "runInWorker()", "loadFileAsync(source, 0)"));
    EXPECT_EQ(player_->getStatistics().restarts, 1);
    EXPECT_EQ(state(), PLAYER_STATE_PREPARING);
    events().onPrepared(nullptr, true, true);
    EXPECT_EQ(state(), from == PLAYER_STATE_PREPARING ? PLAYER_STATE_PREPARED : from);
    EXPECT_THAT(host_.told, testing::Not(Contains(testing::HasSubstr("failed"))));
}

INSTANTIATE_TEST_SUITE_P(From, TarnPlayerRecovery,
                         testing::Values(PLAYER_STATE_PREPARING, PLAYER_STATE_STARTED, PLAYER_STATE_PAUSED));

TEST_F(TarnPlayerRecoveryTest, GivesTheRestartUpWhenItIsStopped) {
    player_->setOption("retry_when_failed", "2000");
    reach(PLAYER_STATE_STARTED);
    events().onFailed(nullptr, 1, 1);
    engine().takeCalls();
    EXPECT_TRUE(player_->stop());
    EXPECT_THAT(engine().takeCalls(), ElementsAre("removeTimer(1)", "stop()"));
    EXPECT_THAT(engine().timers, IsEmpty());
    EXPECT_TRUE(player_->stop());
    EXPECT_THAT(engine().takeCalls(), IsEmpty());
}

TEST_F(TarnPlayerRecoveryTest, DoesNotRestartWhatWasStoppedWhileTheRestartWasQueued) {
    reach(PLAYER_STATE_STARTED);
    events().onFailed(nullptr, 2, 1);
    EXPECT_TRUE(player_->stop());
    engine().takeCalls();
    engine().runWorker();
    EXPECT_THAT(engine().takeCalls(), IsEmpty());
    EXPECT_EQ(state(), PLAYER_STATE_STOPPED);
}

TEST_F(TarnPlayerRecoveryTest, TellsTheHostAFailureWithoutARetry) {
    reach(PLAYER_STATE_STARTED);
    for (const char* off : {"0", "never", "-5"}) {
        player_->setOption("retry_when_failed", "2000");
        player_->setOption("retry_when_failed", off);
        events().onFailed(nullptr, 1, 1);
    }
    EXPECT_THAT(host_.told, ElementsAre("failed 1", "failed 1", "failed 1"));
    EXPECT_THAT(engine().takeCalls(), IsEmpty());
}

TEST_F(TarnPlayerRecoveryTest, DoesNotRestartASourceThatTheHostHasReplaced) {
    player_->setOption("retry_when_failed", "2000");
    reach(PLAYER_STATE_STARTED);
    events().onFailed(nullptr, 1, 1);
    EXPECT_TRUE(player_->reset());
    EXPECT_TRUE(player_->setDataSource("another", 0, &host_));
    EXPECT_TRUE(player_->prepareAsync());
    engine().takeCalls();
    engine().fire(1);
    EXPECT_THAT(engine().takeCalls(), IsEmpty());
    events().onPrepared(nullptr, true, true);
    EXPECT_EQ(state(), PLAYER_STATE_PREPARED);
}

TEST_F(TarnPlayerRecoveryTest, KeepsTheRetryOfASourceThatReplacedAnother) {
    player_->setOption("retry_when_failed", "2000");
    reach(PLAYER_STATE_STARTED);
    events().onFailed(nullptr, 1, 1);
    EXPECT_TRUE(player_->reset());
    EXPECT_TRUE(player_->setDataSource("another", 0, &host_));
    EXPECT_TRUE(player_->prepareAsync());
    events().onFailed(nullptr, 1, 0);
    engine().takeCalls();
    engine().fire(1);
    EXPECT_THAT(engine().takeCalls(), IsEmpty());
    ASSERT_EQ(engine().timers.count(2), 1U);
    engine().fire(2);
    EXPECT_THAT(engine().takeCalls(),
                ElementsAre("removeTimer(2)", "runInWorker()", "stop()", "runInWorker()", "loadFileAsync(another, 0)"));
}

TEST_F(TarnPlayerRecoveryTest, ForgetsATimerThatFiredForNothing) {
    player_->setOption("retry_when_failed", "2000");
    reach(PLAYER_STATE_STARTED);
    events().onFailed(nullptr, 1, 1);
    EXPECT_TRUE(player_->reset());
    engine().fire(1);
    engine().takeCalls();
    // The number may be one of the host's timers by now.
    player_->stop();
    EXPECT_THAT(engine().takeCalls(), IsEmpty());
}

// The engine gives a number out again as soon as its timer has fired, which the player hears a moment later.
TEST_F(TarnPlayerRecoveryTest, LeavesAHostsTimerThatWasGivenTheNumberOfTheRetry) {
    player_->setOption("retry_when_failed", "2000");
    enum class Then { Retry, Stop, StopAndRetry, ResetAndRetry };
    for (const Then then : {Then::Retry, Then::Stop, Then::StopAndRetry, Then::ResetAndRetry}) {
        engine().nextTimerId = 1;
        reach(PLAYER_STATE_STARTED);
        events().onFailed(nullptr, 1, 1);
        const auto retry = engine().timers.at(1).function;
        engine().timers.erase(1);
        engine().nextTimerId = 1;
        ASSERT_EQ(player_->addTimer(7, /*oneShot=*/false, [] {}), 1U);
        if (then == Then::Stop || then == Then::StopAndRetry) {
            player_->stop();
        } else if (then == Then::ResetAndRetry) {
            player_->reset();
        }
        if (then != Then::Stop) {
            retry();
            engine().runWorker();
        }
        EXPECT_EQ(engine().timers.count(1), 1U) << static_cast<int>(then);
        EXPECT_EQ(state(), then == Then::Retry           ? PLAYER_STATE_PREPARING
                           : then == Then::ResetAndRetry ? PLAYER_STATE_IDLE
                                                         : PLAYER_STATE_STOPPED);
        player_->removeTimer(1);
        player_->stop();
        player_->reset();
    }
}

// A decoder that fails on reports again until the restart has stopped it.
TEST_F(TarnPlayerRecoveryTest, RestartsOnceForTwoReportsOfOneDecoder) {
    reach(PLAYER_STATE_STARTED);
    engine().worker.push_back([] { engine().observer->onFailed(nullptr, 2, 1); });
    engine().worker.push_back([] { engine().observer->onFailed(nullptr, 2, 1); });
    engine().runWorker();
    EXPECT_THAT(engine().takeCalls(),
                ElementsAre("enableHwDecoder(0, 0)", "runInWorker()", "enableHwDecoder(0, 0)", "runInWorker()",
                            "stop()", "runInWorker()", "loadFileAsync(source, 0)"));
    events().onPrepared(nullptr, true, true);
    engine().runWorker();
    EXPECT_THAT(host_.told, ElementsAre("prepared 1 1", "started"));
}

// Raised between the switch to software, which it states, and the restart. The host hears of it; the restart stands.
TEST_F(TarnPlayerRecoveryTest, TellsAReportThatSaysSoftwareAheadOfTheRestart) {
    reach(PLAYER_STATE_STARTED);
    engine().worker.push_back([] { engine().observer->onFailed(nullptr, 2, 1); });
    engine().worker.push_back([] { engine().observer->onFailed(nullptr, 2, 0); });
    engine().runWorker();
    EXPECT_THAT(host_.told, ElementsAre("failed 2"));
    events().onPrepared(nullptr, true, true);
    EXPECT_EQ(state(), PLAYER_STATE_STARTED);
}

TEST_F(TarnPlayerRecoveryTest, DropsAReportOfTheOldDecoderBehindTheRestart) {
    for (const int hardware : {0, 1}) {
        reach(PLAYER_STATE_STARTED);
        events().onFailed(nullptr, 2, 1);
        // Raised while the restart stops the old pipeline: ahead of all that the new one raises.
        engine().inStop = [&] {
            engine().inStop = nullptr;
            engine().worker.push_back([hardware] { engine().observer->onFailed(nullptr, 2, hardware); });
        };
        engine().runWorker();
        EXPECT_THAT(host_.told, IsEmpty());
        EXPECT_EQ(state(), PLAYER_STATE_PREPARING);
        events().onPrepared(nullptr, true, true);
        EXPECT_EQ(state(), PLAYER_STATE_STARTED);
        player_->stop();
        player_->reset();
        host_.told.clear();
    }
}

TEST_F(TarnPlayerRecoveryTest, PassesThroughStoppedOnItsWayBack) {
    reach(PLAYER_STATE_STARTED);
    events().onFailed(nullptr, 2, 1);
    EXPECT_EQ(state(), PLAYER_STATE_ERROR);
    int within = -1;
    engine().inStop = [&] { within = state(); };
    engine().runWorker();
    engine().inStop = nullptr;
    EXPECT_EQ(within, PLAYER_STATE_STOPPED);
    EXPECT_EQ(state(), PLAYER_STATE_PREPARING);
}

// Whatever stop says: a reset leaves the timer, and a source may be set by then.
TEST_F(TarnPlayerRecoveryTest, GivesTheTimerUpInEveryState) {
    for (const bool sourceSet : {false, true}) {
        player_->setOption("retry_when_failed", "2000");
        reach(PLAYER_STATE_STARTED);
        events().onFailed(nullptr, 1, 1);
        EXPECT_TRUE(player_->reset());
        EXPECT_EQ(engine().timers.size(), 1U);
        if (sourceSet) {
            EXPECT_TRUE(player_->setDataSource("another", 0, &host_));
        }
        engine().takeCalls();
        EXPECT_FALSE(player_->stop());
        EXPECT_THAT(engine().takeCalls(), ElementsAre(testing::StartsWith("removeTimer(")));
        EXPECT_THAT(engine().timers, IsEmpty());
        EXPECT_TRUE(player_->reset());
    }
}

TEST_F(TarnPlayerRecoveryTest, GivesATimerUpThatIsThereWhileItIsStopped) {
    reach(PLAYER_STATE_STOPPED);
    const unsigned int id = player_->addTimer(2000, /*oneShot=*/true, [] {});
    source().armTimer(id);
    engine().takeCalls();
    EXPECT_TRUE(player_->stop());
    EXPECT_THAT(engine().takeCalls(), ElementsAre("removeTimer(" + std::to_string(id) + ")"));
    EXPECT_THAT(engine().timers, IsEmpty());
    EXPECT_EQ(source().takeTimer(), 0U);
    EXPECT_EQ(state(), PLAYER_STATE_STOPPED);
}

TEST_F(TarnPlayerRecoveryTest, PausesAfterARestartIfThatIsAskedForMeanwhile) {
    player_->setOption("retry_when_failed", "2000");
    reach(PLAYER_STATE_STARTED);
    events().onFailed(nullptr, 1, 1);
    EXPECT_TRUE(player_->pause());
    engine().fire(1);
    events().onPrepared(nullptr, true, true);
    EXPECT_EQ(state(), PLAYER_STATE_PAUSED);
}

// A host that starts whatever becomes ready starts it at once; it pauses all the same.
TEST_F(TarnPlayerRecoveryTest, ComesBackPausedAlsoIfTheHostStartsItInThePreparedCallback) {
    player_->setOption("retry_when_failed", "2000");
    reach(PLAYER_STATE_PAUSED);
    events().onFailed(nullptr, 1, 1);
    engine().fire(1);
    engine().takeCalls();
    host_.inPrepared = [&] { EXPECT_TRUE(player_->start()); };
    events().onPrepared(nullptr, true, true);
    EXPECT_THAT(engine().takeCalls(), ElementsAre("play()", "runInWorker()", "pause()"));
    EXPECT_EQ(state(), PLAYER_STATE_PAUSED);
}

TEST_F(TarnPlayerRecoveryTest, TriesAgainAsOftenAsTheSourceIsAway) {
    player_->setOption("retry_when_failed", "2000");
    reach(PLAYER_STATE_PAUSED);
    events().onFailed(nullptr, 1, 1);
    for (int attempt = 0; attempt < 100; ++attempt) {
        engine().fire(engine().timers.begin()->first);
        ASSERT_EQ(state(), PLAYER_STATE_PREPARING);
        events().onFailed(nullptr, 1, 0);
        ASSERT_EQ(engine().timers.size(), 1U);
        ASSERT_EQ(engine().timers.begin()->second.intervalMs, 2000U);
    }
    engine().fire(engine().timers.begin()->first);
    events().onPrepared(nullptr, true, true);
    EXPECT_EQ(state(), PLAYER_STATE_PAUSED);
    EXPECT_THAT(host_.told, testing::Not(Contains(testing::HasSubstr("failed"))));
}

// A source that can be opened and shows nothing is as good as away.
TEST_F(TarnPlayerRecoveryTest, WaitsLongerFromTryToTryUntilSomethingIsShownWhereAClosedSourceHasFailed) {
    player_->setOption("retry_when_failed", "2000");
    player_->setOption("closed_live_source", "failed");
    for (const bool isPicture : {true, false}) {
        reach(PLAYER_STATE_STARTED);
        for (int attempt = 0; attempt < 10; ++attempt) {
            events().onFailed(nullptr, 1, attempt % 2);
            engine().fire(engine().timers.begin()->first);
            events().onPrepared(nullptr, true, true);
            ASSERT_EQ(state(), PLAYER_STATE_STARTED);
        }
        events().onFailed(nullptr, 1, 1);
        EXPECT_THAT(engine().timers.begin()->second.intervalMs,
                    testing::AllOf(testing::Ge(16000U), testing::Le(20000U)));
        engine().fire(engine().timers.begin()->first);
        events().onPrepared(nullptr, true, true);
        isPicture ? events().onFirstVideoFrame(nullptr, 0) : events().onFirstAudioFrame(nullptr, 0);
        events().onFailed(nullptr, 1, 1);
        EXPECT_THAT(engine().timers.begin()->second.intervalMs, testing::AllOf(testing::Ge(1600U), testing::Le(2000U)));
        EXPECT_TRUE(player_->stop());
        EXPECT_TRUE(player_->reset());
    }
}

TEST_F(TarnPlayerRecoveryTest, LeavesThePictureOnTheWindowsWhereAClosedSourceHasFailed) {
    player_->setOption("retry_when_failed", "2000");
    player_->setOption("closed_live_source", "failed");
    reach(PLAYER_STATE_STARTED);
    events().onFailed(nullptr, 1, 1);
    engine().takeCalls();
    engine().fire(1);
    EXPECT_THAT(engine().takeCalls(), ElementsAre("removeTimer(1)", "runInWorker()", "stopForRestart()",
                                                  "runInWorker()", "loadFileAsync(source, 0)"));
    EXPECT_TRUE(player_->stop());
    EXPECT_THAT(engine().takeCalls(), ElementsAre("stop()"));
}

TEST_F(TarnPlayerRecoveryTest, CutsTheRetryIntervalTo32Bits) {
    player_->setOption("retry_when_failed", "4294967300");
    reach(PLAYER_STATE_STARTED);
    events().onFailed(nullptr, 1, 1);
    EXPECT_EQ(engine().timers.at(1).intervalMs, 4U);
}

TEST_F(TarnPlayerRecoveryTest, GoesByTheFirstOfTwoFailures) {
    player_->setOption("retry_when_failed", "2000");
    reach(PLAYER_STATE_STARTED);
    events().onFailed(nullptr, 1, 1);
    events().onFailed(nullptr, 1, 1);
    engine().takeCalls();
    engine().fire(1);
    EXPECT_THAT(engine().takeCalls(),
                ElementsAre("removeTimer(2)", "runInWorker()", "stop()", "runInWorker()", "loadFileAsync(source, 0)"));
    EXPECT_THAT(engine().timers, IsEmpty());
}

TEST_F(TarnPlayerRecoveryTest, FallsBackToSoftwareWithoutAWord) {
    reach(PLAYER_STATE_STARTED);
    events().onFailed(nullptr, 2, 1);
    engine().runWorker();
    EXPECT_THAT(engine().takeCalls(), ElementsAre("enableHwDecoder(0, 0)", "runInWorker()", "stop()", "runInWorker()",
                                                  "loadFileAsync(source, 0)"));
    events().onPrepared(nullptr, true, true);
    engine().runWorker();
    EXPECT_THAT(host_.told, ElementsAre("prepared 1 1", "started"));
    // Now it is software already.
    host_.told.clear();
    events().onFailed(nullptr, 2, 0);
    EXPECT_THAT(host_.told, ElementsAre("failed 2"));
    // For good.
    engine().takeCalls();
    EXPECT_TRUE(player_->reset());
    EXPECT_THAT(engine().takeCalls(), ElementsAre("enableHwDecoder(0, 0)"));
}

}  // namespace
}  // namespace kelp::test
