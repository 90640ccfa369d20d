// Operations of both players from random threads at random times.
//
//   player_stress [--seconds N] [--seed S] [--threads N] [--camera 1]
//
// Half of the threads drive KelpPlayers, the others TarnPlayers. Any thread calls any operation at any time, but for
// what the headers forbid: load, play and stop of one KelpPlayer never run at the same moment, and a TarnPlayer is
// stopped before it is reset. Some of the films come from a server that holds them back, drops connections, or is slow,
// and with --camera some from a camera that is killed, hangs up and falls silent. Sound devices go and come. Each
// object is stopped and ended at last, and the process says how many calls were made. A call that doesn't come back
// within two minutes ends the process.

#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "e2e/media.h"
#include "kelp_player/frame_sink.h"
#include "kelp_player/kelp_player.h"
#include "kelp_player/log.h"
#include "kelp_player/stall_observer.h"
#include "kelp_player/statistics.h"
#include "kelp_player/sync_clock.h"
#include "kelp_player/tarn_player.h"
#include "kelp_player/tracks.h"
#include "stress/film_servers.h"
#include "stress/random.h"
#include "stress/random_recorder.h"
#include "stress/sound_devices.h"
#include "stress/subtitle_reader.h"
#include "support/temp_files.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

using namespace kelp;
using test::Random;

constexpr int kPlayersOfAKind = 2;
constexpr int kHangSeconds = 120;
constexpr std::array<const char*, 9> kFiles = {"short.mp4",      "small.mp4",     "mpeg4.avi",
                                               "vorbis.ogg",     "vfr.mkv",       "text.mp4",
                                               "two_tracks.mkv", "subtitles.mkv", "subtitles.mkv"};
// The engine's own options, in and out; those of a preset more often.
constexpr std::array<std::pair<const char*, const char*>, 27> kOptions = {{
    {"preset", "recommended"},
    {"preset", "recommended"},
    {"preset", "recommended"},
    {"preset", "standard"},
    {"timing", "exact"},
    {"timing", "standard"},
    {"seek", "exact"},
    {"seek", "standard"},
    {"no_sound_device", "silence"},
    {"pictures", "shared"},
    {"video_track", "none"},
    {"video_track", "auto"},
    {"audio_track", "1"},
    {"audio_track", "auto"},
    {"subtitle_track", "2"},
    {"subtitle_track", "auto"},
    {"subtitle_file", "none"},
    {"codecs", "all"},
    {"live_delay", "low"},
    {"closed_live_source", "failed"},
    {"closed_live_source", "completed"},
    {"rtsp_fallback", "udp"},
    {"read_ahead", "500"},
    {"rebuffer", "300"},
    {"max_pixels", "200000"},
    {"audio_device", "no such device"},
    {"timeout", "300000"},
}};

std::atomic<int64_t> g_calls{0};

class Sink final : public ExternFrameSink {
public:
    virtual ~Sink() = default;
    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int, int64_t, uint8_t** data, int*, int, int64_t) override {
        sum += data[0][0];
        return true;
    }
    std::atomic<int> sum{0};
};

class Stalls final : public StallObserver {
public:
    virtual ~Stalls() = default;
    void onStalled() override { ++g_calls; }
    void onBuffering(int, int) override { ++g_calls; }
    void onStallEnded() override { ++g_calls; }
};

std::unique_ptr<test::FilmServers> g_servers;

std::string sourceOf(Random& random) {
    const std::string url = g_servers->url(random);
    const auto file = static_cast<size_t>(random.below(static_cast<int>(kFiles.size())));
    return url.empty() ? test::mediaPath(kFiles.at(file)) : url;
}

// A file of this thread's own.
std::string snapshotPath() {
    static const test::TempFolder folder;
    static std::atomic<int> threads{0};
    thread_local const int thread = threads++;
    return folder.path("picture" + std::to_string(thread) + ".png");
}

