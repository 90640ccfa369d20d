#include "seek_latency.h"

#include <chrono>
#include <cmath>
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
constexpr int kSettleMs = 200;          // in which the queues fill up again
constexpr int kRestMs = 50;             // of the limit: a busy system serves those first that have rested
constexpr int kMostTries = 4;           // for each seek that is wanted
constexpr int kMostTargets = 100;       // that are looked at for each

using Random = std::mt19937;

int below(Random& random, int64_t limit) {
    return static_cast<int>(random() % static_cast<uint32_t>(limit));
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
    SeekTimer(SeekLevel level, bool paused) : level_(level), paused_(paused), player_(SYNC_MASTER_AUDIO) {}

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

    std::vector<double> measure(int rounds) {
        std::vector<double> times;
        for (int i = 0; i < rounds * kMostTries && static_cast<int>(times.size()) < rounds; ++i) {
            // At any moment of what goes on in the player.
            sleepMs(kSettleMs + below(random_, 100));
            const auto target = chooseTarget();
            if (!target) {
                if (!seekTo(0)) {
                    break;
                }
                continue;
            }
            const auto time = seekTo(*target);
            if (!time) {
                break;
            }
            if (levels_.last() == level_) {
                times.push_back(*time);
            }
        }
        return times;
    }

private:
    // Nothing where the film has no such place, seen from the present picture.
    std::optional<int64_t> chooseTarget() {
        const int64_t shown = player_.pictures().back().ptsMs;
        const int64_t last = durationMs_ - kMarginMs;
        if (level_ != SeekLevel::Demuxer) {
            const int64_t target = shown + (level_ == SeekLevel::Packets ? kAheadMs : frameMs_ * 3 / 2);
            return target < last ? std::optional(target) : std::nullopt;
        }
        for (int i = 0; i < kMostTargets; ++i) {
            const int64_t target = below(random_, last);
            if (target < shown - kBehindMs || target > shown + kReadAheadMs) {
                return target;
            }
        }
        return std::nullopt;
    }

    // How many milliseconds its picture took, or the one behind it: while it plays, the first one may be passed over.
    std::optional<double> seekTo(int64_t target) {
        levels_.forget();
        const size_t before = player_.pictureCount();
        const double begin = nowMs();
        if (!player_.engine().seek(static_cast<int>(target))) {
            return std::nullopt;
        }
        const auto picture = player_.waitForPicture(before, [&](const ShownPicture& shown) {
            return shown.ptsMs + frameMs_ >= target && shown.ptsMs < target + kAheadMs / 2;
        });
        return picture ? std::optional(picture->atMs - begin) : std::nullopt;
    }

    const SeekLevel level_;
    const bool paused_;
    Random random_{1};
    FilmPlayer player_;
    SeekLevels levels_;
    int64_t frameMs_ = 40;
    int64_t durationMs_ = 0;
};

// The same targets without a player: from the demuxer, or on from the present picture.
std::vector<double> bareTimes(const std::string& path, SeekLevel level, int rounds) {
    BareDecoder decoder;
    std::vector<double> times;
    if (!decoder.openSource(path) || !decoder.openDecoders(BareDecoder::Sound::Skip) || !decoder.next()) {
        return times;
    }
    Random random(1);
    const auto last = static_cast<int64_t>(decoder.durationMs()) - kMarginMs;
    while (static_cast<int>(times.size()) < rounds && last > kAheadMs) {
        auto target = static_cast<int64_t>(decoder.pictureMs()) + kAheadMs;
        if (level == SeekLevel::Demuxer) {
            target = below(random, last);
        } else if (target >= last) {
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
    if (words.size() != 4) {
        return false;
    }
    const SeekLevel level = levelNamed(words[1]);
    const int rounds = std::stoi(words[3]);
    std::vector<double> times;
    if (words[0] == "bare") {
        times = bareTimes(words[2], level, rounds);
    } else {
        SeekTimer timer(level, words[0] == "paused");
        if (!timer.open(words[2])) {
            return false;
        }
        times = timer.measure(rounds);
    }
    facts.set("seek_ms", times);
    return static_cast<int>(times.size()) == rounds;
}

bool measureSeekLatency(const Settings& settings, const std::string& path, int rounds, Report& report) {
    Table table("latency", "From a seek to its picture, in ms",
                spreadColumns({{"target", "target"}, {"state", "state"}, {"count", "count", 0}}, /*decimals=*/1));
    bool ok = true;
    const std::string wanted = std::to_string(rounds);
    for (const std::string level : {"pictures", "packets", "demuxer"}) {
        // A picture that is there needs nothing.
        const bool hasLimit = level != "pictures";
        const ChildResult bare = hasLimit ? runRow({"seek-latency", "bare", level, path, wanted}) : ChildResult{};
        const Spread limit = spreadOf(bare.facts.list("seek_ms"));
        ok = ok && (bare.ok || !hasLimit);
        for (const std::string state : {"playing", "paused"}) {
            if (settings.length == Length::Smoke && state == "playing") {
                continue;
            }
            const ChildResult row = runRow({"seek-latency", state, level, path, wanted});
            const Spread times = spreadOf(row.facts.list("seek_ms"));
            ok = ok && row.ok;
            table.addRow(spreadRow({level, state, static_cast<double>(times.count)}, times, limit));
        }
    }
    table.setNote(
        "Targets are a picture and a half ahead, a second ahead, and anywhere in the file. The limit decodes on to the "
        "target, or seeks to the key frame before it and decodes from there; a picture that waits decoded needs "
        "nothing.");
    report.add(table);
    return ok;
}

}  // namespace kelp::bench
