#include "av_distance.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <thread>

#include "child.h"
#include "clips.h"
#include "film_player.h"
#include "masters.h"
#include "measures.h"
#include "sound_watch.h"

namespace kelp::bench {

namespace {

constexpr int kBright = 128;
constexpr int64_t kStartMs = 2500;  // of the film, the start's
constexpr double kPatienceMs = 120'000;
constexpr double kTogetherMs = 25;  // no ear and no eye tells them apart

// Exact ones are close enough to come often, of the wall clock; standard ones are up to half a second apart.
constexpr int kPeriodMs = 240;
constexpr double kShortQuietMs = 80;
constexpr double kQuietMs = 300;

std::vector<double> flashesMs(const std::vector<ShownPicture>& pictures, double fromMs) {
    std::vector<double> flashes;
    bool wasBright = false;
    for (const ShownPicture& picture : pictures) {
        const bool bright = picture.luma > kBright;
        if (bright && !wasBright && picture.atMs >= fromMs && picture.ptsMs >= kStartMs) {
            flashes.push_back(picture.atMs);
        }
        wasBright = bright;
    }
    return flashes;
}

// From each flash to the nearest beep: positive where the picture is late.
std::vector<double> distances(const std::vector<double>& flashes, const std::vector<double>& beeps) {
    std::vector<double> apart;
    for (const double flash : flashes) {
        if (beeps.empty()) {
            break;
        }
        double nearest = flash - beeps.front();
        for (const double beep : beeps) {
            nearest = std::abs(flash - beep) < std::abs(nearest) ? flash - beep : nearest;
        }
        apart.push_back(nearest);
    }
    return apart;
}

// The film of a row: a flash and a beep that each last a third of their period and come as often at every speed, or one
// a second.
std::string clipFor(const Settings& settings, const std::string& timing, const std::string& speed) {
    if (timing != "exact") {
        return flashesPath(settings, {.seconds = settings.choose(10, 6, 6)});
    }
    const double filmPerWall = speed == "changes" ? 1 : std::stod(speed);
    const auto periodMs = static_cast<int>(std::lround(kPeriodMs * filmPerWall));
    // Of ten periods nine have a flash.
    const int flashes = settings.choose(104, 20, 5);
    const double wallMs = flashes * kPeriodMs / 0.9;
    const auto seconds = static_cast<int>(std::ceil((kStartMs + wallMs * filmPerWall) / 1000));
    return flashesPath(settings, {.seconds = std::max(6, seconds), .periodMs = periodMs, .lengthMs = periodMs / 3});
}

void rest(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// What a restless viewer does: 20 seeks, 20 pauses and 10 changes of speed; then the film is at its beginning.
void changeOften(KelpPlayer& player, TarnSyncClock* clock) {
    const auto seek = [&](int ms) {
        if (clock) {
            clock->reset(ms);
        }
        player.seek(ms);
        rest(150);
    };
    for (int i = 0; i < 20; ++i) {
        seek(i * 7919 % 5000);
    }
    for (int i = 0; i < 20; ++i) {
        if (clock) {
            clock->pause();
        }
        player.pause();
        rest(50 + 7 * i % 40);
        if (clock) {
            clock->resume();
        }
        player.resume();
        rest(50 + 11 * i % 40);
    }
    for (int i = 0; i < 10; ++i) {
        constexpr double kSpeeds[] = {2, 0.5, 1.5, 1};
        const double speed = i == 9 ? 1 : kSpeeds[i % 4];
        if (clock) {
            clock->setSpeed(speed);
        }
        player.setSpeed(static_cast<float>(speed));
        rest(200);
    }
    seek(0);
}

}  // namespace

bool avDistanceRow(const std::vector<std::string>& words, Facts& facts) {
    if (words.size() != 4) {
        return false;
    }
    const bool changes = words[3] == "changes";
    const double speed = changes ? 1 : std::stod(words[3]);
    const HostClock clock = hostClockFor(words[1], speed);
    SoundWatch sound(words[2] == "exact" ? kShortQuietMs : kQuietMs);
    FilmPlayer player(masterNamed(words[1]), clock.get(), words[2]);
    player.engine().setSpeed(static_cast<float>(speed));
    double begin = nowMs();
    if (!player.open(words[0]) || !player.engine().play()) {
        return false;
    }
    if (changes) {
        if (!player.waitForPicture(0)) {
            return false;
        }
        changeOften(player.engine(), clock.get());
        begin = nowMs();
    }
    if (!player.waitForEnd(kPatienceMs)) {
        return false;
    }
    facts.set("wall_s", (nowMs() - begin) / 1000);
    player.engine().stop();
    auto apart = distances(flashesMs(player.pictures(), begin), sound.beepsMs());
    std::sort(apart.begin(), apart.end());
    facts.set("apart_ms", apart);
    return !apart.empty();
}

bool measureAvDistance(const Settings& settings, Report& report) {
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    Table table("presentation", "From the sound to its picture",
                {{"timing", "timing"},
                 {"master", "master"},
                 {"speed", "speed"},
                 {"median_ms", "median ms", 1},
                 {"least_ms", "least ms", 1},
                 {"most_ms", "most ms", 1},
                 {"together", "% within 25 ms", 0},
                 {"flashes", "flashes", 0},
                 {"wall_s", "wall s", 1}});
    bool ok = true;
    double worstMedian = 0;
    std::vector<double> all;
    using Words = std::vector<std::string>;
    // All masters at the same time.
    const auto measure = [&](const std::string& timing, const Words& masters, const std::string& speed) {
        const std::string clip = clipFor(settings, timing, speed);
        std::vector<Words> rows;
        for (const std::string& master : masters) {
            rows.push_back({"av-distance", clip, master, timing, speed});
        }
        const std::vector<ChildResult> results = runTogether(rows);
        for (size_t i = 0; i < results.size(); ++i) {
            const ChildResult& row = results[i];
            const auto apart = row.facts.list("apart_ms");
            ok = ok && row.ok;
            if (apart.empty()) {
                continue;
            }
            const double median = apart[apart.size() / 2];
            const auto near = std::ranges::count_if(apart, [](double ms) { return std::abs(ms) <= kTogetherMs; });
            table.addRow({timing, masters[i], speed, median, apart.front(), apart.back(),
                          100.0 * static_cast<double>(near) / static_cast<double>(apart.size()),
                          static_cast<double>(apart.size()), row.facts.number("wall_s")});
            if (timing == "exact") {
                worstMedian = std::max(worstMedian, std::abs(median));
                all.insert(all.end(), apart.begin(), apart.end());
            }
        }
    };
    const Words kSound = {"sound"};
    const Words kMasters =
        settings.choose<Words>({"clock", "sound", "picture", "host"}, {"clock", "sound", "picture", "host"}, kSound);
    for (const std::string& speed : settings.choose<Words>({"0.5", "1", "1.5", "2", "changes"}, {"1"}, {})) {
        measure("standard", settings.choose(kMasters, kSound, kSound), speed);
    }
    for (const std::string& speed :
         settings.choose<Words>({"0.5", "1", "1.5", "2", "changes"}, {"1", "2", "changes"}, {"2"})) {
        measure("exact", speed == "changes" ? settings.choose(kMasters, kSound, kSound) : kMasters, speed);
    }
    if (settings.length != Length::Smoke && !all.empty()) {
        const auto far = std::ranges::count_if(all, [](double ms) { return std::abs(ms) > kTogetherMs; });
        report.expect("exact: from the sound to its picture, ms, median of the worst row", worstMedian, 10);
        report.expect("exact: % of flashes more than 25 ms from their sound",
                      100.0 * static_cast<double>(far) / static_cast<double>(all.size()), 2);
    }
    table.setNote(
        "Positive: the picture comes later than its sound. Nothing is between them in the best case: 0. At the speed "
        "\"changes\" it is measured at speed 1, after 20 seeks, 20 pauses and 10 changes of speed. With standard "
        "timing the film flashes once a second, with exact timing every 240 ms, each tenth time left out.");
    report.add(table);
    return ok;
}

}  // namespace kelp::bench
