#include "presentation.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>

#include "av_distance.h"
#include "bare_loop.h"
#include "child.h"
#include "clips.h"
#include "film_player.h"
#include "masters.h"
#include "measures.h"
#include "spread_columns.h"

namespace kelp::bench {

namespace {

constexpr double kStartMs = 1000;  // of film, in which the pace is found
constexpr int kLimitSeconds = 5;   // of film, for the loop at the most: it has nothing to follow

// Where each picture stands against its due time: how far from the median, and the median.
void setDistances(std::vector<double> lateMs, Facts& facts) {
    const double median = spreadOf(lateMs).median;
    facts.set("late_ms", median);
    for (double& late : lateMs) {
        late = std::abs(late - median);
    }
    facts.set("off_ms", std::move(lateMs));
}

// `due` tells when a picture is due on the steady clock.
template <class Due>
void compare(const std::vector<ShownPicture>& pictures, double frameMs, double speed, Due due, Facts& facts) {
    std::vector<double> late;
    int dropped = 0;
    int repeated = 0;
    const ShownPicture* last = nullptr;
    for (const ShownPicture& picture : pictures) {
        if (static_cast<double>(picture.ptsMs - pictures.front().ptsMs) < kStartMs) {
            continue;
        }
        late.push_back(picture.atMs - due(picture));
        if (last) {
            const auto steps = std::lround(static_cast<double>(picture.ptsMs - last->ptsMs) / frameMs);
            const auto periods = std::lround((picture.atMs - last->atMs) * speed / frameMs);
            dropped += static_cast<int>(std::max<long>(0, steps - 1));
            repeated += static_cast<int>(std::max<long>(0, periods - std::max<long>(1, steps)));
        }
        last = &picture;
    }
    facts.set("pictures", static_cast<double>(late.size()));
    facts.set("dropped", dropped);
    facts.set("repeated", repeated);
    setDistances(std::move(late), facts);
}

// The straight line closest to the pictures' times: the steady clock where the film begins, and milliseconds of it for
// each of film. Ordinary least squares.
struct Line {
    double atMs = 0;
    double slope = 0;
};

Line lineThrough(const std::vector<ShownPicture>& pictures) {
    const auto count = static_cast<double>(pictures.size());
    double meanPts = 0;
    double meanAt = 0;
    for (const ShownPicture& picture : pictures) {
        meanPts += static_cast<double>(picture.ptsMs) / count;
        meanAt += picture.atMs / count;
    }
    double covariance = 0;
    double variance = 0;
    for (const ShownPicture& picture : pictures) {
        const double pts = static_cast<double>(picture.ptsMs) - meanPts;
        covariance += pts * (picture.atMs - meanAt);
        variance += pts * pts;
    }
    const double slope = variance > 0 ? covariance / variance : 0;
    return {meanAt - slope * meanPts, slope};
}

bool play(const std::string& path, double fps, double seconds, double speed, const std::string& master, Facts& facts) {
    const HostClock clock = hostClockFor(master, speed);
    FilmPlayer player(masterNamed(master), clock.get());
    player.engine().setSpeed(static_cast<float>(speed));
    if (!player.open(path) || !player.engine().play()) {
        return false;
    }
    const auto first = player.waitForPicture(0);
    if (!first) {
        return false;
    }
    const double lastMs = static_cast<double>(first->ptsMs) + kStartMs + seconds * 1000;
    const auto isLast = [&](const ShownPicture& picture) { return static_cast<double>(picture.ptsMs) >= lastMs; };
    if (!player.waitForPicture(0, isLast)) {
        return false;
    }
    const std::vector<ShownPicture> pictures = player.pictures();
    if (clock) {
        // Its reading against the steady one. It counts whole milliseconds.
        const auto clockMs = static_cast<double>(clock->getCurrentClock());
        const double atMs = nowMs();
        const auto due = [&](const ShownPicture& picture) {
            return atMs + (static_cast<double>(picture.ptsMs) - clockMs) / speed;
        };
        compare(pictures, 1000 / fps, speed, due, facts);
    } else {
        // The sound's device has a pace of its own.
        const Line line = lineThrough(pictures);
        const auto due = [&](const ShownPicture& picture) {
            return line.atMs + static_cast<double>(picture.ptsMs) * line.slope;
        };
        facts.set("pace", line.slope > 0 ? 100 / (line.slope * speed) : 0);
        compare(pictures, 1000 / fps, speed, due, facts);
    }
    return facts.number("pictures") > 0;
}

bool loop(const std::string& path, double fps, double seconds, double speed, Facts& facts) {
    std::vector<double> late;
    const auto begin = static_cast<size_t>(fps * kStartMs / 1000);
    runBareLoop(path, {.speed = speed,
                       .seconds = kStartMs / 1000 + seconds,
                       .window = nullptr,
                       .onPicture = [&](double lateMs) { late.push_back(lateMs); },
                       .stop = nullptr});
    if (late.size() <= begin) {
        return false;
    }
    late.erase(late.begin(), late.begin() + static_cast<std::ptrdiff_t>(begin));
    setDistances(std::move(late), facts);
    return true;
}

struct Rate {
    const char* fps;  // as the ffmpeg command reads it
    double value;
};

}  // namespace

bool presentationRow(const std::vector<std::string>& words, Facts& facts) {
    if (words.size() != 6) {
        return false;
    }
    const double fps = std::stod(words[2]);
    const double seconds = std::stod(words[3]);
    const double speed = std::stod(words[4]);
    return words[0] == "player" ? play(words[1], fps, seconds, speed, words[5], facts)
                                : loop(words[1], fps, seconds, speed, facts);
}

bool measurePresentation(const Settings& settings, Report& report) {
    const int seconds = settings.choose(20, 5, 1);
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    Table table("presentation",
                "Pictures of 640x360 against their time, over " + std::to_string(seconds) + " s of film, in ms",
                spreadColumns({{"fps", "fps", 2}, {"speed", "speed", 0}, {"master", "master"}}, /*decimals=*/1,
                              {{"late_ms", "late by", 1},
                               {"pace", "pace %", 2},
                               {"pictures", "pictures", 0},
                               {"dropped", "dropped", 0},
                               {"repeated", "repeated", 0}}));
    bool ok = true;
    const auto measure = [&](const Rate& rate, int speed, const std::string& master) {
        const std::string path =
            clipPath(settings, {.fps = rate.fps, .seconds = seconds + 5, .hasSound = master == "sound"});
        const auto run = [&](const char* who, int filmSeconds) {
            return runRow({"presentation", who, path, std::to_string(rate.value), std::to_string(filmSeconds),
                           std::to_string(speed), master});
        };
        const ChildResult player = run("player", seconds);
        const ChildResult bare = run("bare", std::min(seconds, kLimitSeconds));
        const Spread off = spreadOf(player.facts.list("off_ms"));
        const Spread limit = spreadOf(bare.facts.list("off_ms"));
        ok = ok && player.ok && bare.ok;
        table.addRow(
            spreadRow({rate.value, static_cast<double>(speed), master}, off, limit,
                      {master == "host" ? Cell(player.facts.number("late_ms")) : Cell(),
                       master == "sound" ? Cell(player.facts.number("pace")) : Cell(), player.facts.number("pictures"),
                       player.facts.number("dropped"), player.facts.number("repeated")}));
    };
    constexpr Rate kRates[] = {{"24", 24}, {"25", 25}, {"30000/1001", 30000.0 / 1001},
                               {"30", 30}, {"50", 50}, {"60", 60}};
    for (const Rate& rate : kRates) {
        const bool isWanted = settings.length == Length::Full || rate.value == 25;
        for (const int speed : {1, 2}) {
            if (isWanted) {
                measure(rate, speed, "host");
            }
        }
    }
    for (const int speed : settings.choose<std::vector<int>>({1, 2}, {1, 2}, {})) {
        measure({"30", 30}, speed, "sound");
    }
    table.setNote(
        "Distances are from a picture to its due time, less the median of all, which stands in \"late by\" where a "
        "host's clock says what the time is. With the sound as master a picture is due at the pace of the sound's "
        "device, found from all pictures, which stands in \"pace %\" of the steady clock's. The limit is a loop that "
        "sleeps until each picture is due.");
    report.add(table);
    return measureAvDistance(settings, report) && ok;
}

}  // namespace kelp::bench
