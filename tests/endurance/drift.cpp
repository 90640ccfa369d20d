// Plays a film and a camera side by side for a long time, and tells how far their flashes are from their beeps.
//
//   drift [--minutes N] [--window MINUTES]
//
// An hour unless --minutes says so. The film is a file as long as that, the camera an RTSP server on the loopback
// address, played twice: with the low delay, where pictures wait for nothing and the sound comes when it can, and with
// the standard one. All are black, with a bright picture and a beep each second, and are played with `preset` as
// `recommended`, into a frame sink and SDL's disk driver. After each window, five minutes, a line comes for each: the
// median of the distances in it, and how many of a hundred are within 25 ms. Above zero the picture comes later than
// its sound. The last lines compare the last window with the first, and the program fails if they are more than 10 ms
// apart.

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "e2e/rtsp_server.h"
#include "kelp_player/frame_sink.h"
#include "kelp_player/kelp_player.h"

namespace {

using namespace kelp;

constexpr int kRate = 48000;
constexpr int kFrameBytes = 4;        // two channels, 16 bits
constexpr int kDeviceSamples = 1024;  // that a device takes at once, and plays while the next ones are asked for
constexpr int kLoud = 6000;
constexpr double kQuietMs = 300;    // between two beeps
constexpr double kPeriodMs = 1000;  // between two flashes
constexpr double kTogetherMs = 25;
constexpr double kMostDriftMs = 10;
constexpr double kStartMs = 10'000;  // that don't count
constexpr int kBright = 128;
constexpr int kPatienceMs = 60'000;

double nowMs() {
    return static_cast<double>(test::steadyUs()) / 1000;
}

// When the beeps of what a disk driver writes could be heard. It writes into a pipe, so that nothing piles up.
class Beeps {
public:
    // To be made before the player opens its sound device, and then the next one.
    explicit Beeps(const std::string& path) : path_(path) {
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
    ~Beeps() {
        done_ = true;
        thread_.join();
        close(pipe_);
        unlink(path_.c_str());
    }
    Beeps(const Beeps&) = delete;
    Beeps& operator=(const Beeps&) = delete;

    bool isOpen() const { return bytes_ > 0; }
    std::vector<double> timesMs() {
        std::lock_guard lock(mutex_);
        return timesMs_;
    }

private:
    void read() {
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

    // The device plays a block while it asks for the next one; the driver's file is buffered, so of two blocks that
    // come together the first one was asked for before.
    void take(const unsigned char* bytes, int64_t size, double atMs) {
        constexpr int64_t kBlockBytes = kDeviceSamples * kFrameBytes;
        const int64_t end = bytes_ + size;
        for (int64_t i = 0; i + 1 < size; i += kFrameBytes) {
            int16_t sample = 0;
            std::memcpy(&sample, bytes + i, sizeof sample);
            if (std::abs(sample) < kLoud) {
                continue;
            }
            const int64_t begin = (bytes_ + i) / kBlockBytes * kBlockBytes;
            const int64_t behind = (end - begin) / kBlockBytes - 1;
            const int64_t samples = kDeviceSamples * (1 - behind) + (bytes_ + i - begin) / kFrameBytes;
            const double heardMs = atMs + static_cast<double>(samples) * 1000 / kRate;
            if (heardMs - lastLoudMs_ > kQuietMs) {
                std::lock_guard lock(mutex_);
                timesMs_.push_back(heardMs);
            }
            lastLoudMs_ = heardMs;
        }
        bytes_ = end;
    }

    const std::string path_;
    int pipe_ = -1;
    std::atomic<int64_t> bytes_{0};
    double lastLoudMs_ = 0;
    std::mutex mutex_;  // guards timesMs_
    std::vector<double> timesMs_;
    std::atomic<bool> done_{false};
    std::thread thread_;
};

// When a picture turns from dark to bright.
class Flashes final : public ExternFrameSink {
public:
    virtual ~Flashes() = default;

    std::vector<double> timesMs() {
        std::lock_guard lock(mutex_);
        return timesMs_;
    }

private:
    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int, int64_t, uint8_t** data, int*, int, int64_t) override {
        const bool isBright = data[0][0] > kBright;
        if (isBright && !wasBright_) {
            std::lock_guard lock(mutex_);
            timesMs_.push_back(nowMs());
        }
        wasBright_ = isBright;
        return true;
    }

    bool wasBright_ = false;
    std::mutex mutex_;  // guards timesMs_
    std::vector<double> timesMs_;
};

// A playback that is watched.
class Watched {
public:
    Watched(std::string name, const std::string& pipe) : name_(std::move(name)), beeps_(pipe) {}

    // Returns when its sound device is open.
    bool play(const std::string& url, const char* liveDelay) {
        KelpPlayer& player = playback_.player();
        player.setOption("log_level", "none");
        player.setOption("preset", "recommended");
        player.setOption("live_delay", liveDelay);
        player.enableHwDecoder(false, HW_DECODE_NONE);
        player.setAVSyncMode(SYNC_MASTER_AUDIO);
        player.addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&flashes_), 0, 0);
        if (!playback_.open(url, kPatienceMs) || !player.play()) {
            return false;
        }
        for (const double end = nowMs() + kPatienceMs; !beeps_.isOpen() && nowMs() < end;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return beeps_.isOpen();
    }

