// Prints what a playback asks of the heap, of memory and of mutexes, for each picture that is shown and each packet
// that is read, and which code asks.
//
// usage: kelp_counts [--json FILE] [--quick] [--sites] [CLIP]. Without CLIP one is made with the ffmpeg command:
// 1920x1080 at 30 frames per second, H.264 with B-frames, AAC; with --quick a small and short one. It is played into a
// frame sink, and counted for ten seconds from the second one on. --sites prints the places in the library that call
// most, for `addr2line -Cife build/release/libkelp_player.so`.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "call_counts.h"
#include "kelp_player/frame_sink.h"
#include "kelp_player/kelp_player.h"
#include "kelp_player/log.h"

namespace kelp::bench {
namespace {

using std::chrono::milliseconds;

struct Options {
    std::string clip;
    std::string json;
    bool quick = false;
    bool sites = false;
};

// What was played while the counting went on.
struct Span {
    double seconds = 0;
    int64_t pictures = 0;
    int64_t drawings = 0;  // the same picture may be drawn again
    int64_t packets = 0;
};

class Host final : public KelpPlayerObserver, public ExternFrameSink {
public:
    void onVideoSizeUpdated(std::shared_ptr<KelpPlayer>, int, int, int) override {}
    void onPrepared(std::shared_ptr<KelpPlayer>, bool, bool) override { set(State::Prepared); }
    void onFailed(std::shared_ptr<KelpPlayer>, int, int) override { set(State::Failed); }
    void onFirstPacket(std::shared_ptr<KelpPlayer>, int) override {}
    void onFirstVideoFrame(std::shared_ptr<KelpPlayer>, int) override { set(State::Shows); }
    void onFirstAudioFrame(std::shared_ptr<KelpPlayer>, int) override {}
    void onCompleted(std::shared_ptr<KelpPlayer>) override { completed_ = true; }
    void onDurationUpdated(std::shared_ptr<KelpPlayer>, int) override {}

    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int, int64_t pts, uint8_t**, int*, int, int64_t) override {
        ++drawings_;
        if (pts != lastPts_) {
            lastPts_ = pts;
            ++pictures_;
        }
        return true;
    }

    // False if the clip can't be played or was too short.
    bool play(const std::string& clip, milliseconds settle, milliseconds length, Span& span) {
        auto player = std::make_shared<KelpPlayer>();
        if (!player->init(this)) {
            return false;
        }
        player->setOption("log_level", "none");
        player->setAVSyncMode(SYNC_MASTER_AUDIO);
        player->addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(this), 0, 0);
        player->loadFileAsync(clip.c_str(), 0);
        const bool plays = waitFor(State::Prepared) && player->play() && waitFor(State::Shows);
        if (plays) {
            std::this_thread::sleep_for(settle);
            CallCounts::findModules();
            const int64_t pictures = pictures_;
            const int64_t drawings = drawings_;
            const auto begin = std::chrono::steady_clock::now();
            CallCounts::start();
            std::this_thread::sleep_for(length);
            CallCounts::stop();
            span.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
            span.pictures = pictures_ - pictures;
            span.drawings = drawings_ - drawings;
            span.packets = CallCounts::packets();
        }
        const bool ok = plays && !completed_ && span.pictures > 0 && span.packets > 0;
        player->stop();
        player->release();
        return ok;
    }

private:
    enum class State { Opening, Prepared, Shows, Failed };

    void set(State state) {
        std::lock_guard lock(mutex_);
        state_ = std::max(state_, state);
        changed_.notify_all();
    }

    bool waitFor(State state) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::minutes(1), [&] { return state_ >= state; });
        return state_ >= state && state_ != State::Failed;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    State state_ = State::Opening;  // guarded by mutex_
    std::atomic<bool> completed_{false};
    std::atomic<int64_t> pictures_{0};
    std::atomic<int64_t> drawings_{0};
    int64_t lastPts_ = INT64_MIN;  // the video thread's
};

bool makeClip(const std::string& path, const char* size, int seconds) {
    if (access(path.c_str(), R_OK) == 0) {
        return true;
    }
    const std::string length = std::to_string(seconds);
    const std::string part = path + ".part.mp4";
    const std::string command =
        "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=" + std::string(size) + ":rate=30:duration=" + length +
        " -f lavfi -i sine=frequency=440:sample_rate=48000:duration=" + length +
        " -ac 2 -c:v libx264 -preset veryfast -bf 2 -g 60 -pix_fmt yuv420p -c:a aac -b:a 128k " + part;
    return std::system(command.c_str()) == 0 && std::rename(part.c_str(), path.c_str()) == 0;
}