// What both players do alike, and what is done to a clock that one of them may follow.
template <class Player>
void stepOfBoth(Player& player, TarnSyncClock& clock, test::RandomRecorder& recorder, test::SubtitleReader& subtitles,
                Stalls& stalls, Random& random) {
    switch (random.below(19)) {
        case 12:
            player.setSubtitleSink(random.below(3) == 0 ? nullptr : &subtitles);
            break;
        case 13:
            player.selectTrack(TRACK_KIND_SUBTITLE, random.below(7) - 1);
            break;
        case 14:
            player.setOption("subtitle_file", test::mediaPath("subtitles.mkv").c_str());
            break;
        case 15: {
            const int startMs = random.below(3000);
            player.setLoop(startMs, startMs + random.below(1500));
            break;
        }
        case 16:
            if (random.below(2) == 0) {
                player.clearLoop();
            } else {
                player.setLoop();
            }
            break;
        case 17:
            player.setStallObserver(random.below(3) > 0 ? &stalls : nullptr);
            break;
        case 18:
            g_servers->makeTrouble(random);
            break;
        case 10:
            player.pause();
            player.stepFrame(random.below(9) - 4);
            break;
        case 11:
            player.stepFrame(1 - 2 * random.below(2));
            break;
        case 0:
        case 1: {
            const auto& [key, value] =
                kOptions.at(static_cast<size_t>(random.below(static_cast<int>(kOptions.size()))));
            player.setOption(key, value);
            break;
        }
        case 2:
            clock.pause();
            break;
        case 3:
            clock.resume();
            break;
        case 4:
            clock.setSpeed(random.below(9) / 4.0);
            break;
        case 5:
            clock.reset(random.below(4000));
            break;
        case 6:
            player.selectTrack(static_cast<TrackKind>(random.below(2)), random.below(4) - 1);
            break;
        case 7:
            player.getTracks();
            player.getStatistics();
            break;
        case 8:
            player.setPacketSink(random.below(2) == 0 ? &recorder.recorder : nullptr);
            break;
        default:
            if (random.below(2) == 0) {
                recorder.start(random);
            } else {
                recorder.stop();
            }
            break;
    }
}

class Engine final : public KelpPlayerObserver {
public:
    Engine() : player_(std::make_shared<KelpPlayer>()) { player_->init(this); }
    virtual ~Engine() {
        {
            // The worker may be about to play.
            std::lock_guard lock(lifeMutex_);
            player_->stop();
            ended_ = true;
        }
        player_->release();
        player_.reset();
        TarnSyncClock::destroy(clock_);
    }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    void step(Random& random) {
        KelpPlayer& player = *player_;
        Sink& sink = sinks_.at(static_cast<size_t>(random.below(2)));
        auto* handle = static_cast<ExternFrameSink*>(&sink);
        switch (random.below(28)) {
            case 0:
            case 1: {
                std::lock_guard lock(lifeMutex_);
                player.stop();
                playing_ = false;
                player.loadFileAsync(sourceOf(random).c_str(), random.below(4) == 0 ? random.below(2000) : 0);
                break;
            }
            case 2: {
                std::lock_guard lock(lifeMutex_);
                if (random.below(3) == 0) {
                    player.stop();
                    playing_ = false;
                }
                break;
            }
            case 3:
                player.pause();
                break;
            case 4:
                player.resume();
                break;
            case 5:
            case 6:
                player.seek(random.below(4000) - 200);
                break;
            case 7:
                player.setSpeed(0.25F + static_cast<float>(random.below(16)) / 4.0F);
                break;
            case 8:
                player.setVolume(static_cast<float>(random.below(8)) / 4.0F);
                player.setMute(random.below(3) == 0);
                break;
            case 9:
                player.takeSnapshot(snapshotPath().c_str());
                player.getCurrentTime();
                player.getDuration();
                break;
            case 10:
                player.getPlayDetailInfo(static_cast<KelpPlayerInfoType>(random.below(6)));
                break;
            case 11:
            case 12:
                player.addWindow(WINDOW_TYPE_EXTERN, handle, 16 + random.below(640), 16 + random.below(360));
                break;
            case 13:
                player.removeWindow(handle);
                break;
            case 14:
                player.pauseWindow(handle, random.below(2) == 0);
                break;
            case 15:
                player.updateWindowSize(handle, 16 + random.below(640), 16 + random.below(360));
                break;
            case 16:
                player.clearScreen();
                break;
            case 17:
                player.enableHwDecoder(random.below(2) == 0, static_cast<HwDecodeMode>(random.below(4)));
                break;
            case 18:
                player.setAVSyncMode(static_cast<SyncMasterMode>(random.below(3)));
                break;
            case 19:
                player.setExternSyncClock(random.below(2) == 0 ? clock_ : nullptr, random.below(1000));
                break;
            case 20:
                player.setOption("max_delay", std::to_string(random.below(1000000)).c_str());
                player.runInWorker([] { ++g_calls; });
                break;
            case 21:
                player.removeTimer(player.addTimer(static_cast<unsigned int>(random.below(30)), random.below(2) == 0,
                                                   [] { ++g_calls; }));
                break;
            default:
                stepOfBoth(player, *clock_, recorder_, subtitles_, stalls_, random);
                break;
        }
    }

private:
    void onVideoSizeUpdated(std::shared_ptr<KelpPlayer>, int, int, int) override {}
    void onPrepared(std::shared_ptr<KelpPlayer> player, bool, bool) override {
        std::lock_guard lock(lifeMutex_);
        // The answer may be late, and for a source before the one that plays already.
        if (playing_ || ended_) {
            return;
        }
        playing_ = player->play();
        if (!playing_) {
            player->stop();
        }
    }
    void onFailed(std::shared_ptr<KelpPlayer>, int, int) override {}
    void onFirstPacket(std::shared_ptr<KelpPlayer>, int) override {}
    void onFirstVideoFrame(std::shared_ptr<KelpPlayer> player, int) override { player->getCurrentTime(); }
    void onFirstAudioFrame(std::shared_ptr<KelpPlayer>, int) override {}
    void onCompleted(std::shared_ptr<KelpPlayer> player) override { player->seek(0); }
    void onDurationUpdated(std::shared_ptr<KelpPlayer>, int) override {}

