#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

#include "input/input_files.h"
#include "input/stream_parser_fixture.h"

namespace kelp::test {
namespace {

// Files that were cut or have wrong bytes: whatever comes of them, there is no crash, no hang and, by the leak check,
// no leak. The generator has a fixed seed; a failure names the file's damage.
class StreamParserDamage : public StreamParserTest {
protected:
    // Plays what is left of a file, with a seek in its course.
    void play(const std::string& path) {
        observer->clearEvents();
        if (parser->open(path, 0)) {
            parser->getStreamInfo();
            const auto info = parser->getCodecInfo();
            ASSERT_TRUE(parser->start());
            ASSERT_TRUE(waitForEnd());
            parser->seek(700);
            ASSERT_TRUE(observer->waitFor("seek completed"));
        }
        parser->close();
        // Opens at a position take another way through the demuxer.
        parser->open(path, 1000);
        parser->close();
    }

    // Completed, or given up.
    bool waitForEnd() {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (observer->count("completed") + observer->count("failed") == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            std::this_thread::yield();
        }
        return true;
    }

    // How often each file is damaged; KELP_DAMAGE_ROUNDS in the environment asks for more.
    static int rounds() {
        const char* asked = std::getenv("KELP_DAMAGE_ROUNDS");
        return asked ? std::atoi(asked) : 6;
    }
};

TEST_F(StreamParserDamage, CutFilesDoNoHarm) {
    std::mt19937 random(1);
    const std::string path = scratchPath("cut");
    for (const auto& file : inputFiles()) {
        const auto bytes = readBytes(inputFile(file.name));
        for (int round = 0; round < rounds(); ++round) {
            const size_t size = random() % bytes.size();
            SCOPED_TRACE(std::string(file.name) + " cut to " + std::to_string(size) + " bytes");
            writeBytes(path, {bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size)});
            play(path);
        }
    }
    std::remove(path.c_str());
}

TEST_F(StreamParserDamage, FlippedBitsDoNoHarm) {
    std::mt19937 random(2);
    const std::string path = scratchPath("flipped");
    for (const auto& file : inputFiles()) {
        const auto bytes = readBytes(inputFile(file.name));
        for (int round = 0; round < rounds(); ++round) {
            auto damaged = bytes;
            // Every other round in the head, where the structure stands.
            const size_t range = round % 2 == 0 ? damaged.size() : std::min<size_t>(damaged.size(), 2000);
            for (int i = 0; i < 30; ++i) {
                damaged[random() % range] ^= static_cast<uint8_t>(1U << (random() % 8));
            }
            SCOPED_TRACE(std::string(file.name) + " round " + std::to_string(round));
            writeBytes(path, damaged);
            play(path);
        }
    }
    std::remove(path.c_str());
}

}  // namespace
}  // namespace kelp::test
