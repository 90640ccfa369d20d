// Plays a film of 40 s from an HTTP server that sends it at 0.8, 1.0 and 1.5 of its rate: as it is, with a connection
// that breaks in the middle, and with a standstill of three seconds. With `preset` as `recommended`.
//
//   rates
//
// The program prints for each how often playback stood and told so, how even the pictures came between the stalls, and
// how many bytes the server was asked for; it fails if a picture is missing, if a stall isn't told once, or if less
// than 99 % of the pictures come within 3 ms of their distance.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "e2e/http_server.h"
#include "e2e/media.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "kelp_player/log.h"
#include "kelp_player/stall_observer.h"
#include "support/temp_files.h"

namespace {

using namespace kelp;
using namespace kelp::test;

constexpr int kWaitMs = 180000;
constexpr int kStandstillMs = 3000;
constexpr double kGapMs = 100;  // more than that beyond their distance: playback stood
constexpr double kMostUnevenMs = 3;

class Told final : public StallObserver {
public:
    virtual ~Told() = default;
    void onStalled() override { note(/*stalled=*/true); }
    void onBuffering(int, int) override {}
    void onStallEnded() override { note(/*stalled=*/false); }

    // Below 0 if one wasn't told once, with its end.
    int stalls() const { return isPaired_ && !stalled_ ? stalls_.load() : -1; }

private:
    void note(bool stalled) {
        isPaired_ = isPaired_ && stalled_ != stalled;
        stalled_ = stalled;
        stalls_ += stalled;
    }

    std::atomic<bool> isPaired_{true};
    std::atomic<bool> stalled_{false};
    std::atomic<int> stalls_{0};
};

enum class Trouble { None, Break, Standstill };

// What one playback shows; prints a row.
bool play(const std::string& film, const MediaFile& facts, double rate, Trouble trouble) {
    HttpServer server(film);
    server.setRate(static_cast<int64_t>(static_cast<double>(server.size()) * 1000 / facts.durationMs * rate));
    if (trouble == Trouble::Break) {
        server.dropAt(server.size() / 2);
    }
    if (trouble == Trouble::Standstill) {
        server.holdAt(server.size() / 2);
    }
    Told told;
    RecordingSink sink(RecordingSink::Keep::Nothing);
    Playback playback;
    KelpPlayer& player = playback.player();
    player.setOption("preset", "recommended");
    player.enableHwDecoder(false, HW_DECODE_NONE);
    player.setStallObserver(&told);
    player.addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 320, 180);
    bool ok = playback.open(server.url(), kWaitMs) && player.play();
    if (trouble == Trouble::Standstill) {
        while (ok && server.sent() < server.size() / 2) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kStandstillMs));
        server.release();
    }
    ok = ok && playback.waitFor(Happened::Completed, kWaitMs) && sink.waitForFrames(facts.frames, kWaitMs) &&
         playback.count(Happened::Failed) == 0;
    const int64_t sent = server.sent();
    player.stop();
    const auto frames = sink.frames();
    int gaps = 0;
    std::vector<double> uneven;
    for (size_t i = 1; i < frames.size(); ++i) {
        const auto takenUs = static_cast<double>(frames[i].atUs - frames[i - 1].atUs);
        const double beyondMs = takenUs / 1000 - static_cast<double>(frames[i].pts - frames[i - 1].pts);
        if (beyondMs > kGapMs) {
            ++gaps;
        } else {
            uneven.push_back(std::abs(beyondMs));
        }
    }
    if (uneven.empty()) {
        return false;
    }
    std::sort(uneven.begin(), uneven.end());
    const int stalls = told.stalls();
    const double most = uneven[uneven.size() * 99 / 100];
    constexpr std::array kNames = {"", ", a connection that breaks", ", a standstill"};
    std::printf(
        "rates: %.1f%s: %zu of %d pictures, %d gaps and %d stalls told, 99 %% within %.1f ms, the worst %.1f, %.3f of "
        "the "
        "file sent\n",
        rate, kNames[static_cast<size_t>(trouble)], frames.size(), facts.frames, gaps, stalls, most, uneven.back(),
        static_cast<double>(sent) / static_cast<double>(server.size()));
    return ok && static_cast<int>(frames.size()) == facts.frames && gaps == stalls && most <= kMostUnevenMs;
}

}  // namespace

int main() {
    Log::SetLogCallback([](const char*) {});
    setenv("SDL_AUDIODRIVER", "dummy", /*overwrite=*/1);
    const MediaFile& facts = mediaFile("clicks.mp4");
    const TempFolder folder;
    // With its index in front, as servers have it.
    const std::string film = folder.path("film.mp4");
    const std::string command =
        "ffmpeg -v error -nostdin -i " + mediaPath(facts.name) + " -c copy -movflags +faststart " + film;
    bool isRight = std::system(command.c_str()) == 0;
    for (const Trouble trouble : {Trouble::None, Trouble::Break, Trouble::Standstill}) {
        for (const double rate : {0.8, 1.0, 1.5}) {
            isRight = play(film, facts, rate, trouble) && isRight;
        }
    }
    std::printf("rates: %s\n", isRight ? "all as it should be" : "something is wrong");
    return isRight ? 0 : 1;
}
