#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kelp::bench {

// Notes when the sound device took how much: SDL's disk driver writes into a file what it would play, in its time.
// Sets that driver; to be made before the first player.
class SoundWatch {
public:
    // Between two beeps it is quiet for longer than `quietMs`.
    explicit SoundWatch(double quietMs);
    ~SoundWatch();
    SoundWatch(const SoundWatch&) = delete;
    SoundWatch& operator=(const SoundWatch&) = delete;

    // When each beep could be heard, on the steady clock: a device buffer after it was taken. Ends the watch.
    std::vector<double> beepsMs();

private:
    void watch();
    void stop();
    double heardAtMs(int64_t byte) const;

    const double quietMs_;
    const std::string path_;
    std::vector<std::pair<double, int64_t>> sizes_;  // when the file had how many bytes; the thread's until it ended
    std::atomic<bool> done_{false};
    std::thread thread_;
};

}  // namespace kelp::bench