    std::array<Sink, 2> sinks_;
    test::SubtitleReader subtitles_;
    test::RandomRecorder recorder_;
    Stalls stalls_;
    TarnSyncClock* clock_ = TarnSyncClock::create(0, 1000);
    std::mutex lifeMutex_;  // held through load, play and stop; guards what follows
    bool playing_ = false;
    bool ended_ = false;  // and not to be played again
    std::shared_ptr<KelpPlayer> player_;
};

class Managed final : public TarnPlayerObserver {
public:
    Managed() : player_(TarnPlayer::create()) {}
    virtual ~Managed() {
        player_->stop();
        TarnPlayer::destroy(player_);
        TarnSyncClock::destroy(clock_);
    }
    Managed(const Managed&) = delete;
    Managed& operator=(const Managed&) = delete;

    void step(Random& random) {
        TarnPlayer& player = *player_;
        Sink& sink = sinks_.at(static_cast<size_t>(random.below(2)));
        auto* handle = static_cast<ExternFrameSink*>(&sink);
        switch (random.below(32)) {
            case 0: {
                // Resetting doesn't end playback, and a second source must not be opened before that.
                std::lock_guard lock(lifeMutex_);
                player.stop();
                player.reset();
                break;
            }
            case 1:
            case 2:
                player.setDataSource(sourceOf(random).c_str(), (random.below(3) - 1) * 500, this);
                break;
            case 3:
            case 4: {
                std::lock_guard lock(lifeMutex_);
                player.prepareAsync();
                break;
            }
            case 5:
            case 6:
                player.start();
                break;
            case 7:
                player.pause();
                break;
            case 8:
                player.resume();
                break;
            case 9:
            case 10:
                player.seek(random.below(4000) - 200);
                break;
            case 11:
                player.stop();
                break;
            case 12: {
                // All the way to a source that plays.
                std::lock_guard lock(lifeMutex_);
                player.stop();
                player.reset();
                player.setDataSource(sourceOf(random).c_str(), 0, this);
                player.prepareAsync();
                player.start();
                break;
            }
            case 13:
                player.takeSnapshot(snapshotPath().c_str());
                player.getCurrentTime();
                player.getDuration();
                player.getPlayDetailInfo(static_cast<TarnPlayerInfoType>(random.below(6)));
                break;
            case 14:
                player.setVolume(0.5F);
                player.setMute(random.below(3) == 0);
                break;
            case 15:
                player.setSpeed(0.25F + static_cast<float>(random.below(16)) / 4.0F);
                break;
            case 16:
            case 17:
                player.addWindow(handle, WINDOW_TYPE_EXTERN, 16 + random.below(640), 16 + random.below(360));
                break;
            case 18:
                player.removeWindow(handle);
                break;
            case 19:
                player.pauseWindow(handle, random.below(2) == 0);
                break;
            case 20:
                player.enableHwDecoder(random.below(2) == 0, static_cast<HwDecodeMode>(random.below(4)));
                break;
            case 21:
                player.setAVSyncMode(static_cast<SyncMasterMode>(random.below(3)));
                break;
            case 22:
                player.setSyncClock(random.below(2) == 0 ? clock_ : nullptr);
                break;
            case 23: {
                // For one control thread.
                std::lock_guard lock(offsetMutex_);
                player.setOffsetToClockMs((random.below(5) - 2) * 300);
                break;
            }
            case 24:
                player.setOption("retry_when_failed", std::to_string(random.below(60) - 20).c_str());
                player.runInWorker([] { ++g_calls; });
                break;
            case 25:
                player.removeTimer(player.addTimer(static_cast<unsigned int>(random.below(30)), random.below(2) == 0,
                                                   [] { ++g_calls; }));
                break;
            default:
                stepOfBoth(player, *clock_, recorder_, subtitles_, stalls_, random);
                break;
        }
    }

private:
    void onVideoSizeUpdated(int, int, int) override {}
    void onPrepared(bool, bool) override { player_->start(); }
    void onStarted() override { player_->getCurrentTime(); }
    void onFailed(int) override { player_->stop(); }
    void onFirstVideoFrame(int) override {}
    void onFirstAudioFrame(int) override {}
    void onCompleted() override { player_->seek(0); }
    void onDurationUpdated(int) override {}

