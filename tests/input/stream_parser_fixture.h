#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "clock/timestamp_extrapolator.h"
#include "input/demuxer_hooks.h"
#include "input/recording_observer.h"
#include "input/recording_taker.h"
#include "input/stream_parser.h"
#include "input/synthetic_input.h"
#include "support/fake_time.h"
#include "support/log_capture.h"

namespace kelp::test {

// A parser with a recording observer, over a synthetic input and a script of packets unless a test opens a file.
class StreamParserTest : public testing::Test {
protected:
    StreamParserTest();
    ~StreamParserTest() override;

    // Opens `input`; whether it worked.
    bool open(const SyntheticInput& input = {}, const std::string& path = "input");
    // Runs the script from start to end with time that flies, and joins the thread.
    void runScript();
    // Starts the thread with the script and with time that stands still.
    void startStepping();
    // Lets `ms` pass; the thread sleeps again afterwards.
    void step(int ms);
    // The log's lines of the parser that hold `text`, without the tag.
    std::vector<std::string> logLines(const std::string& text);

    LogCapture log;
    std::shared_ptr<RecordingObserver> observer = std::make_shared<RecordingObserver>();
    TimestampExtrapolator extrapolator;
    std::shared_ptr<PacketOutlet> outlet = std::make_shared<PacketOutlet>();
    std::shared_ptr<RecordingTaker> subtitles = std::make_shared<RecordingTaker>();
    std::unique_ptr<StreamParser> parser = std::make_unique<StreamParser>(&extrapolator, outlet, subtitles);
    ReadScript script{*parser};
};

}  // namespace kelp::test
