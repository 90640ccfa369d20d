// Plays again and again and writes down what the process holds.
//
//   endurance [--plays N] [--lives N] [--loop-seconds N] [--play-ms N] [--out FILE.csv] [--limits]
//
// --plays: load, play for --play-ms (200), stop, on one player. --lives: create a player, play, destroy it.
// --loop-seconds: one clip at speed 1, from its start again at each end. Before each of them and a hundred times on
// the way the memory, the open descriptors and the threads of the process are sampled. With --limits the program fails
// if any of them grew from the first quarter's end to the last sample by more than it may.

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
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

extern "C" {
#include <libavutil/log.h>
}

namespace {

using namespace kelp;
using Clock = std::chrono::steady_clock;

constexpr int kSamples = 100;
constexpr int kWaitSeconds = 60;
// A play task and its parser hold each other and stay, with their options, for each player that was ever made.
constexpr long kHeapKbPerLife = 6;
constexpr long kRssKbPerLife = 8;      // with what lies between the heap's blocks
constexpr long kHeapKbAllowed = 1024;  // packets and frames under way
constexpr long kRssKbAllowed = 8192;
constexpr int kThreadsAllowed = 2;  // that begin or end at that moment

struct Options {
    int plays = 0;
    int lives = 0;
    int loopSeconds = 0;
    int playMs = 200;
    std::string out;
    bool limits = false;
};

struct Sample {
    std::string phase;
    int round = 0;
    double seconds = 0;
    long rssKb = 0;
    long heapKb = 0;
    int descriptors = 0;
    int threads = 0;
};

class Host final : public KelpPlayerObserver, public ExternFrameSink {
public:
    virtual ~Host() = default;

    bool waitForAnswer() {
        std::unique_lock lock(mutex_);
        const bool came = changed_.wait_for(lock, std::chrono::seconds(kWaitSeconds), [&] { return answer_ != 0; });
        return came && std::exchange(answer_, 0) > 0;
    }

    std::atomic<int> completions{0};
    std::atomic<int> pictures{0};
    std::atomic<bool> loops{false};

    void onVideoSizeUpdated(std::shared_ptr<KelpPlayer>, int, int, int) override {}
    void onPrepared(std::shared_ptr<KelpPlayer>, bool, bool) override { answer(1); }
    void onFailed(std::shared_ptr<KelpPlayer>, int, int) override { answer(-1); }
    void onFirstPacket(std::shared_ptr<KelpPlayer>, int) override {}
    void onFirstVideoFrame(std::shared_ptr<KelpPlayer>, int) override {}
    void onFirstAudioFrame(std::shared_ptr<KelpPlayer>, int) override {}
    void onCompleted(std::shared_ptr<KelpPlayer> player) override {
        ++completions;
        if (loops) {
            player->seek(0);
        }
    }
    void onDurationUpdated(std::shared_ptr<KelpPlayer>, int) override {}
    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int, int64_t, uint8_t**, int*, int, int64_t) override {
        ++pictures;
        return true;
    }

private:
    void answer(int what) {
        std::lock_guard lock(mutex_);
        answer_ = what;
        changed_.notify_all();
    }

    std::mutex mutex_;  // guards answer_
    std::condition_variable changed_;
    int answer_ = 0;  // 1 prepared, -1 failed
};

int entriesOf(const char* folder) {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder)) {
        ++count;
    }
    return count;
}

class Endurance {
public:
    explicit Endurance(Options options) : options_(std::move(options)) {}

    bool run() {
        // What the libraries start once for the process is there before the first sample.
        if (!plays(3, "warm-up") || !lives(1, "warm-up")) {
            return false;
        }
        samples_.clear();
        return (options_.plays == 0 || plays(options_.plays, "plays")) &&
               (options_.lives == 0 || lives(options_.lives, "lives")) && (options_.loopSeconds == 0 || loop()) &&
               write() && isFlat();
    }

private:
    void sample(const std::string& phase, int round) {
        Sample now;
        now.phase = phase;
        now.round = round;
        now.seconds = std::chrono::duration<double>(Clock::now() - start_).count();
        malloc_trim(0);  // what stays of a player lies in the middle of free memory, which would count otherwise
        std::ifstream statm("/proc/self/statm");
        long pages = 0;
        statm >> pages >> now.rssKb;
        now.rssKb *= sysconf(_SC_PAGESIZE) / 1024;
        now.heapKb = static_cast<long>((mallinfo2().uordblks + mallinfo2().hblkhd) / 1024);
        now.descriptors = entriesOf("/proc/self/fd") - 1;  // without the one that counts
        now.threads = entriesOf("/proc/self/task");
        samples_.push_back(now);
    }

    bool playOnce(KelpPlayer& player, Host& host) {
        if (!player.loadFileAsync(test::mediaPath("small.mp4").c_str(), 0) || !host.waitForAnswer() || !player.play()) {
            std::fprintf(stderr, "endurance: a playback didn't begin\n");
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(options_.playMs));
        return player.stop();
    }

