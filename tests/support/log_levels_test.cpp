#include "support/log_levels.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "kelp_player/log.h"
#include "support/log_capture.h"

namespace kelp {
namespace {

using test::LogCapture;

TEST(LogLevels, AreLookedAtAlsoWhereTheLineIsLeftOut) {
    LogCapture log(0);
    Log::Error("StreamMuxer", "%s, not open\n", "outputFrame");
    Log::Warn("FFAudioDecoder", "%s, audio buffer is probably too small\n", "deliverAudioFrame");
    Log::Info("StreamMuxer", "%s, succeed!\n", "start");
    Log::Debug("SDLAudioOutput", "flush\n");
    EXPECT_NONFATAL_FAILURE(Log::Warn("StreamMuxer", "%s, not open\n", "outputFrame"), "due at level 1");
    EXPECT_NONFATAL_FAILURE(Log::Error("SDLAudioOutput", "flush\n"), "due at level 4");
    EXPECT_NONFATAL_FAILURE(Log::Info("SDLAudioOutput", "flush\n"), "due at level 4");
    EXPECT_NONFATAL_FAILURE(Log::Debug("StreamMuxer", "%s, succeed!\n", "start"), "due at level 3");
    Log::Debug("NewStage", "begun\n");
    EXPECT_NONFATAL_FAILURE(Log::Warn("NewStage", "begun\n"), "due at level 4");
    EXPECT_TRUE(log.lines().empty());
}

TEST(LogLevels, AreLookedAtWithoutAChangeToTheLine) {
    LogCapture log;
    Log::Info("Tag", "%d%% %s\n", 5, "%s");
    EXPECT_EQ(log.lines(), std::vector<std::string>{"[Tag]: 5% %s\n"});
}

}  // namespace
}  // namespace kelp
