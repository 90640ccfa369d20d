// Plays a film, a camera and two loops side by side for a long time, and tells how far their flashes are from their
// beeps, and those of the loops from each other.
//
//   drift [--minutes N] [--window MINUTES]
//
// An hour unless --minutes says so. The film is a file as long as that, the camera an RTSP server on the loopback
// address, played twice: with the low delay and with the standard one. The loops follow one clock of the host's. All
// are black, with a bright picture and a beep each second, and are played with `preset` as `recommended`, into a frame
// sink and SDL's disk driver. After each window, five minutes, a line comes for each: the median of the distances in
// it, and how many of a hundred are within 25 ms. Above zero the picture comes later than its sound. The last lines
// compare the last window with the first, and the program fails if they are more than 10 ms apart.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "e2e/flashes.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "e2e/rtsp_server.h"
#include "kelp_player/frame_sink.h"
#include "kelp_player/kelp_player.h"
#include "kelp_player/sync_clock.h"

namespace {

using namespace kelp;

constexpr int kDeviceFrames = 1024;    // that a device takes at once
constexpr int kLowDeviceFrames = 512;  // with a low delay
constexpr double kTogetherMs = 25;
constexpr char kLoops[] = "from loop to loop";
constexpr double kMostDriftMs = 10;
constexpr double kStartMs = 10'000;  // that don't count
constexpr int kPatienceMs = 60'000;

double nowMs() {
    return static_cast<double>(test::steadyUs()) / 1000;
}

// A playback that is watched.
class Watched {
public:
    Watched(std::string name, const std::string& pipe, int deviceFrames)
        : name_(std::move(name)), pipe_(pipe), beeps_(pipe, deviceFrames) {}

    // Returns when its sound device is open.
    bool play(const std::string& url, const char* liveDelay, TarnSyncClock* clock) {
        KelpPlayer& player = playback_.player();
        player.setOption("log_level", "none");
        player.setOption("preset", "recommended");
        player.setOption("live_delay", liveDelay);
        // Its own pipe by name: a device that is taken again mustn't open the pipe of the player that came last.
        player.setOption("audio_device", pipe_.c_str());
        player.enableHwDecoder(false, HW_DECODE_NONE);
        player.setAVSyncMode(clock ? SYNC_MASTER_CLOCK : SYNC_MASTER_AUDIO);
        player.setExternSyncClock(clock, 0);
        player.addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&flashes_), 0, 0);
        if (!playback_.open(url, kPatienceMs) || !player.play()) {
            return false;
        }
        for (const double end = nowMs() + kPatienceMs; !beeps_.isOpen() && nowMs() < end;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return beeps_.isOpen();
    }

    KelpPlayer& player() { return playback_.player(); }
    std::vector<double> flashesMs() { return flashes_.timesMs(); }
    std::vector<double> beepsMs() { return beeps_.timesMs(); }
    const std::string& name() const { return name_; }

private:
    const std::string name_;
    const std::string pipe_;
    test::Beeps beeps_;
    test::Flashes flashes_;
    test::Playback playback_;
};

