#include "screens.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <thread>

#include "child.h"
#include "clips.h"
#include "film_player.h"
#include "masters.h"
#include "measures.h"

namespace kelp::bench {

namespace {

constexpr int kPlayers = 4;
constexpr double kPictureMs = 40;      // of the film
constexpr double kFirstLookMs = 1500;  // in which the players find together
constexpr double kLookMs = 3;          // between two looks at all screens

// What stands on a screen; before the first picture, that one.
double shownMs(const std::vector<ShownPicture>& pictures, double atMs) {
    const auto next = std::ranges::upper_bound(pictures, atMs, {}, &ShownPicture::atMs);
    return static_cast<double>((next == pictures.begin() ? next : next - 1)->ptsMs);
}

}  // namespace

bool screensRow(const std::vector<std::string>& words, Facts& facts) {
    if (words.size() != 5) {
        return false;
    }
    const double seconds = std::stod(words[2]);
    const double speed = std::stod(words[4]);
    const HostClock clock = hostClockFor("host", speed);
    std::vector<std::unique_ptr<FilmPlayer>> players;
    for (int i = 0; i < kPlayers; ++i) {
        players.push_back(std::make_unique<FilmPlayer>(SYNC_MASTER_CLOCK, nullptr, words[3]));
        players.back()->engine().setExternSyncClock(clock.get(), 0);
        players.back()->engine().setSpeed(static_cast<float>(speed));
        if (!players.back()->open(words[i < 2 ? 0 : 1])) {
            return false;
        }
    }
    clock->resume();
    for (const auto& player : players) {
        if (!player->engine().play()) {
            return false;
        }
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(kFirstLookMs / 1000 + seconds));
    // Its reading against the steady one. It counts whole milliseconds.
    const auto clockMs = static_cast<double>(clock->getCurrentClock()) + 0.5;
    const double nowAtMs = nowMs();

    std::vector<std::vector<ShownPicture>> screens;
    for (const auto& player : players) {
        screens.push_back(player->pictures());
        if (screens.back().empty()) {
            return false;
        }
    }
    std::vector<double> fromClock;
    std::vector<double> apart;
    for (double atMs = nowAtMs - seconds * 1000; atMs < nowAtMs; atMs += kLookMs) {
        const double filmMs = clockMs + (atMs - nowAtMs) * speed;
        double earliest = shownMs(screens.front(), atMs);
        double latest = earliest;
        for (const auto& screen : screens) {
            const double ms = shownMs(screen, atMs);
            earliest = std::min(earliest, ms);
            latest = std::max(latest, ms);
            // Right is the last picture whose time has come.
            fromClock.push_back(std::max({0.0, ms - filmMs, filmMs - ms - kPictureMs}));
        }
        apart.push_back(latest - earliest);
    }
    facts.set("clock_ms", std::move(fromClock));
    facts.set("apart_ms", std::move(apart));
    return true;
}

namespace {

// `seconds` are those of a row.
bool measure(const Settings& settings, Report& report, int seconds, const std::vector<std::string>& standardSpeeds,
             const std::vector<std::string>& exactSpeeds) {
    const int clipSeconds = 40 + (seconds > 12 ? 2 * seconds : 0);
    const std::string sounding = clipPath(settings, {.fps = "25", .seconds = clipSeconds});
    const std::string silent = clipPath(settings, {.fps = "25", .seconds = clipSeconds, .hasSound = false});
    // The dummy driver has one device, this one many.
    setenv("SDL_AUDIODRIVER", "disk", 1);
    setenv("SDL_DISKAUDIOFILE", "/dev/null", 1);
    Table table("presentation", "Four screens on one host's clock, two with sound",
                {{"timing", "timing"},
                 {"speed", "speed", 1},
                 {"clock_p99_ms", "from the clock, 99th ms", 0},
                 {"clock_worst_ms", "worst ms", 0},
                 {"apart_p99_ms", "from each other, 99th ms", 0},
                 {"apart_worst_ms", "worst ms", 0},
                 {"looks", "looks", 0}});
    bool ok = !sounding.empty() && !silent.empty();
    double worstFromClock = 0;
    double worstApart = 0;
    const auto add = [&](const std::string& timing, const std::string& speed) {
        const ChildResult row = runRow({"screens", sounding, silent, std::to_string(seconds), timing, speed});
        ok = ok && row.ok;
        const Spread fromClock = spreadOf(row.facts.list("clock_ms"));
        const Spread apart = spreadOf(row.facts.list("apart_ms"));
        table.addRow({timing, std::stod(speed), fromClock.p99, fromClock.worst, apart.p99, apart.worst,
                      static_cast<double>(apart.count)});
        if (timing == "exact") {
            worstFromClock = std::max(worstFromClock, fromClock.worst);
            worstApart = std::max(worstApart, apart.worst);
        }
    };
    for (const std::string& speed : standardSpeeds) {
        add("standard", speed);
    }
    for (const std::string& speed : exactSpeeds) {
        add("exact", speed);
    }
    if (settings.length != Length::Smoke) {
        report.expect("exact: four screens from their clock, ms, worst", worstFromClock, kPictureMs);
        report.expect("exact: four screens from each other, ms, worst", worstApart, kPictureMs);
    }
    table.setNote(
        "In milliseconds of the film, in which a picture of 40 ms stands for its own time: from the clock is how far "
        "the clock's time lies outside of it. A picture that comes a moment before or after that of another screen is "
        "40 ms from it for that moment.");
    report.add(table);
    return ok;
}

}  // namespace

bool measureScreens(const Settings& settings, Report& report) {
    using Words = std::vector<std::string>;
    const Words speeds = {"0.5", "1", "1.5", "2"};
    return measure(settings, report, settings.choose(8, 4, 1), settings.choose<Words>(speeds, {"1"}, {}),
                   settings.choose<Words>(speeds, {"1"}, {"1"}));
}

bool measureScreensForLong(const Settings& settings, Report& report) {
    const std::vector<std::string> speeds = {"0.5", "1", "1.5", "2"};
    const int seconds = settings.seconds > 0 ? settings.seconds : 600;
    return measure(settings, report, std::max(1, seconds / static_cast<int>(speeds.size())), {}, speeds);
}

}  // namespace kelp::bench
