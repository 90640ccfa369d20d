#include "seek_latency.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <random>
#include <thread>

#include "bare_decoder.h"
#include "child.h"
#include "film_player.h"
#include "measures.h"
#include "seek_levels.h"
#include "spread_columns.h"

namespace kelp::bench {

namespace {

constexpr int64_t kMarginMs = 2500;     // to the end, so that nothing runs into it
constexpr int64_t kAheadMs = 1000;      // of the picture on the screen: behind the pictures, within the packets
constexpr int64_t kReadAheadMs = 4000;  // more than the packets that wait hold
constexpr int64_t kBehindMs = 1500;     // so that the pictures before and after can't be taken for each other
constexpr int kSettleMs = 100;          // in which the queues fill up again
constexpr int kRestMs = 50;             // of the limit: a busy system serves those first that have rested
constexpr int kMostTries = 4;           // for each seek that is wanted
constexpr int kMostTargets = 100;       // that are looked at for each

using Random = std::mt19937;

// By its part of the limit, so that two that hardly differ give the same.
int below(Random& random, int64_t limit) {
    return static_cast<int>(static_cast<double>(random()) / 4294967296.0 * static_cast<double>(limit));
}

// Where the demuxer is sent to after `before`; whoever draws from the same numbers goes to the same places. Nothing if
// the film has no place that is far enough.
std::optional<int64_t> farFrom(int64_t before, int64_t last, Random& random) {
    for (int i = 0; i < kMostTargets; ++i) {
        const int64_t target = below(random, last);
        if (target < before - kBehindMs || target > before + kReadAheadMs) {
            return target;
        }
    }
    return std::nullopt;
}

void sleepMs(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

SeekLevel levelNamed(const std::string& name) {
    return name == "pictures" ? SeekLevel::Pictures : name == "packets" ? SeekLevel::Packets : SeekLevel::Demuxer;
}

// Seeks of one level on one player.
class SeekTimer {
public:
    SeekTimer(SeekLevel level, bool paused, Random& random)
        : level_(level), paused_(paused), random_(random), player_(SYNC_MASTER_AUDIO) {}

    bool open(const std::string& path) {
        if (!player_.open(path) || !player_.engine().play() || !player_.waitForPicture(0)) {
            return false;
        }
        const auto fps = player_.engine().getPlayDetailInfo(INFO_FPS);
        frameMs_ = fps > 0 ? 1000 / fps : 40;
        durationMs_ = player_.engine().getDuration();
        if (paused_) {
            player_.engine().pause();
        }
        return durationMs_ > kReadAheadMs + kMarginMs;
    }

    void measure(int rounds, Facts& facts) {
        for (int i = 0, counted = 0; i < rounds * kMostTries && counted < rounds; ++i) {
            // At any moment of what goes on in the player.
            sleepMs(kSettleMs + below(rests_, 60));
            const auto target = chooseTarget();
            if (!target) {
                if (!seekTo(0)) {
                    break;
                }
                continue;
            }
            const double begin = nowMs();
            const auto picture = seekTo(*target);
            if (!picture) {
                break;
            }
            if (levels_.last() == level_) {
                facts.add("seek_ms", picture->atMs - begin);
                facts.add("right", std::abs(picture->ptsMs - *target) <= frameMs_ + 1 ? 1 : 0);
                ++counted;
            }
        }
    }

private:
    // Nothing where the film has no such place, seen from the present picture.
    std::optional<int64_t> chooseTarget() {
        const int64_t shown = player_.pictures().back().ptsMs;
        const int64_t last = durationMs_ - kMarginMs;
        if (level_ == SeekLevel::Demuxer) {
            return farFrom(target_, last, random_);
        }
        const int64_t target = shown + (level_ == SeekLevel::Packets ? kAheadMs : frameMs_ * 3 / 2);
        return target < last ? std::optional(target) : std::nullopt;
    }

    // Its picture, or one soon behind it: while it plays, the first one may be passed over.
    std::optional<ShownPicture> seekTo(int64_t target) {
        levels_.forget();
        target_ = target;
        const size_t before = player_.pictureCount();
        if (!player_.engine().seek(static_cast<int>(target))) {
            return std::nullopt;
        }
        return player_.waitForPicture(before, [&](const ShownPicture& shown) {
            return shown.ptsMs + frameMs_ >= target && shown.ptsMs < target + kAheadMs / 2;
        });
    }

    const SeekLevel level_;
    const bool paused_;
    Random& random_;
    Random rests_{random_};
    FilmPlayer player_;
    SeekLevels levels_;
    int64_t frameMs_ = 40;
    int64_t durationMs_ = 0;
    int64_t target_ = 0;  // of the last seek
};

// The same targets without a player: from the demuxer, or on from the present picture.
std::vector<double> bareTimes(const std::string& path, SeekLevel level, int rounds, Random& random) {
    BareDecoder decoder;
    std::vector<double> times;
    if (!decoder.openSource(path) || !decoder.openDecoders(BareDecoder::Sound::Skip) || !decoder.next()) {
        return times;
    }
    const auto last = static_cast<int64_t>(decoder.durationMs()) - kMarginMs;
    int64_t target = 0;
    while (static_cast<int>(times.size()) < rounds && last > kAheadMs) {
        const auto next = level == SeekLevel::Demuxer
                              ? farFrom(target, last, random)
                              : std::optional(static_cast<int64_t>(decoder.pictureMs()) + kAheadMs);
        target = next.value_or(last);
        if (target >= last) {
            target = 0;
            if (!decoder.seek(0) || !decoder.next()) {
                break;
            }
            continue;
        }
        sleepMs(kRestMs);
        const double begin = nowMs();
        if ((level == SeekLevel::Demuxer && !decoder.seek(target)) || !decoder.decodeTo(target)) {
            break;
        }
        times.push_back(nowMs() - begin);
    }
    return times;
}

}  // namespace

bool seekLatencyRow(const std::vector<std::string>& words, Facts& facts) {
    if (words.size() != 5) {
        return false;
    }
    const SeekLevel level = levelNamed(words[1]);
    const int rounds = std::stoi(words[3]);
    Random random(static_cast<uint32_t>(std::stoi(words[4])));
    if (words[0] == "bare") {
        facts.set("seek_ms", bareTimes(words[2], level, rounds, random));
    } else {
        SeekTimer timer(level, words[0] == "paused", random);
        if (!timer.open(words[2])) {
            return false;
        }
        timer.measure(rounds, facts);
    }
    return static_cast<int>(facts.list("seek_ms").size()) == rounds;
}

Table seekTable() {
    Table table("latency", "From a seek to its picture, in ms",
                spreadColumns({{"clip", "clip"},
                               {"target", "target"},
                               {"state", "state"},
                               {"count", "seeks", 0},
                               {"right", "at the right picture", 0}},
                              /*decimals=*/1));
    table.setNote(
        "Targets are a picture and a half ahead, a second ahead, and anywhere in the file. The limit decodes on to the "
        "target, or seeks to the key frame before it and decodes from there; a picture that waits decoded needs "
        "nothing.");
    return table;
}

bool measureSeeks(const Settings& settings, const std::string& clip, const std::string& path, int rounds, Table& table,
                  Report& report) {
    bool ok = true;
    double wrong = 0;
    for (const std::string level : {"pictures", "packets", "demuxer"}) {
        std::vector<std::vector<std::string>> rows;
        // A picture that is there needs nothing.
        for (const std::string who : {"paused", "playing", "bare"}) {
            if (who == "playing" ? settings.length != Length::Smoke : who == "paused" || level != "pictures") {
                rows.push_back({"seek-latency", who, level, path});
            }
        }
        const auto results = runByTurns(rows, rounds);
        const Spread limit =
            spreadOf(rows.back()[1] == "bare" ? results.back().facts.list("seek_ms") : std::vector<double>{});
        for (size_t i = 0; i < rows.size(); ++i) {
            const std::string& state = rows[i][1];
            const Spread times = spreadOf(results[i].facts.list("seek_ms"));
            ok = ok && results[i].ok;
            if (state == "bare") {
                continue;
            }
            const auto count = static_cast<double>(times.count);
            const double right = count * results[i].facts.number("right");
            wrong += count - right;
            table.addRow(spreadRow({clip, level, state, count, right}, times, limit));
            if (limit.count > 0) {
                report.expect(clip + " clip: seek to " + level + ", " + state + ", median", times.median,
                              limit.median * (level == "demuxer" ? 0.85 : 1.1));
            }
        }
    }
    report.expect(clip + " clip: seeks that end at another picture", wrong, 0);
    return ok;
}

}  // namespace kelp::bench
