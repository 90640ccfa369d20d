#include "present/audio_device_search.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "support/fake_time.h"

namespace kelp::test {
namespace {

// Opens at once, and counts how often it was closed.
class ClosedOutput : public IAudioOutput {
public:
    bool init(AudioOutputSpec) override { return true; }
    bool fillFrame(std::shared_ptr<AudioFrameInfo>) override { return true; }
    int getBufferDuration() override { return 0; }
    bool pause(bool) override { return true; }
    void close() override { ++closed; }
    void flush() override {}
    bool setVolume(float) override { return true; }

    std::atomic<int> closed{0};
};

TEST(AudioDeviceSearch, ClosesWhatItHasFoundAndNobodyTookWhenItGoes) {
    FakeTime::reset();
    FakeTime::setManual(true);  // so that what it waits for is the attempt
    const auto found = std::make_shared<ClosedOutput>();
    {
        AudioDeviceSearch search([&](AudioDeviceSearch::Attempt) { return found; });
        search.begin({}, nullptr);
        search.waitForFirst(20'000);
        EXPECT_EQ(found->closed, 0);
    }
    EXPECT_EQ(found->closed, 1);
    FakeTime::reset();
}

}  // namespace
}  // namespace kelp::test
