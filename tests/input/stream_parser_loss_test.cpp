// The end of a live source or a pipe where it counts as its loss.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "input/stream_parser_fixture.h"
#include "support/temp_files.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;

class StreamParserLoss : public StreamParserTest {
protected:
    StreamParserLoss() {
        PlaybackOptions options;
        options.closedLiveFails = true;
        parser->setPlaybackOptions(options);
    }

    static SyntheticInput inputNamed(const std::string& format, int64_t durationUs = AV_NOPTS_VALUE) {
        SyntheticInput input;
        input.formatName = format;
        input.durationUs = durationUs;
        return input;
    }
};

TEST_F(StreamParserLoss, OfALiveSourceIsToldOnceWhatWasReadHasBeenShown) {
    for (const char* format : {"rtsp", "sdp"}) {
        parser->close();
        observer->clearEvents();
        observer->videoFrames_ = 2;
        ASSERT_TRUE(open(inputNamed(format)));
        ReadScript own(*parser);
        own.key(0).audio(0).endOfFile();
        FakeTime::setManual(true);
        own.install();
        ASSERT_TRUE(parser->start());
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
        step(1000);
        // The end packet brings the last pictures out of the decoder; no duration is told.
        EXPECT_THAT(observer->events(), ElementsAre("video 0 key", "first video 0", "audio 0", "end found"));
        observer->videoFrames_ = 0;
        step(1000);
        EXPECT_EQ(observer->count("failed"), 1);
        EXPECT_EQ(observer->count("completed"), 0);
        FakeTime::setManual(false);
        parser->stop();
    }
}

TEST_F(StreamParserLoss, IsNotToldInAPause) {
    ASSERT_TRUE(open(inputNamed("sdp")));
    script.then([this] { parser->pause(true); }).endOfFile();
    startStepping();
    step(1000);
    EXPECT_EQ(observer->count("failed"), 0);
    parser->pause(false);
    step(100);
    EXPECT_EQ(observer->count("failed"), 1);
}

TEST_F(StreamParserLoss, IsNotTheEndOfAFile) {
    ASSERT_TRUE(open(inputNamed("mpegts", 60'000'000)));
    script.key(0).endOfFile();
    startStepping();
    EXPECT_THAT(observer->events(),
                ElementsAre("video 0 key", "first video 0", "end found", "file end 0 -1", "completed"));
}

TEST_F(StreamParserLoss, IsTheEndOfAPipeWithoutAKnownLength) {
    for (const int64_t durationUs : {int64_t{AV_NOPTS_VALUE}, int64_t{60'000'000}}) {
        parser->close();
        observer->clearEvents();
        ASSERT_TRUE(open(inputNamed("mpegts", durationUs), "pipe:7"));
        ReadScript own(*parser);
        own.key(0).endOfFile();
        FakeTime::setManual(true);
        own.install();
        ASSERT_TRUE(parser->start());
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
        EXPECT_EQ(observer->count("failed"), durationUs == AV_NOPTS_VALUE ? 1 : 0);
        EXPECT_EQ(observer->count("completed"), durationUs == AV_NOPTS_VALUE ? 0 : 1);
        FakeTime::setManual(false);
        parser->stop();
    }
}

// Pipes of the file system, with real time: an open of one waits in the system for who writes.
class StreamParserPipe : public StreamParserTest {
protected:
    StreamParserPipe() { EXPECT_EQ(mkfifo(path_.c_str(), 0600), 0); }

    TempFolder folder_;
    const std::string path_ = folder_.path("pipe");
};

TEST_F(StreamParserPipe, IsGivenUpWhenNobodyWritesToIt) {
    std::thread opening([this] { EXPECT_FALSE(parser->open(path_, 0)); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const auto begin = std::chrono::steady_clock::now();
    parser->stop();
    opening.join();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST_F(StreamParserPipe, IsReadToItsEndAlsoIfWhoWroteHasGone) {
    std::thread writing([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const int end = ::open(path_.c_str(), O_WRONLY);
        EXPECT_EQ(write(end, "no media", 8), 8);
        ::close(end);
    });
    EXPECT_FALSE(parser->open(path_, 0));
    writing.join();
    EXPECT_THAT(logLines("open input file"), ElementsAre(testing::HasSubstr("Invalid data found")));
}

}  // namespace
}  // namespace kelp::test
