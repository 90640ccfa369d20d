#include "support/log_capture.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "kelp_player/log.h"

namespace kelp {
namespace {

using test::LogCapture;

TEST(LogCapture, GivesTagAndMessage) {
    LogCapture log;
    Log::Debug("Tag", "one %d\n", 1);
    Log::Error("Other", "two [0m [Odd]\n");
    Log::Message("Low", -1, "three\n");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"[Tag]: one 1\n", "[Other]: two [0m [Odd]\n", "[Low]: three\n"}));
    EXPECT_EQ(log.count("[Tag]: one"), 1);
    EXPECT_TRUE(log.has("two"));
    EXPECT_FALSE(log.has("four"));
    log.clear();
    EXPECT_TRUE(log.lines().empty());
}

TEST(LogCapture, FailsTheTestForALineOfTheLibraryAtAnotherLevelThanItsOwn) {
    LogCapture log(5);
    Log::Error("StreamParser", "Running... read failed, ret:%d\n", -5);
    Log::Warn("FFVideoDecoder", "open, have no hw accel for 27\n");
    Log::Info("TarnPlayer", "onCompleted\n");
    Log::Debug("TarnPlayer", "onPrepared new state:8\n");
    Log::PrintHex("StreamParser", nullptr, 0);
    EXPECT_NONFATAL_FAILURE(Log::Warn("StreamParser", "Running... read failed, ret:-5\n"), "due at level 1");
    EXPECT_NONFATAL_FAILURE(Log::Info("FFVideoDecoder", "open, have no hw accel for 27\n"), "due at level 2");
    EXPECT_NONFATAL_FAILURE(Log::Debug("TarnPlayer", "onCompleted\n"), "due at level 3: [TarnPlayer]: onCompleted");
    EXPECT_NONFATAL_FAILURE(Log::Info("TarnPlayer", "onPrepared new state:8\n"), "due at level 4");
    EXPECT_NONFATAL_FAILURE(Log::Message("Worker", 0, "text\n"), "of level 0");
    EXPECT_NONFATAL_FAILURE(Log::Message("Worker", 5, "text\n"), "of level -1");
    EXPECT_EQ(log.lines().size(), 11U);
}

TEST(LogCapture, PutsTheLevelBackAndTakesTheSinkAway) {
    const int level = Log::GetLevel();
    {
        LogCapture log(1);
        EXPECT_EQ(Log::GetLevel(), 1);
        Log::Warn("Tag", "not caught\n");
        EXPECT_TRUE(log.lines().empty());
    }
    EXPECT_EQ(Log::GetLevel(), level);
    testing::internal::CaptureStdout();
    Log::Error("Tag", "to the console\n");
    EXPECT_NE(testing::internal::GetCapturedStdout().find("[Tag]: to the console\n"), std::string::npos);
}

TEST(LogCapture, MayGoWhileOthersLog) {
    testing::internal::CaptureStdout();  // lines between two captures
    std::atomic<bool> stop{false};
    std::thread thread([&] {
        while (!stop) {
            Log::Debug("Tag", "line\n");
        }
    });
    for (int i = 0; i < 30; ++i) {
        LogCapture log;
        while (log.lines().empty()) {
            std::this_thread::yield();
        }
    }
    stop = true;
    thread.join();
    testing::internal::GetCapturedStdout();
}

}  // namespace
}  // namespace kelp
