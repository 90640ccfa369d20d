#include "input/stream_parser_fixture.h"

extern "C" {
#include <libavutil/log.h>
}

namespace kelp::test {

StreamParserTest::StreamParserTest() {
    av_log_set_level(AV_LOG_QUIET);
    FakeTime::reset();
    resetHooks();
    parser->init(observer);
}

StreamParserTest::~StreamParserTest() {
    FakeTime::reset();
    if (parser) {
        parser->stop();  // its thread reads the member by way of a script
    }
    parser.reset();
    resetHooks();
}

bool StreamParserTest::open(const SyntheticInput& input, const std::string& path) {
    input.install();
    return parser->open(path, 0);
}

void StreamParserTest::runScript() {
    script.install();
    ASSERT_TRUE(parser->start());
    EXPECT_TRUE(script.waitUntilDone());
    parser->stop();
}

void StreamParserTest::startStepping() {
    FakeTime::setManual(true);
    script.install();
    ASSERT_TRUE(parser->start());
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
}

void StreamParserTest::step(int ms) {
    ASSERT_TRUE(FakeTime::runFor(ms, 1));
}

std::vector<std::string> StreamParserTest::logLines(const std::string& text) {
    const std::string tag = "[StreamParser]: ";
    std::vector<std::string> found;
    for (const auto& line : log.lines()) {
        if (line.starts_with(tag) && line.find(text) != std::string::npos) {
            found.push_back(line.substr(tag.size()));
        }
    }
    return found;
}

}  // namespace kelp::test