    // Tells about the time from `fromMs` to `toMs`, the window of that number; its median.
    std::optional<double> tell(int minute, double fromMs, double toMs) {
        const std::vector<double> beeps = beeps_.timesMs();
        std::vector<double> apart;
        for (const double flash : flashes_.timesMs()) {
            if (flash < fromMs || flash >= toMs || beeps.empty()) {
                continue;
            }
            const auto next = std::ranges::lower_bound(beeps, flash - kPeriodMs / 2);
            double nearest = kPeriodMs;
            for (auto beep = next; beep != beeps.end() && *beep < flash + kPeriodMs / 2; ++beep) {
                nearest = std::abs(flash - *beep) < std::abs(nearest) ? flash - *beep : nearest;
            }
            if (nearest < kPeriodMs) {
                apart.push_back(nearest);
            }
        }
        if (apart.empty()) {
            std::printf("%-22s from minute %3d: nothing\n", name_.c_str(), minute);
            return std::nullopt;
        }
        std::ranges::sort(apart);
        const auto near = std::ranges::count_if(apart, [](double ms) { return std::abs(ms) <= kTogetherMs; });
        const double median = apart[apart.size() / 2];
        std::printf("%-22s from minute %3d: median %6.1f ms, %5.1f to %5.1f, %5.1f %% within %.0f ms, %zu flashes\n",
                    name_.c_str(), minute, median, apart.front(), apart.back(),
                    100.0 * static_cast<double>(near) / static_cast<double>(apart.size()), kTogetherMs, apart.size());
        std::fflush(stdout);
        return median;
    }

    const std::string& name() const { return name_; }

private:
    const std::string name_;
    Beeps beeps_;
    Flashes flashes_;
    test::Playback playback_;
};

bool run(const std::string& command) {
    return std::system(("ffmpeg -nostdin -v error -y " + command).c_str()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    double minutes = 60;
    double window = 5;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string word = argv[i];
        (word == "--minutes" ? minutes : window) = std::atof(argv[i + 1]);
    }
    window = std::min(window, minutes / 2);
    const auto folder = std::filesystem::temp_directory_path() / ("kelp_drift." + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    const std::string dir = folder.string();
    // A minute is a whole number of pictures and of samples: put together they are even.
    const std::string lavfi =
        "-f lavfi -i \"color=c=black:size=320x180:rate=25:duration=60,"
        "drawbox=c=white:t=fill:enable='lt(mod(t+0.521\\,1)\\,0.08)'\" "
        "-f lavfi -i \"aevalsrc='0.8*sin(2*PI*1000*t)*lt(mod(t+0.52\\,1)\\,0.08)':s=8000:d=60\" "
        "-c:v libx264 -preset veryfast -g 50 -pix_fmt yuv420p ";
    const int rounds = static_cast<int>(std::ceil(minutes)) + 1;
    const std::string minute = dir + "/minute.mkv";
    const std::string film = dir + "/film.mkv";
    if (!run(lavfi + "-bf 2 -c:a pcm_alaw " + minute) ||
        !run("-stream_loop " + std::to_string(rounds - 1) + " -i " + minute + " -c copy " + film) ||
        !run(lavfi + "-bf 0 -ar 48000 -ac 2 -c:a aac -b:a 128k " + dir + "/camera.mp4")) {
        std::fprintf(stderr, "drift: the ffmpeg command can't make the films\n");
        return 2;
    }
    setenv("SDL_VIDEODRIVER", "dummy", 0);
    setenv("SDL_AUDIODRIVER", "disk", 1);

    bool isSteady = true;
    {
        test::RtspServer server({{"camera", dir + "/camera.mp4"}});
        std::vector<std::unique_ptr<Watched>> all;
        struct Source {
            const char* name;
            std::string url;
            const char* liveDelay;
        };
        for (const Source& source : {Source{"film", film, "standard"}, Source{"camera", server.url("camera"), "low"},
                                     Source{"camera, standard delay", server.url("camera"), "standard"}}) {
            all.push_back(std::make_unique<Watched>(source.name, dir + "/" + std::to_string(all.size()) + ".pipe"));
            if (!all.back()->play(source.url, source.liveDelay)) {
                std::fprintf(stderr, "drift: the %s doesn't play\n", source.name);
                return 2;
            }
        }
        const double beginMs = nowMs() + kStartMs;
        const double endMs = beginMs + minutes * 60'000;
        const double windowMs = window * 60'000;
        std::vector<std::optional<double>> first(all.size());
        std::vector<std::optional<double>> last(all.size());
        for (double fromMs = beginMs; fromMs + windowMs <= endMs + 1; fromMs += windowMs) {
            const double toMs = fromMs + windowMs;
            // A flash's beep may still be on its way.
            std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(toMs + kPeriodMs - nowMs()));
            for (size_t i = 0; i < all.size(); ++i) {
                last[i] = all[i]->tell(static_cast<int>((fromMs - beginMs) / 60'000), fromMs, toMs);
                first[i] = fromMs > beginMs ? first[i] : last[i];
            }
        }
        for (size_t i = 0; i < all.size(); ++i) {
            if (!first[i] || !last[i]) {
                isSteady = false;
                continue;
            }
            const double drift = *last[i] - *first[i];
            std::printf("%s: from %.1f to %.1f ms in %.0f minutes, %+.1f\n", all[i]->name().c_str(), *first[i],
                        *last[i], minutes, drift);
            isSteady = isSteady && std::abs(drift) <= kMostDriftMs;
        }
    }
    std::filesystem::remove_all(folder);
    return isSteady ? 0 : 1;
}
