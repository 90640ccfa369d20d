#include "cost.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <thread>

#include "bare_decoder.h"
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
constexpr auto kServeInterval = std::chrono::milliseconds(33);  // as often as the loop does
constexpr auto kLookInterval = std::chrono::milliseconds(500);  // without a window a host has nothing to do

// Where pictures go.
enum class Place { Sink, X11, Dummy };

// What a row has used, over all its turns.
struct Cost {
    double rate = 0;  // of the film, in pictures per second
    bool ok = true;
    double pictures = 0;
    double wallSeconds = 0;  // from the first picture to the last
    double cpuSeconds = 0;
    double screenCpuSeconds = 0;  // of the X server
    double peakMiB = 0;

    // For a second of film that was shown: what leaves pictures out isn't cheaper for it.
    double cpu() const { return pictures > 0 ? cpuSeconds * rate / pictures : 0; }
    double screenCpu() const { return pictures > 0 ? screenCpuSeconds * rate / pictures : 0; }
};

void measure(Place place, const std::string& who, const std::string& path, int speed, int seconds, Cost& cost) {
    const double childrenBefore = cpuSeconds(RUSAGE_CHILDREN);
    ChildResult row;
    {
        std::optional<test::XScreen> screen;
        if (place == Place::X11) {
            screen.emplace(kWindowWidth, kWindowHeight);
        } else {
            setenv("SDL_VIDEODRIVER", "dummy", 1);
        }
        row = runRow({"cost", who, place == Place::Sink ? "sink" : "window", path, std::to_string(speed),
                      std::to_string(seconds)});
    }
    cost.ok = cost.ok && row.ok;
    cost.pictures += row.facts.number("pictures");
    cost.wallSeconds += row.facts.number("wall_s");
    cost.cpuSeconds += row.cpuSeconds;
    cost.screenCpuSeconds += cpuSeconds(RUSAGE_CHILDREN) - childrenBefore - row.cpuSeconds;
    cost.peakMiB = std::max(cost.peakMiB, row.peakMiB);
}

// Plays until `seconds` of film were shown.
bool play(const std::string& path, double seconds, const std::string& who, PictureWindow* window, Facts& facts) {
    FilmPlayer player(SYNC_MASTER_AUDIO);
    if (who == "player-sharing") {
        player.engine().setOption("pictures", "shared");
    } else if (who == "player-recommended") {
        player.engine().setOption("preset", "recommended");
    }
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
        std::this_thread::sleep_for(window ? kServeInterval : kLookInterval);
        if (window) {
            PictureWindow::serve();
        }
    }
    const auto shown = player.pictures();
    facts.set("pictures", static_cast<double>(shown.size()));
    facts.set("wall_s", (shown.back().atMs - first->atMs) / 1000);
    return shown.size() > 1;
}

bool loop(const std::string& path, double speed, double seconds, bool shares, PictureWindow* window, Facts& facts) {
    std::vector<double> shownAtMs;
    const auto note = [&](double) { shownAtMs.push_back(nowMs()); };
    const double film = runBareLoop(
        path,
        {.speed = speed, .seconds = seconds, .window = window, .copies = !shares, .onPicture = note, .stop = nullptr});
    facts.set("pictures", static_cast<double>(shownAtMs.size()));
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
    return words[0].starts_with("player")
               ? play(words[2], seconds, words[0], window.get(), facts)
               : loop(words[2], std::stod(words[3]), seconds, words[0] == "bare-sharing", window.get(), facts);
}

bool measureCost(const Settings& settings, Report& report) {
    const std::string path = everydayPath(settings);
    BareDecoder decoder;
    if (path.empty() || !decoder.openSource(path)) {
        return false;
    }
    const int seconds = settings.seconds > 0 ? settings.seconds : settings.choose(20, 6, 1);
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
    const auto compare = [&](const char* what, Place place, const std::string& how, int turns, double most) {
        Cost limit{.rate = decoder.rate()};
        Cost cost{.rate = decoder.rate()};
        for (int i = 0; i < turns; ++i) {
            measure(place, "bare" + how, path, /*speed=*/1, seconds, limit);
            measure(place, "player" + how, path, /*speed=*/1, seconds, cost);
        }
        ok = ok && cost.ok && limit.ok;
        const double times = limit.cpu() > 0 ? cost.cpu() / limit.cpu() : 0;
        const bool hasScreen = place == Place::X11;
        table.addRow({what, cost.pictures, cost.cpu(), limit.cpu(), times, hasScreen ? Cell(cost.screenCpu()) : Cell(),
                      hasScreen ? Cell(limit.screenCpu()) : Cell(), cost.peakMiB, limit.peakMiB, cost.wallSeconds,
                      limit.wallSeconds});
        if (most > 0) {
            report.expect(std::string(what) + ", x limit", times, most);
        }
    };
    Cost fastest{.rate = decoder.rate()};
    measure(Place::Sink, "bare", path, /*speed=*/0, seconds, fastest);
    ok = fastest.ok;
    table.addRow({"bare loop, as fast as it goes",
                  fastest.pictures,
                  fastest.cpu(),
                  {},
                  {},
                  {},
                  {},
                  fastest.peakMiB,
                  {},
                  fastest.wallSeconds,
                  {}});
    // What differs by some hundredths only is measured again.
    const int turns = settings.choose(2, 1, 1);
    compare("player, frame sink", Place::Sink, "", turns, 1.08);
    compare("player, frame sink, pictures shared", Place::Sink, "-sharing", turns, 1.04);
    compare("player, window on X11", Place::X11, "", 1, 1.15);
    compare("player, window on SDL's dummy", Place::Dummy, "", 1, 0);
    table.setNote(
        "The limit is a loop of the same libraries that reads, decodes with as many threads, copies each picture once, "
        "unless pictures are shared, and waits for its time; for a window it also uploads and draws each picture once. "
        "It leaves no picture out, and takes longer where it can't keep up.");
    report.add(table);
    return ok;
}

}  // namespace kelp::bench
