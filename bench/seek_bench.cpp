#include "seek_bench.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "kelp_player/frame_sink.h"
#include "kelp_player/kelp_player.h"
#include "kelp_player/log.h"

namespace kelp::bench {

namespace {

constexpr int kSeeks = 200;
constexpr int kMarginMs = 1500;  // to the end, so that no seek runs into it
constexpr int kNearMs = 300;     // a nearer target may be among the decoded pictures, where no event tells the end
constexpr auto kPatience = std::chrono::seconds(30);

double nowMs() {
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

class SeekTimer final : public KelpPlayerObserver, public ExternFrameSink {
public:
    explicit SeekTimer(SyncMasterMode master) : player_(std::make_shared<KelpPlayer>()), master_(master) {}
    ~SeekTimer() {
        player_->stop();
        player_->release();
    }

    bool open(const std::string& path) {
        if (!player_->init(this)) {
            return false;
        }
        player_->setOption("log_level", "none");
        player_->setAVSyncMode(master_);
        player_->addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(this), 0, 0);
        return player_->loadFileAsync(path.c_str(), 0) && waitFor(prepared_, 1) && player_->play() &&
               waitFor(frames_, 1);
    }

    // The times in milliseconds, in ascending order; fewer than asked for if one seek didn't end.
    std::vector<double> measure(bool paused) {
        std::mt19937 random(1);
        const auto pick = [&](int limit) { return static_cast<int>(random() % static_cast<uint32_t>(limit)); };
        if (paused) {
            player_->pause();
        }
        std::vector<double> times;
        for (int i = 0; i < kSeeks; ++i) {
            // At any moment of what goes on in the player.
            std::this_thread::sleep_for(std::chrono::milliseconds(150 + pick(150)));
            int target = 0;
            do {
                target = pick(player_->getDuration() - kMarginMs);
            } while (std::abs(target - player_->getCurrentTime()) < kNearMs);
            const int before = count();
            const double begin = nowMs();
            if (!player_->seek(target) || !waitFor(frames_, before + 1)) {
                break;
            }
            times.push_back(frameAtMs_ - begin);
        }
        if (paused) {
            player_->resume();
        }
        std::sort(times.begin(), times.end());
        return times;
    }

    void onVideoSizeUpdated(std::shared_ptr<KelpPlayer>, int, int, int) override {}
    void onPrepared(std::shared_ptr<KelpPlayer>, bool, bool) override { add(prepared_); }
    void onFailed(std::shared_ptr<KelpPlayer>, int, int) override {}
    void onFirstPacket(std::shared_ptr<KelpPlayer>, int) override {}
    void onFirstVideoFrame(std::shared_ptr<KelpPlayer>, int) override { add(frames_); }
    void onFirstAudioFrame(std::shared_ptr<KelpPlayer>, int) override {}
    void onCompleted(std::shared_ptr<KelpPlayer>) override {}
    void onDurationUpdated(std::shared_ptr<KelpPlayer>, int) override {}

    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int, int64_t, uint8_t**, int*, int, int64_t) override { return true; }

private:
    void add(int& counter) {
        std::lock_guard lock(mutex_);
        ++counter;
        frameAtMs_ = nowMs();
        changed_.notify_all();
    }
    int count() {
        std::lock_guard lock(mutex_);
        return frames_;
    }
    bool waitFor(const int& counter, int value) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kPatience, [&] { return counter >= value; });
    }

    std::shared_ptr<KelpPlayer> player_;
    SyncMasterMode master_;
    std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    int prepared_ = 0;
    int frames_ = 0;
    double frameAtMs_ = 0;
};

bool printRow(const char* what, const std::vector<double>& times) {
    const auto at = [&](double part) {
        return times.empty() ? 0 : times[static_cast<size_t>(part * static_cast<double>(times.size() - 1))];
    };
    const bool ok = times.size() == kSeeks;
    std::printf("| %-36s | %5zu | %9.0f | %8.0f | %10.0f |%s\n", what, times.size(), at(0.5), at(0.99), at(1.0),
                ok ? "" : " FAILED");
    std::fflush(stdout);
    return ok;
}

}  // namespace

bool printSeekTimes(const std::string& path) {
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    Log::SetLogCallback([](const char*) {});
    std::printf("\n| %-36s | seeks | median ms | 99th %% ms | longest ms |\n", "seek to first-frame event");
    std::printf("| %-36s | ----: | --------: | --------: | ---------: |\n", "---");
    SeekTimer timer(SYNC_MASTER_AUDIO);
    if (!timer.open(path)) {
        return false;
    }
    const bool playing = printRow("while it plays, sound is the master", timer.measure(/*paused=*/false));
    const bool paused = printRow("while it is paused", timer.measure(/*paused=*/true));
    return playing && paused;
}

}  // namespace kelp::bench
