#pragma once

#include <atomic>
#include <string>

#include "input/stream_parser_fixture.h"

namespace kelp::test {

// What the tests of the read loop share: inputs, and scripts that run to the end of the file.
class StreamParserRead : public StreamParserTest {
protected:
    static SyntheticInput inputNamed(const std::string& format) {
        SyntheticInput input;
        input.formatName = format;
        return input;
    }

    // As runScript, for a script that ends with the end of the file.
    void runToTheEnd() {
        observer->onEvent = [this](const std::string& event) {
            if (event == "completed") {
                parser->requestStop();
            }
        };
        script.install();
        ASSERT_TRUE(parser->start());
        ASSERT_TRUE(observer->waitFor("completed"));
        parser->stop();
    }

    // An input with one H.264 stream whose packets go through the filter.
    static SyntheticInput lengthPrefixedInput() {
        SyntheticInput input;
        input.streams = {videoStream()};
        input.streams[0].extraData = {1,    0x42, 0xC0, 0x0A, 0xFF, 0xE1, 0,    4,    0x67, 0x42,
                                      0xC0, 0x0A, 1,    0,    4,    0x68, 0xCE, 0x38, 0x80};
        return input;
    }

    // Counts the pauses and resumes that reach the demuxer.
    void countPauses() {
        hooks().readPause = [this](AVFormatContext*) {
            ++pauses;
            return 0;
        };
        hooks().readPlay = [this](AVFormatContext*) {
            ++plays;
            return 0;
        };
    }

    std::atomic<int> pauses{0};
    std::atomic<int> plays{0};
};

}  // namespace kelp::test
