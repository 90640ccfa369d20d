// Measures how far the flashes of a live source are from their beeps, on the same machine over the loopback address:
// from its start on, behind a standstill of 3.25 s, in which what the server sends comes in one go, and behind 20
// pauses and 10 changes of speed.
//
// usage: live_together [--quick] [--rows FILE]. Each row is watched for 41 s, or 6, from 4 s behind the first flash on,
// and as long again from 2 s behind the standstill and 2 s behind the last change on, all rows at the same time. FILE
// gets, with tabs, a line for each part of each row: its name, the gaps in its sound, and the distances in
// milliseconds, positive where the picture comes later.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "e2e/flashes.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "e2e/rtsp_server.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

using namespace kelp;

constexpr double kStartMs = 4000;
constexpr double kStandstillMs = 3250;  // no whole number of flashes
constexpr double kBackMs = 2000;
constexpr int kPeriodMs = 400;  // standard pictures are up to 140 ms from their sound
constexpr double kQuietMs = 150;
constexpr int kPatienceMs = 60'000;

double nowMs() {
    return static_cast<double>(test::steadyUs()) / 1000;
}

void rest(double ms) {
    std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(ms));
}

struct Kind {
    const char* name;
    const char* transport;
    bool isExactAndLow;
};

class Watched {
public:
    Watched(const Kind& kind, const std::string& pipe)
        : kind_(kind), beeps_(pipe, kind.isExactAndLow ? kLowDeviceFrames : kDeviceFrames, kQuietMs) {}

    const char* name() const { return kind_.name; }
    KelpPlayer& player() { return playback_.player(); }

    // Returns when its sound device is open.
    bool play(const std::string& url) {
        KelpPlayer& player = playback_.player();
        player.setOption("log_level", "none");
        player.setOption("rtsp_transport", kind_.transport);
        player.setOption("timing", kind_.isExactAndLow ? "exact" : "standard");
        player.setOption("live_delay", kind_.isExactAndLow ? "low" : "standard");
        player.enableHwDecoder(false, HW_DECODE_NONE);
        player.setAVSyncMode(SYNC_MASTER_AUDIO);
        player.addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&flashes_), 0, 0);
        if (!playback_.open(url, kPatienceMs) || !player.play()) {
            return false;
        }
        for (const double end = nowMs() + kPatienceMs; !beeps_.isOpen() && nowMs() < end;) {
            rest(10);
        }
        return beeps_.isOpen();
    }

    int64_t gaps() { return playback_.player().getStatistics().audio.underruns; }
    std::vector<double> apartMs(double fromMs, double toMs) {
        return test::flashesToBeeps(flashes_.timesMs(), beeps_.timesMs(), fromMs, toMs, kPeriodMs);
    }

private:
    static constexpr int kDeviceFrames = 1024;    // that a device takes at once
    static constexpr int kLowDeviceFrames = 512;  // with a low delay

    const Kind kind_;
    test::Beeps beeps_;
    test::Flashes flashes_;
    test::Playback playback_;
};

int measure(const std::string& folder, double watchMs, std::ofstream& file) {
    const std::string camera = folder + "/camera.mp4";
    if (!test::makeCameraFlashes(camera, kPeriodMs)) {
        std::fprintf(stderr, "live_together: the ffmpeg command can't make the film\n");
        return 2;
    }
    test::RtspServer server({{"camera", camera}});
    std::vector<std::unique_ptr<Watched>> all;
    for (const Kind& kind : {Kind{"standard, TCP", "tcp", false}, Kind{"exact and low, TCP", "tcp", true},
                             Kind{"standard, UDP", "udp", false}, Kind{"exact and low, UDP", "udp", true}}) {
        all.push_back(std::make_unique<Watched>(kind, folder + "/" + std::to_string(all.size()) + ".pipe"));
        if (!all.back()->play(server.url("camera"))) {
            std::fprintf(stderr, "live_together: %s doesn't play\n", kind.name);
            return 2;
        }
    }
    const auto watch = [&](const char* when, double behindMs) {
        rest(behindMs);
        const double fromMs = nowMs();
        std::vector<int64_t> gaps;
        for (const auto& row : all) {
            gaps.push_back(-row->gaps());
        }
        rest(watchMs);
        const double toMs = nowMs();
        // A flash's beep may still be on its way.
        rest(kPeriodMs);
        for (size_t i = 0; i < all.size(); ++i) {
            file << all[i]->name() << ", " << when << '\t' << gaps[i] + all[i]->gaps();
            for (const double ms : all[i]->apartMs(fromMs, toMs)) {
                file << '\t' << ms;
            }
            file << std::endl;
        }
    };
    watch("from the start", kStartMs);
    server.suspend();
    rest(kStandstillMs);
    server.proceed();
    watch("behind a standstill", kBackMs);
    const auto tell = [&](double ms, const auto& word) {
        for (const auto& row : all) {
            word(row->player());
        }
        rest(ms);
    };
    for (int i = 0; i < 20; ++i) {
        tell(50 + 7 * i % 40, [](KelpPlayer& player) { player.pause(); });
        tell(50 + 11 * i % 40, [](KelpPlayer& player) { player.resume(); });
    }
    for (int i = 0; i < 10; ++i) {
        tell(200, [i](KelpPlayer& player) { player.setSpeed(i % 2 == 0 ? 2.0F : 1.0F); });
    }
    watch("behind pauses and speeds", kBackMs);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    double watchMs = 41'000;
    std::ofstream file;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        watchMs = word == "--quick" ? 6000 : watchMs;
        if (word == "--rows" && i + 1 < argc) {
            file.open(argv[++i]);
        }
    }
    setenv("SDL_VIDEODRIVER", "dummy", 0);
    setenv("SDL_AUDIODRIVER", "disk", 1);
    av_log_set_level(AV_LOG_QUIET);
    const auto folder = std::filesystem::temp_directory_path() / ("kelp_together." + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    const int result = measure(folder.string(), watchMs, file);
    std::filesystem::remove_all(folder);
    return result;
}
