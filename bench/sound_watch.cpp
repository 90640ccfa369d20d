#include "sound_watch.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "measures.h"

namespace kelp::bench {

namespace {

constexpr int kRate = 48000;
constexpr int kFrameBytes = 4;        // two channels, 16 bits
constexpr int kDeviceSamples = 1024;  // that a device takes at once, and plays while the next ones are asked for
constexpr int kLoud = 6000;

}  // namespace

SoundWatch::SoundWatch(double quietMs)
    : quietMs_(quietMs),
      path_((std::filesystem::temp_directory_path() / ("kelp_bench_sound." + std::to_string(getpid()))).string()) {
    setenv("SDL_AUDIODRIVER", "disk", 1);
    setenv("SDL_DISKAUDIOFILE", path_.c_str(), 1);
    thread_ = std::thread([this] { watch(); });
}

SoundWatch::~SoundWatch() {
    stop();
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
}

std::vector<double> SoundWatch::beepsMs() {
    stop();
    std::vector<int16_t> samples(static_cast<size_t>(sizes_.empty() ? 0 : sizes_.back().second) / 2);
    std::ifstream file(path_, std::ios::binary);
    file.read(reinterpret_cast<char*>(samples.data()), static_cast<std::streamsize>(samples.size() * 2));
    std::vector<double> beeps;
    const auto quiet = static_cast<int64_t>(quietMs_ * kRate / 1000);
    int64_t last = -quiet;
    for (int64_t frame = 0; frame < static_cast<int64_t>(samples.size() / 2); ++frame) {
        if (std::abs(samples[static_cast<size_t>(2 * frame)]) < kLoud) {
            continue;
        }
        if (frame - last >= quiet) {
            beeps.push_back(heardAtMs(frame * kFrameBytes));
        }
        last = frame;
    }
    return beeps;
}

void SoundWatch::watch() {
    while (!done_) {
        struct stat status {};
        if (stat(path_.c_str(), &status) == 0 && (sizes_.empty() || status.st_size != sizes_.back().second)) {
            sizes_.emplace_back(nowMs(), status.st_size);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void SoundWatch::stop() {
    done_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
}

// The driver's file is buffered: of two blocks it gets the first one only with the second.
double SoundWatch::heardAtMs(int64_t byte) const {
    constexpr int64_t kBlockBytes = kDeviceSamples * kFrameBytes;
    const auto written = std::find_if(sizes_.begin(), sizes_.end(), [&](const auto& s) { return s.second > byte; });
    const int64_t begin = byte / kBlockBytes * kBlockBytes;
    const int64_t behind = (written->second - begin) / kBlockBytes - 1;
    const auto samples = kDeviceSamples * (1 - behind) + (byte - begin) / kFrameBytes;
    return written->first + static_cast<double>(samples) * 1000.0 / kRate;
}

}  // namespace kelp::bench
