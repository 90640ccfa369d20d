#include "cost.h"

#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <thread>

#include "bare_loop.h"
#include "child.h"
#include "clips.h"
#include "film_player.h"
#include "measures.h"
#include "picture_window.h"
#include "support/x_screen.h"

namespace kelp::bench {

namespace {

constexpr int kWindowWidth = 1920;
constexpr int kWindowHeight = 1080;
constexpr auto kServeInterval = std::chrono::milliseconds(20);

// Where pictures go.
enum class Place { Sink, X11, Dummy };

struct Cost {
    bool ok = false;
    double pictures = 0;
    double cpu = 0;        // seconds of a processor for a second of film
    double screenCpu = 0;  // the same of the X server
    double peakMiB = 0;
    double wallSeconds = 0;  // from the first picture to the last
};

Cost measure(Place place, const std::string& who, const std::string& path, int speed, int seconds) {
    const double childrenBefore = cpuSeconds(RUSAGE_CHILDREN);
    Cost cost;
    double rowCpu = 0;
    double film = 0;
    {
        std::optional<test::XScreen> screen;
        if (place == Place::X11) {
            screen.emplace(kWindowWidth, kWindowHeight);
        } else {
            setenv("SDL_VIDEODRIVER", "dummy", 1);
        }
        const ChildResult result = runRow({"cost", who, place == Place::Sink ? "sink" : "window", path,
                                           std::to_string(speed), std::to_string(seconds)});
        cost.ok = result.ok;
        cost.pictures = result.facts.number("pictures");
        cost.peakMiB = result.peakMiB;
        cost.wallSeconds = result.facts.number("wall_s");
        film = result.facts.number("film_s");
        rowCpu = result.cpuSeconds;
    }
    if (film > 0) {
        cost.cpu = rowCpu / film;
        cost.screenCpu = (cpuSeconds(RUSAGE_CHILDREN) - childrenBefore - rowCpu) / film;
    }
    return cost;
}

// Plays until `seconds` of film were shown.
bool play(const std::string& path, double seconds, PictureWindow* window, Facts& facts) {
    FilmPlayer player(SYNC_MASTER_AUDIO);
    if (window) {
        player.engine().addWindow(WINDOW_TYPE_SDL, window->handle(), kWindowWidth, kWindowHeight);
    }
    if (!player.open(path) || !player.engine().play()) {
        return false;
    }
    const auto first = player.waitForPicture(0);
    if (!first) {
        return false;
    }
    const double lastMs = static_cast<double>(first->ptsMs) + seconds * 1000;
    while (!player.isOver() && player.engine().getCurrentTime() < lastMs) {
        std::this_thread::sleep_for(kServeInterval);
        if (window) {
            PictureWindow::serve();
        }
    }
    const auto shown = player.pictures();
    facts.set("pictures", static_cast<double>(shown.size()));
    facts.set("film_s", static_cast<double>(shown.back().ptsMs - first->ptsMs) / 1000);
    facts.set("wall_s", (shown.back().atMs - first->atMs) / 1000);
    return shown.size() > 1;
}

bool loop(const std::string& path, double speed, double seconds, PictureWindow* window, Facts& facts) {
    std::vector<double> shownAtMs;
    const auto note = [&](double) { shownAtMs.push_back(nowMs()); };
    const double film =
        runBareLoop(path, {.speed = speed, .seconds = seconds, .window = window, .onPicture = note, .stop = nullptr});
    facts.set("pictures", static_cast<double>(shownAtMs.size()));
    facts.set("film_s", film);
    facts.set("wall_s", shownAtMs.empty() ? 0 : (shownAtMs.back() - shownAtMs.front()) / 1000);
    return film > 0;
}

}  // namespace

bool costRow(const std::vector<std::string>& words, Facts& facts) {
    if (words.size() != 5) {
        return false;
    }
    std::unique_ptr<PictureWindow> window;
    if (words[1] == "window") {
        window = std::make_unique<PictureWindow>(kWindowWidth, kWindowHeight);
        if (!window->handle()) {
            return false;
        }
    }
    const double seconds = std::stod(words[4]);
    return words[0] == "player" ? play(words[2], seconds, window.get(), facts)
                                : loop(words[2], std::stod(words[3]), seconds, window.get(), facts);
}

bool measureCost(const Settings& settings, Report& report) {
    const std::string path = everydayPath(settings);
    if (path.empty()) {
        return false;
    }
    const int seconds = settings.choose(20, 6, 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    Table table("cost", "Playing a film with sound, " + std::to_string(seconds) + " s of it",
                {{"what", "what"},
                 {"pictures", "pictures"},
                 {"cpu", "CPU s/s", 3},
                 {"limit_cpu", "limit CPU s/s", 3},
                 {"times_limit", "x limit", 2},
                 {"screen_cpu", "X server CPU s/s", 3},
                 {"limit_screen_cpu", "limit X server CPU s/s", 3},
                 {"peak_mib", "peak MiB", 0},
                 {"limit_peak_mib", "limit peak MiB", 0},
                 {"wall_s", "wall s", 1},
                 {"limit_wall_s", "limit wall s", 1}});
    bool ok = true;
    const auto addRow = [&](const char* what, const Cost& cost, const Cost& limit, bool hasScreen) {
        ok = ok && cost.ok && limit.ok;
        table.addRow({what, cost.pictures, cost.cpu, limit.cpu, limit.cpu > 0 ? cost.cpu / limit.cpu : 0,
                      hasScreen ? Cell(cost.screenCpu) : Cell(), hasScreen ? Cell(limit.screenCpu) : Cell(),
                      cost.peakMiB, limit.peakMiB, cost.wallSeconds, limit.wallSeconds});
    };
    const Cost fastest = measure(Place::Sink, "bare", path, /*speed=*/0, seconds);
    ok = fastest.ok;
    table.addRow({"bare loop, as fast as it goes",
                  fastest.pictures,
                  fastest.cpu,
                  {},
                  {},
                  {},
                  {},
                  fastest.peakMiB,
                  {},
                  fastest.wallSeconds,
                  {}});
    const auto compare = [&](const char* what, Place place) {
        const Cost limit = measure(place, "bare", path, /*speed=*/1, seconds);
        addRow(what, measure(place, "player", path, /*speed=*/1, seconds), limit, place == Place::X11);
    };
    compare("player, frame sink", Place::Sink);
    compare("player, window on X11", Place::X11);
    compare("player, window on SDL's dummy", Place::Dummy);
    table.setNote(
        "The limit is a loop of the same libraries that reads, decodes with as many threads, copies each picture once "
        "and waits for its time; for a window it also uploads and draws each picture once. It leaves no picture out, "
        "and "
        "takes longer where it can't keep up.");
    report.add(table);
    return ok;
}

}  // namespace kelp::bench
