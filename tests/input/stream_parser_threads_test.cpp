#include <random>
#include <thread>

#include "input/input_files.h"
#include "input/stream_parser_fixture.h"

namespace kelp::test {
namespace {

// Commands from other threads while the parser reads. What they check most of all is seen by the sanitizers.
using StreamParserThreads = StreamParserTest;

TEST_F(StreamParserThreads, TakeCommandsFromAllSidesWhileReading) {
    observer->keepPackets = false;
    ASSERT_TRUE(parser->open(inputFile("h264_mp3.ts"), 0));
    ASSERT_TRUE(parser->start());
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < 3; ++i) {
        threads.emplace_back([this, i] {
            std::mt19937 random(i);
            for (int round = 0; round < 200; ++round) {
                switch (random() % 4) {
                    case 0:
                        parser->seek(static_cast<int>(random() % 10'000));
                        break;
                    case 1:
                        parser->pause(random() % 2 == 0);
                        break;
                    case 2:
                        parser->setOption("user_agent", std::to_string(round).c_str());
                        break;
                    default:
                        EXPECT_TRUE(parser->getStreamInfo()->has_video);
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    parser->pause(false);
    // However many were lost in newer ones, the last one is carried out.
    parser->seek(8765);
    EXPECT_TRUE(observer->waitFor("seek start 8765"));
    EXPECT_TRUE(observer->waitFor("completed"));
    parser->stop();
}

TEST_F(StreamParserThreads, CarryOutTheLastOfManySeeks) {
    SyntheticInput().install();
    hooks().seekFile = [](AVFormatContext*, int, int64_t, int64_t, int64_t, int) { return 0; };
    hooks().readFrame = [](AVFormatContext*, AVPacket*) { return AVERROR(EAGAIN); };
    ASSERT_TRUE(parser->open("input", 0));
    ASSERT_TRUE(parser->start());
    for (int round = 1; round <= 200; ++round) {
        for (int i = 0; i < 20; ++i) {
            parser->seek(i);
        }
        parser->seek(100 + round);
        ASSERT_TRUE(observer->waitFor("seek start " + std::to_string(100 + round))) << round;
    }
    parser->stop();
}

TEST_F(StreamParserThreads, StopAtAnyMoment) {
    std::mt19937 random(3);
    observer->keepPackets = false;
    const std::string path = inputFile("h264_aac.mp4");
    for (int round = 0; round < 40; ++round) {
        ASSERT_TRUE(parser->open(path, 0));
        ASSERT_TRUE(parser->start());
        const auto spins = random() % 20'000;
        for (unsigned int i = 0; i < spins; ++i) {
            std::atomic_signal_fence(std::memory_order_seq_cst);
        }
        if (round % 3 == 0) {
            parser->seek(1000);
        }
        if (round % 2 == 0) {
            parser->stop();
        }
        parser->close();
    }
}

TEST_F(StreamParserThreads, StopAnOpenAtAnyMoment) {
    std::mt19937 random(4);
    const std::string path = inputFile("h264_mp3.ts");
    for (int round = 0; round < 40; ++round) {
        std::thread opening([&] { parser->open(path, round % 2 == 0 ? 0 : 3000); });
        // In real time, for the open takes real time.
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        parser->stop();
        opening.join();
        parser->close();
    }
    EXPECT_TRUE(parser->open(path, 0));
}

}  // namespace
}  // namespace kelp::test
