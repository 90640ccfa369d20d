#include "input/awaited_pipe.h"

#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>

#include "support/temp_files.h"

namespace kelp::test {
namespace {

// A host's signals interrupt what the thread waits in, and say nothing of a writer.
TEST(AwaitedPipe, WaitsOnThroughASignal) {
    const TempFolder folder;
    const std::string path = folder.path("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    struct sigaction handler {};
    handler.sa_handler = [](int) {};
    struct sigaction before {};
    ASSERT_EQ(sigaction(SIGUSR2, &handler, &before), 0);
    std::atomic<int> looks{0};
    std::atomic<bool> stopped{false};
    std::atomic<bool> ended{false};
    std::thread waiter([&] {
        const AwaitedPipe pipe(path, [&] {
            ++looks;
            return stopped.load();
        });
        ended = true;
    });
    const auto waitForLooks = [&](int count) {
        while (looks < count && !ended) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    for (int i = 0; i < 5; ++i) {
        waitForLooks(looks + 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));  // in its wait, mostly
        pthread_kill(waiter.native_handle(), SIGUSR2);
        waitForLooks(looks + 2);
        EXPECT_FALSE(ended);
    }
    stopped = true;
    waiter.join();
    sigaction(SIGUSR2, &before, nullptr);
}

}  // namespace
}  // namespace kelp::test
