#include "presentation.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <map>
#include <utility>

#include "av_distance.h"
#include "bare_loop.h"
#include "child.h"
#include "clips.h"
#include "film_player.h"
#include "live.h"
#include "masters.h"
#include "measures.h"
#include "screens.h"
#include "spread_columns.h"
#include "steady_device.h"

namespace kelp::bench {

namespace {

constexpr double kStartMs = 1000;  // in which the pace is found
constexpr int kLimitSeconds = 2;   // for the loop at the most: it has nothing to follow

// Where each picture stands against its due time: how far from the median, and the median.
void setDistances(std::vector<double> lateMs, Facts& facts) {
    const double median = spreadOf(lateMs).median;
    facts.set("late_ms", median);
    for (double& late : lateMs) {
        late = std::abs(late - median);
    }
    facts.set("off_ms", std::move(lateMs));
}

// A picture with its own time, of which the sink is told the whole milliseconds.
struct TimedPicture {
    double filmMs = 0;
    double atMs = 0;
};

std::vector<TimedPicture> timed(const std::vector<ShownPicture>& pictures, double frameMs) {
    std::vector<TimedPicture> all;
    for (const ShownPicture& picture : pictures) {
        all.push_back({std::round((static_cast<double>(picture.ptsMs) + 0.5) / frameMs) * frameMs, picture.atMs});
    }
    return all;
}

// `due` tells when a picture is due on the steady clock.
template <class Due>
void compare(const std::vector<TimedPicture>& pictures, double frameMs, double speed, Due due, Facts& facts) {
    std::vector<double> late;
    int dropped = 0;
    int repeated = 0;
    const TimedPicture* last = nullptr;
    for (const TimedPicture& picture : pictures) {
        late.push_back(picture.atMs - due(picture));
        if (last) {
            const auto steps = std::lround((picture.filmMs - last->filmMs) / frameMs);
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

Line lineThrough(const std::vector<TimedPicture>& pictures) {
    const auto count = static_cast<double>(pictures.size());
    double meanFilm = 0;
    double meanAt = 0;
    for (const TimedPicture& picture : pictures) {
        meanFilm += picture.filmMs / count;
        meanAt += picture.atMs / count;
    }
    double covariance = 0;
    double variance = 0;
    for (const TimedPicture& picture : pictures) {
        const double film = picture.filmMs - meanFilm;
        covariance += film * (picture.atMs - meanAt);
        variance += film * film;
    }
    const double slope = variance > 0 ? covariance / variance : 0;
    return {meanAt - slope * meanFilm, slope};
}

struct Playing {
    std::string path;
    double fps = 0;
    double seconds = 0;  // of the wall clock
    double speed = 1;
    std::string master;
    std::string timing;
};

bool play(const Playing& what, Facts& facts) {
    useSteadyDevice();
    const HostClock clock = hostClockFor(what.master, what.speed);
    FilmPlayer player(masterNamed(what.master), clock.get(), what.timing);
    player.engine().setSpeed(static_cast<float>(what.speed));
    if (!player.open(what.path) || !player.engine().play()) {
        return false;
    }
    const auto first = player.waitForPicture(0);
    if (!first) {
        return false;
    }
    const double beginMs = first->atMs + kStartMs;
    const double endMs = beginMs + what.seconds * 1000;
    if (!player.waitForPicture(0, [&](const ShownPicture& picture) { return picture.atMs >= endMs; })) {
        return false;
    }
    std::vector<ShownPicture> shown = player.pictures();
    std::erase_if(shown, [&](const ShownPicture& picture) { return picture.atMs < beginMs; });
    const double frameMs = 1000 / what.fps;
    const std::vector<TimedPicture> pictures = timed(shown, frameMs);
    if (clock) {
        // Its reading against the steady one. It counts whole milliseconds.
        const auto clockMs = static_cast<double>(clock->getCurrentClock());
        const double atMs = nowMs();
        const auto due = [&](const TimedPicture& picture) { return atMs + (picture.filmMs - clockMs) / what.speed; };
        compare(pictures, frameMs, what.speed, due, facts);
    } else {
        // The sound's device may have a pace of its own.
        const Line line = lineThrough(pictures);
        const auto due = [&](const TimedPicture& picture) { return line.atMs + picture.filmMs * line.slope; };
        facts.set("pace", line.slope > 0 ? 100 / (line.slope * what.speed) : 0);
        compare(pictures, frameMs, what.speed, due, facts);
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

using Words = std::vector<std::string>;

struct Rate {
    const char* fps;  // as the ffmpeg command reads it
    double value;
};

}  // namespace

bool presentationRow(const std::vector<std::string>& words, Facts& facts) {
    if (words.size() != 7) {
        return false;
    }
    const double fps = std::stod(words[2]);
    const double seconds = std::stod(words[3]);
    const double speed = std::stod(words[4]);
    return words[0] == "player" ? play({words[1], fps, seconds, speed, words[5], words[6]}, facts)
                                : loop(words[1], fps, seconds, speed, facts);
}

bool measurePresentation(const Settings& settings, Report& report) {
    const int shortest = settings.choose(4, 2, 1);
    const int pictures = settings.choose(300, 0, 0);  // of a row at the least, so that one isn't a hundredth of all
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    Table table("presentation", "Pictures of 640x360 against their time, in ms",
                spreadColumns({{"timing", "timing"}, {"fps", "fps", 2}, {"speed", "speed", 1}, {"master", "master"}},
                              /*decimals=*/1,
                              {{"late_ms", "late by", 1},
                               {"pace", "pace %", 2},
                               {"pictures", "pictures", 0},
                               {"dropped", "dropped", 0},
                               {"repeated", "repeated", 0}}));
    bool ok = true;
    double worst = 0;
    double missed = 0;
    std::map<std::pair<double, double>, Spread> limits;  // by rate and speed
    // The masters and timings side by side, and the loop with the first of them.
    const auto measure = [&](const Rate& rate, double speed, const Words& masters, const Words& timings) {
        const double seconds = std::max<double>(shortest, pictures / (rate.value * speed));
        std::vector<Words> rows;
        const auto add = [&](const char* who, double wanted, const std::string& master, const std::string& timing) {
            const bool hasSound = master == "sound";
            rows.push_back({"presentation", who,
                            clipPath(settings, {.fps = rate.fps, .seconds = 16, .hasSound = hasSound}),
                            std::to_string(rate.value), std::to_string(wanted), std::to_string(speed), master, timing});
        };
        for (const std::string& master : masters) {
            for (const std::string& timing : timings) {
                add("player", seconds, master, timing);
            }
        }
        const size_t players = rows.size();
        const auto [limit, isNew] = limits.try_emplace({rate.value, speed});
        if (isNew) {
            add("bare", std::min<double>(shortest, kLimitSeconds) * speed, "", "");
        }
        const std::vector<ChildResult> results = runTogether(rows);
        if (isNew) {
            limit->second = spreadOf(results.back().facts.list("off_ms"));
        }
        for (size_t i = 0; i < results.size(); ++i) {
            ok = ok && results[i].ok;
            if (i >= players) {
                continue;
            }
            const std::string& master = masters[i / timings.size()];
            const std::string& timing = timings[i % timings.size()];
            const Facts& facts = results[i].facts;
            const Spread off = spreadOf(facts.list("off_ms"));
            table.addRow(spreadRow({timing, rate.value, speed, master}, off, limit->second,
                                   {master == "host" ? Cell(facts.number("late_ms")) : Cell(),
                                    master == "sound" ? Cell(facts.number("pace")) : Cell(), facts.number("pictures"),
                                    facts.number("dropped"), facts.number("repeated")}));
            if (timing == "exact") {
                worst = std::max(worst, off.p99);
                missed += facts.number("dropped") + facts.number("repeated");
            }
        }
    };
    constexpr Rate kRates[] = {{"24", 24}, {"25", 25},  {"30000/1001", 30000.0 / 1001}, {"30", 30}, {"50", 50},
                               {"60", 60}, {"120", 120}};
    const bool isFull = settings.length == Length::Full;
    const Words kBoth = {"standard", "exact"};
    const Words kExact = {"exact"};
    for (const Rate& rate : kRates) {
        for (const double speed : settings.choose<std::vector<double>>({1, 2}, {1, 2}, {1})) {
            if (isFull || rate.value == 25) {
                measure(rate, speed, {"host"}, kBoth);
            } else if (rate.value == 120 && speed == 1) {
                measure(rate, speed, {"host"}, kExact);
            }
        }
    }
    for (const char* master : {"clock", "sound", "picture", "host"}) {
        for (const double speed : settings.choose<std::vector<double>>({0.5, 1, 1.5, 2}, {2}, {})) {
            const bool isThere = master == std::string("host") && (!isFull || speed == 1 || speed == 2);
            if (!isThere) {
                measure({"30", 30}, speed, {master}, isFull ? kBoth : kExact);
            }
        }
    }
    if (isFull) {
        const std::pair<Rate, double> kOthers[] = {{kRates[0], 0.5}, {kRates[1], 1},   {kRates[2], 1.5},
                                                   {kRates[4], 2},   {kRates[5], 0.5}, {kRates[6], 1}};
        for (const auto& [rate, speed] : kOthers) {
            measure(rate, speed, {"clock", "sound", "picture"}, kExact);
        }
    }
    if (settings.length != Length::Smoke) {
        report.expect("exact: pictures off their time, ms, 99th of the worst row", worst, 3);
        report.expect("exact: pictures dropped or repeated", missed, 0);
    }
    table.setNote(
        "Distances are from a picture to its due time, less the median of all, which stands in \"late by\" where a "
        "host's clock says what the time is. With another master a picture is due at the pace of all of them, which "
        "for the sound stands in \"pace %\" of the steady clock's; its device asks for each block in time. The limit "
        "is "
        "a loop that sleeps until each picture is due.");
    report.add(table);
    const bool together = measureAvDistance(settings, report);
    const bool screens = measureScreens(settings, report);
    // Takes a server and as long as it takes: nothing for the shortest run.
    const bool live = settings.length == Length::Smoke || measureLive(settings, report);
    return screens && together && live && ok;
}

}  // namespace kelp::bench
