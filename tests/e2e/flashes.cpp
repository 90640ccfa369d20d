#include "e2e/flashes.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "e2e/recording_sink.h"

namespace kelp::test {

namespace {

constexpr int kRate = 48000;
constexpr int kFrameBytes = 4;       // two channels, 16 bits
constexpr int kWrittenBytes = 4096;  // at once, by the driver's file
constexpr int kLoud = 6000;
constexpr int kBright = 128;

double nowMs() {
    return static_cast<double>(steadyUs()) / 1000;
}

bool make(double beepsSoonerSeconds, int periodMs, const std::string& rest) {
    const std::string flashes = "\\," + std::to_string(periodMs / 1000.0) + ")\\,0.08)'";
    return std::system(("ffmpeg -nostdin -v error -y -f lavfi -i \"color=c=black:size=320x180:rate=25:duration=60,"
                        "drawbox=c=white:t=fill:enable='lt(mod(t+0.521" +
                        flashes +
                        "\" "
                        "-f lavfi -i \"aevalsrc='0.8*sin(2*PI*1000*t)*lt(mod(t+" +
                        std::to_string(0.52 + beepsSoonerSeconds) + flashes +
                        ":s=8000:d=60\" -c:v libx264 -preset veryfast -g 50 -pix_fmt yuv420p " + rest)
                           .c_str()) == 0;
}

}  // namespace

bool makeFlashes(const std::string& rest) {
    return make(0, kFlashPeriodMs, rest);
}

bool makeCameraFlashes(const std::string& path, int periodMs) {
    constexpr double kPrimingSeconds = 1024.0 / kRate;
    return make(kPrimingSeconds, periodMs, "-bf 0 -ar 48000 -ac 2 -c:a aac -b:a 128k " + path);
}

Beeps::Beeps(const std::string& path, int blockFrames, double quietMs)
    : path_(path), blockFrames_(blockFrames), quietMs_(quietMs) {
    unlink(path.c_str());
    if (mkfifo(path.c_str(), 0600) != 0) {
        std::perror(path.c_str());
        std::exit(2);
    }
    // For writing as well: it never ends.
    pipe_ = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    setenv("SDL_DISKAUDIOFILE", path.c_str(), 1);
    thread_ = std::thread([this] { read(); });
}

Beeps::~Beeps() {
    done_ = true;
    thread_.join();
    close(pipe_);
    unlink(path_.c_str());
}

std::vector<double> Beeps::timesMs() {
    std::lock_guard lock(mutex_);
    return timesMs_;
}

void Beeps::read() {
    std::array<unsigned char, 1 << 16> part;
    while (!done_) {
        pollfd wanted{pipe_, POLLIN, 0};
        if (poll(&wanted, 1, 100) < 1) {
            continue;
        }
        const ssize_t size = ::read(pipe_, part.data(), part.size());
        if (size > 0) {
            take(part.data(), size, nowMs());
        }
    }
}

// The driver's file is buffered: of blocks that come together the first ones were asked for before, and of those that
// are smaller than its buffer the last one as well.
void Beeps::take(const unsigned char* bytes, int64_t size, double atMs) {
    const int64_t blockBytes = int64_t{blockFrames_} * kFrameBytes;
    const int64_t end = bytes_ + size;
    for (int64_t i = 0; i + 1 < size; i += kFrameBytes) {
        int16_t sample = 0;
        std::memcpy(&sample, bytes + i, sizeof sample);
        if (std::abs(sample) < kLoud) {
            continue;
        }
        const int64_t begin = (bytes_ + i) / blockBytes * blockBytes;
        const int64_t behind = (end - begin) / blockBytes - (blockBytes < kWrittenBytes ? 0 : 1);
        const int64_t frames = blockFrames_ * (1 - behind) + (bytes_ + i - begin) / kFrameBytes;
        const double heardMs = atMs + static_cast<double>(frames) * 1000 / kRate;
        if (heardMs - lastLoudMs_ > quietMs_) {
            std::lock_guard lock(mutex_);
            timesMs_.push_back(heardMs);
        }
        lastLoudMs_ = heardMs;
    }
    bytes_ = end;
}

std::vector<double> Flashes::timesMs() {
    std::lock_guard lock(mutex_);
    return timesMs_;
}

bool Flashes::onVideoFrame(int, int64_t, uint8_t** data, int*, int, int64_t) {
    const bool isBright = data[0][0] > kBright;
    if (isBright && !wasBright_) {
        std::lock_guard lock(mutex_);
        timesMs_.push_back(nowMs());
    }
    wasBright_ = isBright;
    return true;
}

std::vector<double> flashesToBeeps(const std::vector<double>& flashesMs, const std::vector<double>& beepsMs,
                                   double fromMs, double toMs, double periodMs) {
    std::vector<double> apart;
    for (const double flash : flashesMs) {
        if (flash < fromMs || flash >= toMs) {
            continue;
        }
        double nearest = periodMs;
        for (auto beep = std::ranges::lower_bound(beepsMs, flash - periodMs / 2);
             beep != beepsMs.end() && *beep < flash + periodMs / 2; ++beep) {
            nearest = std::abs(flash - *beep) < std::abs(nearest) ? flash - *beep : nearest;
        }
        if (nearest < periodMs) {
            apart.push_back(nearest);
        }
    }
    std::ranges::sort(apart);
    return apart;
}

}  // namespace kelp::test