    static std::shared_ptr<KelpPlayer> make(Host& host) {
        auto player = std::make_shared<KelpPlayer>();
        player->init(&host);
        Log::SetLogCallback([](const char*) {});
        av_log_set_level(AV_LOG_QUIET);
        player->addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&host), 320, 180);
        player->setAVSyncMode(SYNC_MASTER_AUDIO);
        return player;
    }

    bool plays(int count, const std::string& phase) {
        Host host;
        const auto player = make(host);
        for (int i = 0; i < count; ++i) {
            if (i % std::max(count / kSamples, 1) == 0) {
                sample(phase, i);
            }
            if (!playOnce(*player, host)) {
                return false;
            }
        }
        sample(phase, count);
        player->release();
        return host.pictures > 0;
    }

    bool lives(int count, const std::string& phase) {
        for (int i = 0; i < count; ++i) {
            if (i % std::max(count / kSamples, 1) == 0) {
                sample(phase, i);
            }
            Host host;
            const auto player = make(host);
            if (!playOnce(*player, host)) {
                return false;
            }
            player->release();
        }
        sample(phase, count);
        return true;
    }

    bool loop() {
        Host host;
        host.loops = true;
        const auto player = make(host);
        if (!player->loadFileAsync(test::mediaPath("small.mp4").c_str(), 0) || !host.waitForAnswer() ||
            !player->play()) {
            return false;
        }
        const auto begin = Clock::now();
        const auto step = std::chrono::duration<double>(static_cast<double>(options_.loopSeconds) / kSamples);
        for (int i = 0; i < kSamples; ++i) {
            std::this_thread::sleep_until(begin + std::chrono::duration_cast<Clock::duration>(step * (i + 1)));
            sample("loop", host.completions);
        }
        player->stop();
        player->release();
        std::printf("endurance: the clip came to its end %d times\n", host.completions.load());
        return host.pictures > 0 && (host.completions > 0 || options_.loopSeconds < 10);
    }

    bool write() const {
        for (const char* phase : {"plays", "lives", "loop"}) {
            const auto of = ofPhase(phase);
            if (!of.empty()) {
                const Sample &a = of.front(), &b = of.back();
                std::printf(
                    "endurance: %s, %d rounds, %.0f s: RSS %ld -> %ld KB, heap %ld -> %ld KB, descriptors %d -> %d, "
                    "threads %d -> %d\n",
                    phase, b.round, b.seconds - a.seconds, a.rssKb, b.rssKb, a.heapKb, b.heapKb, a.descriptors,
                    b.descriptors, a.threads, b.threads);
            }
        }
        if (options_.out.empty()) {
            return true;
        }
        std::ofstream out(options_.out);
        out << "phase,round,seconds,rss_kb,heap_kb,descriptors,threads\n";
        for (const auto& now : samples_) {
            out << now.phase << ',' << now.round << ',' << now.seconds << ',' << now.rssKb << ',' << now.heapKb << ','
                << now.descriptors << ',' << now.threads << '\n';
        }
        return out.good();
    }

    std::vector<Sample> ofPhase(const std::string& phase) const {
        std::vector<Sample> of;
        std::copy_if(samples_.begin(), samples_.end(), std::back_inserter(of),
                     [&](const Sample& now) { return now.phase == phase; });
        return of;
    }

    // What part of a phase shows, at any of its moments.
    struct Range {
        int firstRound = 0;
        long leastHeapKb = 0;
        long leastRssKb = 0;
        int mostDescriptors = 0;
        int mostThreads = 0;
    };

    static Range rangeOf(const std::vector<Sample>& of, size_t begin, size_t end) {
        const Sample& first = of.at(begin);
        Range range{first.round, first.heapKb, first.rssKb, first.descriptors, first.threads};
        for (size_t i = begin; i < end; ++i) {
            range.leastHeapKb = std::min(range.leastHeapKb, of[i].heapKb);
            range.leastRssKb = std::min(range.leastRssKb, of[i].rssKb);
            range.mostDescriptors = std::max(range.mostDescriptors, of[i].descriptors);
            range.mostThreads = std::max(range.mostThreads, of[i].threads);
        }
        return range;
    }

    // Compares the last quarter of each phase with its second.
    bool isFlat() const {
        bool flat = true;
        for (const std::string phase : {"plays", "lives", "loop"}) {
            const auto of = ofPhase(phase);
            if (!options_.limits || of.size() < 8) {
                continue;
            }
            const Range early = rangeOf(of, of.size() / 4, of.size() / 2);
            const Range late = rangeOf(of, of.size() * 3 / 4, of.size());
            const long lives = phase == "lives" ? late.firstRound - early.firstRound : 0;
            const auto grew = [&](const char* what, long from, long to, long allowed) {
                if (to - from > allowed) {
                    std::fprintf(stderr, "endurance: %s of %s: %ld -> %ld\n", what, phase.c_str(), from, to);
                    flat = false;
                }
            };
            grew("KB of heap", early.leastHeapKb, late.leastHeapKb, kHeapKbAllowed + lives * kHeapKbPerLife);
            grew("KB of memory", early.leastRssKb, late.leastRssKb, kRssKbAllowed + lives * kRssKbPerLife);
            grew("descriptors", early.mostDescriptors, late.mostDescriptors, 0);
            grew("threads", early.mostThreads, late.mostThreads, kThreadsAllowed);
        }
        return flat;
    }

    const Options options_;
    const Clock::time_point start_ = Clock::now();
    std::vector<Sample> samples_;
};

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--limits") {
            options.limits = true;
            continue;
        }
        const std::string value = i + 1 < argc ? argv[++i] : "";
        if (word == "--plays") {
            options.plays = std::atoi(value.c_str());
        } else if (word == "--lives") {
            options.lives = std::atoi(value.c_str());
        } else if (word == "--loop-seconds") {
            options.loopSeconds = std::atoi(value.c_str());
        } else if (word == "--play-ms") {
            options.playMs = std::atoi(value.c_str());
        } else if (word == "--out") {
            options.out = value;
        } else {
            std::fprintf(stderr, "endurance: no option %s\n", word.c_str());
            std::exit(2);
        }
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    setenv("SDL_VIDEODRIVER", "dummy", 0);
    setenv("SDL_AUDIODRIVER", "dummy", 0);
    return Endurance(parse(argc, argv)).run() ? 0 : 1;
}