// One row for each module and each unit that it is told by, then one for each thread.
void print(const Span& span, FILE* json) {
    std::printf("%lld pictures, drawn %.2f times each, and %lld packets in %.1f s.\n\n",
                static_cast<long long>(span.pictures),
                static_cast<double>(span.drawings) / static_cast<double>(span.pictures),
                static_cast<long long>(span.packets), span.seconds);
    std::printf("| asked by   | for each | allocations | copies |  copied KB |  locks | rests |\n");
    std::printf("| ---------- | -------- | ----------: | -----: | ---------: | -----: | ----: |\n");
    const char* separator = "[\n";
    for (int i = 0; i < kCallers; ++i) {
        const auto caller = static_cast<Caller>(i);
        const Calls calls = CallCounts::of(caller);
        for (const bool isPicture : {true, false}) {
            const char* unit = isPicture ? "picture" : "packet";
            const auto each = [&](int64_t number) {
                return static_cast<double>(number) / static_cast<double>(isPicture ? span.pictures : span.packets);
            };
            std::printf("| %-10s | %-8s | %11.2f | %6.2f | %10.2f | %6.2f | %5.2f |\n", nameOf(caller), unit,
                        each(calls.allocations), each(calls.copies), each(calls.copiedBytes) / 1000, each(calls.locks),
                        each(calls.rests));
            if (json) {
                std::fprintf(json,
                             "%s  {\"topic\": \"counts\", \"module\": \"%s\", \"unit\": \"%s\", \"allocations\": %.3f, "
                             "\"copies\": %.3f, \"copied_bytes\": %.0f, \"locks\": %.3f, \"rests\": %.3f}",
                             separator, nameOf(caller), unit, each(calls.allocations), each(calls.copies),
                             each(calls.copiedBytes), each(calls.locks), each(calls.rests));
            }
            separator = ",\n";
        }
    }

    std::printf("\n| thread of the library | sleeps per s | ms each | waits per s |\n");
    std::printf("| --------------------- | -----------: | ------: | ----------: |\n");
    for (const ThreadRests& thread : CallCounts::threads()) {
        const double sleeps = static_cast<double>(thread.sleeps) / span.seconds;
        const double waits = static_cast<double>(thread.waits) / span.seconds;
        const std::string shortest = std::to_string(thread.shortestMs);
        const std::string longest = std::to_string(thread.longestMs);
        std::printf("| %-21s | %12.1f | %7s | %11.1f |\n", thread.name, sleeps,
                    (shortest == longest ? longest : shortest + " to " + longest).c_str(), waits);
        if (json) {
            std::fprintf(json,
                         "%s  {\"topic\": \"counts\", \"thread\": \"%s\", \"sleeps_per_second\": %.2f, "
                         "\"shortest_ms\": %d, \"longest_ms\": %d, \"waits_per_second\": %.2f}",
                         separator, thread.name, sleeps, thread.shortestMs, thread.longestMs, waits);
        }
    }
    if (json) {
        std::fprintf(json, "\n]\n");
    }
}

void printSites(const Span& span) {
    std::printf("\n| kind       | offset   | for each picture |\n| ---------- | -------- | ---------------: |\n");
    for (const SiteCalls& site : CallCounts::sites()) {
        const char* kind = site.kind == Site::Allocation ? "allocation" : site.kind == Site::Copy ? "copy" : "lock";
        std::printf("| %-10s | %-8llx | %16.3f |\n", kind, static_cast<unsigned long long>(site.offset),
                    static_cast<double>(site.calls) / static_cast<double>(span.pictures));
    }
}

int run(const Options& options) {
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    std::string clip = options.clip;
    if (clip.empty()) {
        clip = options.quick ? "build/counts_quick.mp4" : "build/counts.mp4";
        if (!(options.quick ? makeClip(clip, "640x360", 8) : makeClip(clip, "1920x1080", 20))) {
            return 1;
        }
    }
    if (!CallCounts::findModules()) {
        std::fprintf(stderr, "kelp_counts: the library isn't a module of its own\n");
        return 1;
    }
    Log::SetLogCallback([](const char*) {});
    Host host;
    Span span;
    // What is read ahead comes to 200 packets, 2.6 s; the counting ends before the reader does.
    if (!host.play(clip, milliseconds(options.quick ? 1000 : 2000), milliseconds(options.quick ? 2000 : 10000), span)) {
        std::fprintf(stderr, "kelp_counts: %s can't be played, or is too short\n", clip.c_str());
        return 1;
    }
    if (const Calls calls = CallCounts::of(Caller::Library);
        calls.allocations == 0 || calls.locks == 0 || calls.copies < span.pictures / 2) {
        std::fprintf(stderr, "kelp_counts: the library's calls didn't come here\n");
        return 1;
    }
    FILE* json = options.json.empty() ? nullptr : std::fopen(options.json.c_str(), "w");
    if (!options.json.empty() && !json) {
        std::perror(options.json.c_str());
        return 1;
    }
    print(span, json);
    if (options.sites) {
        printSites(span);
    }
    return !json || std::fclose(json) == 0 ? 0 : 1;
}

}  // namespace
}  // namespace kelp::bench

int main(int argc, char** argv) {
    kelp::bench::Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--quick") {
            options.quick = true;
        } else if (argument == "--sites") {
            options.sites = true;
        } else if (argument == "--json" && i + 1 < argc) {
            options.json = argv[++i];
        } else if (!argument.starts_with("--")) {
            options.clip = argument;
        } else {
            std::fprintf(stderr, "usage: kelp_counts [--json FILE] [--quick] [--sites] [CLIP]\n");
            return 2;
        }
    }
    return kelp::bench::run(options);
}