    std::array<Sink, 2> sinks_;
    test::SubtitleReader subtitles_;
    test::RandomRecorder recorder_;
    Stalls stalls_;
    TarnSyncClock* clock_ = TarnSyncClock::create(0, 1000);
    std::mutex lifeMutex_;    // held through prepareAsync and reset
    std::mutex offsetMutex_;  // held through setOffsetToClockMs
    TarnPlayer* player_;
};

struct Options {
    int seconds = 20;
    uint64_t seed = 1;
    int threads = 6;
    bool hasCamera = false;
};

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string word = argv[i];
        const auto value = std::strtoull(argv[i + 1], nullptr, 10);
        if (word == "--seconds") {
            options.seconds = static_cast<int>(value);
        } else if (word == "--seed") {
            options.seed = value;
        } else if (word == "--threads") {
            options.threads = static_cast<int>(value);
        } else if (word == "--camera") {
            options.hasCamera = value > 0;
        } else {
            std::fprintf(stderr, "usage: player_stress [--seconds N] [--seed S] [--threads N] [--camera 1]\n");
            std::exit(2);
        }
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    setenv("SDL_VIDEODRIVER", "dummy", 0);
    setenv("SDL_AUDIODRIVER", "dummy", 0);
    const Options options = parse(argc, argv);
    g_servers = std::make_unique<test::FilmServers>(options.hasCamera);
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::seconds(options.seconds);
    {
        std::array<Engine, kPlayersOfAKind> engines;
        std::array<Managed, kPlayersOfAKind> managed;
        // Every line of the log is made, and nobody reads it.
        Log::SetLogCallback([](const char*) {});
        Log::SetLevel(4);
        av_log_set_level(AV_LOG_QUIET);
        std::vector<std::thread> threads;
        for (int i = 0; i < options.threads; ++i) {
            threads.emplace_back([&, i] {
                Random random(options.seed * 1000 + static_cast<uint64_t>(i));
                while (Clock::now() < end) {
                    const auto which = static_cast<size_t>(random.below(kPlayersOfAKind));
                    if (i % 2 == 0) {
                        engines.at(which).step(random);
                    } else {
                        managed.at(which).step(random);
                    }
                    ++g_calls;
                    if (random.below(3) == 0) {
                        std::this_thread::sleep_for(std::chrono::milliseconds(random.below(40)));
                    }
                }
            });
        }
        alarm(static_cast<unsigned int>(options.seconds + kHangSeconds));
        // The server's process goes with the thread that has started it: it stays on this one.
        Random random(options.seed);
        while (Clock::now() < end) {
            test::takeSoundDevices(random.below(3) == 0);
            g_servers->loseCamera(random);
            std::this_thread::sleep_for(std::chrono::milliseconds(200 + random.below(2000)));
        }
        for (auto& thread : threads) {
            thread.join();
        }
    }
    alarm(0);
    g_servers.reset();
    std::printf("player_stress: %lld calls in %d s, seed %llu\n", static_cast<long long>(g_calls.load()),
                options.seconds, static_cast<unsigned long long>(options.seed));
    return 0;
}
