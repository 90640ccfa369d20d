#include "av_distance.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kelp_player/frame_sink.h"
#include "kelp_player/log.h"
#include "kelp_player/sync_clock.h"
#include "kelp_player/tarn_player.h"

namespace {

constexpr int kRate = 48000;
constexpr int kFrameBytes = 4;        // two channels, 16 bits
constexpr int kDeviceSamples = 1024;  // that a device takes at once, and plays while the next ones are asked for
constexpr int kLoud = 6000;
constexpr int kBright = 128;
constexpr double kQuietMs = 300;  // between two events of a kind

double nowMs() {
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

enum class Master { Clock, Audio, Video, Host };
constexpr const char* kNames[] = {"clock", "audio", "video", "host"};

// Notes when the device took how much: SDL writes into a file what it would play, in its time.
class SoundWatch {
public:
    explicit SoundWatch(std::string path) : path_(std::move(path)), thread_([this] { watch(); }) {}
    ~SoundWatch() { stop(); }
    SoundWatch(const SoundWatch&) = delete;
    SoundWatch& operator=(const SoundWatch&) = delete;

    // When each beep could be heard: a device buffer after it was taken.
    std::vector<double> beeps() {
        stop();
        std::vector<int16_t> samples(static_cast<size_t>(sizes_.empty() ? 0 : sizes_.back().second) / 2);
        std::ifstream file(path_, std::ios::binary);
        file.read(reinterpret_cast<char*>(samples.data()), static_cast<std::streamsize>(samples.size() * 2));
        std::vector<double> beeps;
        double last = -1e9;
        for (size_t i = 0; i < samples.size(); i += 2) {
            if (std::abs(samples[i]) < kLoud) {
                continue;
            }
            const double at = heardAt(static_cast<int64_t>(i) * 2);
            if (at - last > kQuietMs) {
                beeps.push_back(at);
            }
            last = at;
        }
        return beeps;
    }

private:
    void watch() {
        while (!done_) {
            struct stat status {};
            if (stat(path_.c_str(), &status) == 0 && (sizes_.empty() || status.st_size != sizes_.back().second)) {
                sizes_.emplace_back(nowMs(), status.st_size);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    void stop() {
        done_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    double heardAt(int64_t byte) const {
        const auto block = std::find_if(sizes_.begin(), sizes_.end(), [&](const auto& s) { return s.second > byte; });
        const auto begin = byte / (kDeviceSamples * kFrameBytes) * (kDeviceSamples * kFrameBytes);
        const auto within = static_cast<double>(byte - begin) / kFrameBytes;
        return block->first + (kDeviceSamples + within) * 1000.0 / kRate;
    }

    const std::string path_;
    std::vector<std::pair<double, int64_t>> sizes_;  // the thread's until it ended
    std::atomic<bool> done_{false};
    std::thread thread_;
};

class Host final : public kelp::TarnPlayerObserver, public kelp::ExternFrameSink {
public:
    explicit Host(kelp::TarnSyncClock* clock) : clock_(clock) {}

    bool completed() const { return completed_; }
    bool failed() const { return failed_; }
    std::vector<double> flashes() {
        std::lock_guard lock(mutex_);
        return flashes_;
    }

    void onVideoSizeUpdated(int, int, int) override {}
    void onPrepared(bool, bool) override {}
    void onStarted() override {}
    void onFailed(int) override { failed_ = true; }
    void onFirstVideoFrame(int ptsMs) override {
        if (clock_ != nullptr) {
            clock_->reset(ptsMs);
            clock_->resume();
        }
    }
    void onFirstAudioFrame(int) override {}
    void onCompleted() override { completed_ = true; }
    void onDurationUpdated(int) override {}

    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int, int64_t, uint8_t** data, int*, int, int64_t) override {
        const bool bright = data[0][0] > kBright;
        std::lock_guard lock(mutex_);
        if (bright && !bright_) {
            flashes_.push_back(nowMs());
        }
        bright_ = bright;
        return true;
    }

private:
    kelp::TarnSyncClock* const clock_;
    std::atomic<bool> completed_{false};
    std::atomic<bool> failed_{false};
    std::mutex mutex_;  // guards what follows
    std::vector<double> flashes_;
    bool bright_ = false;
};

// From each flash to the nearest beep: positive where the picture is late.
std::vector<double> distances(const std::vector<double>& flashes, const std::vector<double>& beeps) {
    std::vector<double> apart;
    for (const double flash : flashes) {
        double nearest = 1e9;
        for (const double beep : beeps) {
            nearest = std::abs(flash - beep) < std::abs(nearest) ? flash - beep : nearest;
        }
        if (std::abs(nearest) < 1e6) {
            apart.push_back(nearest);
        }
    }
    // The first seconds are the start's.
    apart.erase(apart.begin(), apart.begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(4, apart.size())));
    return apart;
}

std::string figures(const std::string& clip, Master master, double speed) {
    const std::string sound = "/tmp/kelp_av_distance." + std::to_string(getpid());
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "disk", 1);
    setenv("SDL_DISKAUDIOFILE", sound.c_str(), 1);
    kelp::Log::SetLogCallback([](const char*) {});
    auto* clock = master == Master::Host ? kelp::TarnSyncClock::create(0, 10000) : nullptr;
    if (clock != nullptr) {
        clock->pause();
        clock->setSpeed(speed);
    }
    Host host(clock);
    SoundWatch watch(sound);
    auto* player = kelp::TarnPlayer::create();
    player->setOption("log_level", "none");
    player->enableHwDecoder(false, kelp::HW_DECODE_NONE);
    player->setAVSyncMode(master == Master::Audio   ? kelp::SYNC_MASTER_AUDIO
                          : master == Master::Video ? kelp::SYNC_MASTER_VIDEO
                                                    : kelp::SYNC_MASTER_CLOCK);
    player->setSyncClock(clock);
    player->setSpeed(static_cast<float>(speed));
    player->addWindow(static_cast<kelp::ExternFrameSink*>(&host), kelp::WINDOW_TYPE_EXTERN, 0, 0);
    player->setDataSource(clip.c_str(), 0, &host);
    player->prepareAsync();
    const double begin = nowMs();
    player->start();
    while (!host.completed() && !host.failed() && nowMs() - begin < 120'000) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const double length = nowMs() - begin;
    player->stop();
    kelp::TarnPlayer::destroy(player);
    kelp::TarnSyncClock::destroy(clock);
    auto apart = distances(host.flashes(), watch.beeps());
    std::filesystem::remove(sound);
    if (!host.completed() || apart.empty()) {
        return {};
    }
    std::sort(apart.begin(), apart.end());
    char row[128];
    std::snprintf(row, sizeof row, "| %-6s | %5.2f | %6.0f | %5.0f | %5.0f | %7zu | %6.1f |\n",
                  kNames[static_cast<int>(master)], speed, apart[apart.size() / 2], apart.front(), apart.back(),
                  apart.size(), length / 1000);
    return row;
}

// In a process of its own: SDL keeps the first driver's settings.
bool printRow(const std::string& clip, Master master, double speed) {
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        const int nowhere = open("/dev/null", O_WRONLY);
        dup2(nowhere, STDERR_FILENO);
        const std::string row = figures(clip, master, speed);
        std::fputs(row.c_str(), stdout);
        std::fflush(stdout);
        _exit(row.empty() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status == 0;
}

}  // namespace

bool printAvDistance() {
    const std::string clip = "build/bench_flashes.mp4";
    if (!std::filesystem::exists(clip)) {
        // A bright picture of 80 ms and a beep at every second that the film is old.
        const std::string command =
            "ffmpeg -nostdin -v error -y -f lavfi -i \"color=c=black:size=640x360:rate=25:duration=24,"
            "drawbox=c=white:t=fill:enable='lt(mod(t+0.001\\,1)\\,0.08)*gte(t\\,0.5)'\" "
            "-f lavfi -i \"aevalsrc='0.8*sin(2*PI*1000*t)*lt(mod(t\\,1)\\,0.08)*gte(t\\,0.5)':s=48000:d=24\" -ac 2 "
            "-c:v libx264 -preset veryfast -bf 2 -g 50 -pix_fmt yuv420p -c:a aac -b:a 128k " +
            clip;
        if (std::system(command.c_str()) != 0) {
            return false;
        }
    }
    std::printf("\n| master | speed | median | least |  most | flashes | wall s |\n");
    std::printf("| ------ | ----: | -----: | ----: | ----: | ------: | -----: |\n");
    bool ok = true;
    for (const Master master : {Master::Clock, Master::Audio, Master::Video, Master::Host}) {
        for (const double speed : {1.0, 2.0}) {
            ok = printRow(clip, master, speed) && ok;
        }
    }
    std::printf("\nPicture to sound in ms; positive: the picture comes later than its sound.\n");
    return ok;
}