// Tells how far the flashes from `fromMs` to `toMs`, the window of that number, are from what belongs to them; the
// median.
std::optional<double> tell(const std::string& name, int minute, double fromMs, double toMs,
                           const std::vector<double>& flashesMs, const std::vector<double>& marksMs) {
    const std::vector<double> apart = test::flashesToBeeps(flashesMs, marksMs, fromMs, toMs);
    if (apart.empty()) {
        std::printf("%-22s from minute %3d: nothing\n", name.c_str(), minute);
        return std::nullopt;
    }
    const auto near = std::ranges::count_if(apart, [](double ms) { return std::abs(ms) <= kTogetherMs; });
    const double median = apart[apart.size() / 2];
    std::printf("%-22s from minute %3d: median %6.1f ms, %5.1f to %5.1f, %5.1f %% within %.0f ms, %zu flashes\n",
                name.c_str(), minute, median, apart.front(), apart.back(),
                100.0 * static_cast<double>(near) / static_cast<double>(apart.size()), kTogetherMs, apart.size());
    std::fflush(stdout);
    return median;
}

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
    const int rounds = static_cast<int>(std::ceil(minutes)) + 1;
    const std::string minute = dir + "/minute.mkv";
    const std::string film = dir + "/film.mkv";
    if (!test::makeFlashes("-bf 2 -c:a pcm_alaw " + minute) ||
        !run("-stream_loop " + std::to_string(rounds - 1) + " -i " + minute + " -c copy " + film) ||
        !test::makeCameraFlashes(dir + "/camera.mp4")) {
        std::fprintf(stderr, "drift: the ffmpeg command can't make the films\n");
        return 2;
    }
    setenv("SDL_VIDEODRIVER", "dummy", 0);
    setenv("SDL_AUDIODRIVER", "disk", 1);

    bool isSteady = true;
    {
        test::RtspServer server({{"camera", dir + "/camera.mp4"}});
        const std::unique_ptr<TarnSyncClock, void (*)(TarnSyncClock*)> clock(TarnSyncClock::create(0, 10'000),
                                                                             TarnSyncClock::destroy);
        std::vector<std::unique_ptr<Watched>> all;
        struct Source {
            const char* name;
            std::string url;
            const char* liveDelay;
            int loopToMs = 0;  // 0 for no loop
        };
        for (const Source& source : {Source{"film", film, "standard"}, Source{"camera", server.url("camera"), "low"},
                                     Source{"camera, standard delay", server.url("camera"), "standard"},
                                     Source{"loop of a minute", minute, "standard", 60'000},
                                     Source{"loop of seven seconds", minute, "standard", 7000}}) {
            const bool isLow = source.liveDelay == std::string("low");
            all.push_back(std::make_unique<Watched>(source.name, dir + "/" + std::to_string(all.size()) + ".pipe",
                                                    isLow ? kLowDeviceFrames : kDeviceFrames));
            if (source.loopToMs > 0) {
                all.back()->player().setLoop(0, source.loopToMs);
            }
            if (!all.back()->play(source.url, source.liveDelay, source.loopToMs > 0 ? clock.get() : nullptr)) {
                std::fprintf(stderr, "drift: the %s doesn't play\n", source.name);
                return 2;
            }
        }
        const double beginMs = nowMs() + kStartMs;
        const double endMs = beginMs + minutes * 60'000;
        const double windowMs = window * 60'000;
        // One more for the loops among themselves.
        std::vector<std::optional<double>> first(all.size() + 1);
        std::vector<std::optional<double>> last(all.size() + 1);
        for (double fromMs = beginMs; fromMs + windowMs <= endMs + 1; fromMs += windowMs) {
            const double toMs = fromMs + windowMs;
            // A flash's beep may still be on its way.
            std::this_thread::sleep_for(
                std::chrono::duration<double, std::milli>(toMs + test::kFlashPeriodMs - nowMs()));
            const int number = static_cast<int>((fromMs - beginMs) / 60'000);
            for (size_t i = 0; i < all.size(); ++i) {
                last[i] = tell(all[i]->name(), number, fromMs, toMs, all[i]->flashesMs(), all[i]->beepsMs());
            }
            last.back() = tell(kLoops, number, fromMs, toMs, all.back()->flashesMs(), all[all.size() - 2]->flashesMs());
            first = fromMs > beginMs ? first : last;
        }
        for (size_t i = 0; i < last.size(); ++i) {
            if (!first[i] || !last[i]) {
                isSteady = false;
                continue;
            }
            const double drift = *last[i] - *first[i];
            std::printf("%s: from %.1f to %.1f ms in %.0f minutes, %+.1f\n",
                        i < all.size() ? all[i]->name().c_str() : kLoops, *first[i], *last[i], minutes, drift);
            isSteady = isSteady && std::abs(drift) <= kMostDriftMs;
        }
    }
    std::filesystem::remove_all(folder);
    return isSteady ? 0 : 1;
}
