#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kelp_player/frame_sink.h"

namespace kelp::test {

// Black, with a bright picture and a beep of 80 ms each second: how far the two are apart tells how well picture and
// sound are in step.
constexpr int kFlashPeriodMs = 1000;

// Makes a minute of it, of 320x180 at 25 pictures a second, which can be put together evenly with others; `rest` is
// what the ffmpeg command is told of the codecs, and the file. False if it can't.
bool makeFlashes(const std::string& rest);
// The same with AAC, for the RTSP server, which takes the samples before the first one for sound: the beeps come as
// much sooner. A whole number of other periods than a second fits into the minute as well.
bool makeCameraFlashes(const std::string& path, int periodMs = kFlashPeriodMs);

// When the beeps of what SDL's disk driver writes could be heard, in milliseconds of steadyUs. It writes into a pipe,
// so that nothing piles up.
class Beeps {
public:
    // To be made before the player opens its sound device, and then the next one. The program ends if that can't be.
    // The device takes so many samples at once, and plays them while the next ones are asked for. Between two beeps it
    // is quiet for longer than `quietMs`.
    Beeps(const std::string& path, int blockFrames, double quietMs = 300);
    ~Beeps();
    Beeps(const Beeps&) = delete;
    Beeps& operator=(const Beeps&) = delete;

    bool isOpen() const { return bytes_ > 0; }
    std::vector<double> timesMs();

private:
    void read();
    void take(const unsigned char* bytes, int64_t size, double atMs);

    const std::string path_;
    const int blockFrames_;
    const double quietMs_;
    int pipe_ = -1;
    std::atomic<int64_t> bytes_{0};
    double lastLoudMs_ = 0;
    std::mutex mutex_;
    std::vector<double> timesMs_;  // guarded by mutex_
    std::atomic<bool> done_{false};
    std::thread thread_;
};

// When a picture turns from dark to bright, in milliseconds of steadyUs.
class Flashes final : public ExternFrameSink {
public:
    virtual ~Flashes() = default;

    std::vector<double> timesMs();

private:
    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int, int64_t, uint8_t** data, int*, int, int64_t) override;

    bool wasBright_ = false;
    std::mutex mutex_;
    std::vector<double> timesMs_;  // guarded by mutex_
};

// From each flash between the two times to the beep that is nearest, in milliseconds and sorted: positive where the
// picture comes later. Flashes without a beep in their period are left out.
std::vector<double> flashesToBeeps(const std::vector<double>& flashesMs, const std::vector<double>& beepsMs,
                                   double fromMs, double toMs, double periodMs = kFlashPeriodMs);

}  // namespace kelp::test
