#include "step_latency.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <thread>

#include "bare_decoder.h"
#include "child.h"
#include "clips.h"
#include "film_player.h"
#include "measures.h"
#include "spread_columns.h"

namespace kelp::bench {

namespace {

constexpr int kStepsOfAPlace = 60;     // two seconds, so that a key frame is among them
constexpr int kBareStepsOfAPlace = 6;  // one in ten of them
constexpr int kMarginMs = 2500;        // to both ends
constexpr int kFarMs = 1000;           // between two places
constexpr int kSettleMs = 100;         // in which the queues fill up again
constexpr int kLongestRestMs = 20;     // between two steps, as of a key that is held down
constexpr double kMostForwardMs = 50;
constexpr double kMostBackMs = 150;

using Random = std::mt19937;

void sleepMs(int64_t ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// Somewhere in a film of that length, and far from `before`.
int64_t placeIn(int64_t durationMs, int64_t before, Random& random) {
    const int64_t room = durationMs - 2 * kMarginMs;
    const int64_t place = kMarginMs + static_cast<int64_t>(random()) % room;
    return std::abs(place - before) > kFarMs ? place : kMarginMs + (place - kMarginMs + room / 2) % room;
}

bool timePlayer(const std::string& path, int direction, int places, Random& random, Facts& facts) {
    FilmPlayer player(SYNC_MASTER_AUDIO);
    player.engine().setOption("preset", "recommended");
    if (!player.open(path) || !player.engine().play() || !player.waitForPicture(0)) {
        return false;
    }
    player.engine().pause();
    const auto fps = player.engine().getPlayDetailInfo(INFO_FPS);
    const int64_t frameMs = fps > 0 ? 1000 / fps : 40;
    const int64_t durationMs = player.engine().getDuration();
    if (durationMs < 2 * kMarginMs + 3 * kFarMs) {
        return false;
    }
    for (int i = 0; i < places; ++i) {
        int64_t shownMs = player.pictures().back().ptsMs;
        const int64_t target = placeIn(durationMs, shownMs, random);
        const size_t before = player.pictureCount();
        const auto isThere = [&](const ShownPicture& shown) { return std::abs(shown.ptsMs - target) <= frameMs + 1; };
        player.engine().seek(static_cast<int>(target));
        const auto sought = player.waitForPicture(before, isThere);
        if (!sought) {
            return false;
        }
        shownMs = sought->ptsMs;
        sleepMs(kSettleMs);
        for (int step = 0; step < kStepsOfAPlace; ++step) {
            sleepMs(static_cast<int64_t>(random()) % kLongestRestMs);
            const size_t count = player.pictureCount();
            const double begin = nowMs();
            if (!player.engine().stepFrame(direction)) {
                return false;
            }
            const auto picture = player.waitForPicture(count);
            if (!picture) {
                return false;
            }
            facts.add("step_ms", picture->atMs - begin);
            facts.add("right", std::abs(picture->ptsMs - shownMs - direction * frameMs) <= 1 ? 1 : 0);
            shownMs = picture->ptsMs;
        }
    }
    return true;
}

// The same without a player, which keeps nothing: a step back goes to the key frame before it.
bool timeBare(const std::string& path, int direction, int places, Random& random, Facts& facts) {
    BareDecoder decoder;
    if (!decoder.openSource(path) || !decoder.openDecoders(BareDecoder::Sound::Skip) || decoder.rate() <= 0) {
        return false;
    }
    const double frameMs = 1000 / decoder.rate();
    const int steps = direction > 0 ? kStepsOfAPlace : kBareStepsOfAPlace;
    int64_t place = 0;
    for (int i = 0; i < places; ++i) {
        place = placeIn(static_cast<int64_t>(decoder.durationMs()), place, random);
        if (!decoder.seek(place) || !decoder.decodeTo(place)) {
            return false;
        }
        for (int step = 1; step <= steps; ++step) {
            sleepMs(static_cast<int64_t>(random()) % kLongestRestMs);
            const auto target = place - static_cast<int64_t>(frameMs * step * (kStepsOfAPlace / kBareStepsOfAPlace));
            const double begin = nowMs();
            if (direction > 0 ? !decoder.next() : !decoder.seek(target) || !decoder.decodeTo(target)) {
                return false;
            }
            facts.add("step_ms", nowMs() - begin);
        }
    }
    return true;
}

}  // namespace

bool stepsRow(const std::vector<std::string>& words, Facts& facts) {
    if (words.size() != 5) {
        return false;
    }
    const int direction = words[1] == "forward" ? 1 : -1;
    const int places = std::stoi(words[3]);
    Random random(static_cast<uint32_t>(std::stoi(words[4])));
    return words[0] == "bare" ? timeBare(words[2], direction, places, random, facts)
                              : timePlayer(words[2], direction, places, random, facts);
}

bool measureSteps(const Settings& settings, Report& report) {
    const int places = settings.choose(3, 2, 1);
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    Table table(
        "steps", "From a step in a pause to its picture, in ms",
        spreadColumns({{"clip", "clip"}, {"step", "step"}, {"count", "count", 0}, {"right", "to the next picture", 0}},
                      /*decimals=*/1));
    table.setNote(
        "At several places of the film, 60 steps each, as by a key that is held down. The limit decodes the next "
        "picture; back it seeks to the key frame before that and decodes from there, each time.");
    bool ok = true;
    for (const auto& [clip, path] : latencyClips(settings)) {
        double wrong = 0;
        for (const std::string step : {"forward", "back"}) {
            const auto rows = runByTurns({{"steps", "player", step, path}, {"steps", "bare", step, path}}, places, 1);
            const Spread times = spreadOf(rows[0].facts.list("step_ms"));
            const Spread limit = spreadOf(rows[1].facts.list("step_ms"));
            const auto count = static_cast<double>(times.count);
            const double right = count * rows[0].facts.number("right");
            wrong += count - right;
            table.addRow(spreadRow({clip, step, count, right}, times, limit));
            report.expect(clip + " clip: step " + step + ", worst", times.worst,
                          step == "forward" ? kMostForwardMs : kMostBackMs);
            ok = ok && rows[0].ok && rows[1].ok && times.count > 0;
        }
        report.expect(clip + " clip: steps to another picture", wrong, 0);
    }
    report.add(table);
    return ok;
}

}  // namespace kelp::bench
