#include "wakes.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <numeric>
#include <optional>
#include <set>
#include <thread>

#include "child.h"
#include "clips.h"
#include "film_player.h"
#include "measures.h"
#include "picture_window.h"
#include "support/x_screen.h"

namespace kelp::bench {

namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 360;
constexpr double kSettleSeconds = 1;     // before what is measured
constexpr double kPatienceMs = 30'000;   // with the end of a short clip
constexpr double kServeSeconds = 0.033;  // between two looks of the host at its window
// What the library calls its threads, as the system cuts it.
constexpr const char* kOwn[] = {"Worker",          "WorkerTimer",     "StreamParser",   "VideoDecodeThre",
                                "AudioDecodeThre", "VideoPlayThread", "AudioPlayThread"};
constexpr const char* kCodec = "libavcodec";
constexpr const char* kForeign[] = {"SDL", kCodec, "others"};
constexpr const char* kAll = "library";

void sleepSeconds(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

double sum(const std::vector<double>& values) {
    return std::accumulate(values.begin(), values.end(), 0.0);
}

// A thread of this process, and how often it has given up its processor to wait.
struct Thread {
    std::string name;
    double waits = 0;
};

// All but the first, which is the host's, by their numbers.
std::map<int, Thread> threads() {
    std::map<int, Thread> all;
    std::error_code gone;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", gone)) {
        const int number = std::stoi(task.path().filename().string());
        std::ifstream status(task.path() / "status");
        Thread thread;
        for (std::string line; std::getline(status, line);) {
            const std::string value = line.substr(std::min(line.size(), line.find('\t') + 1));
            if (line.starts_with("Name:")) {
                thread.name = value;
            } else if (line.starts_with("voluntary_ctxt_switches:")) {
                thread.waits = std::stod(value);
            }
        }
        if (number != getpid()) {
            all[number] = thread;
        }
    }
    return all;
}

bool isOwn(const std::string& name) {
    return std::find(std::begin(kOwn), std::end(kOwn), name) != std::end(kOwn);
}

// Puts the film into the state. False if that fails.
bool enter(const std::string& state, const std::string& path, FilmPlayer& player) {
    if (state == "idle") {
        return true;
    }
    if (!player.open(path) || !player.engine().play() || !player.waitForPicture(0)) {
        return false;
    }
    if (state == "paused") {
        sleepSeconds(kSettleSeconds);
        player.engine().pause();
    }
    return state != "ended" || player.waitForEnd(kPatienceMs);
}

}  // namespace

bool wakesRow(const std::vector<std::string>& words, Facts& facts) {
    if (words.size() != 3) {
        return false;
    }
    std::unique_ptr<PictureWindow> window;
    FilmPlayer player(SYNC_MASTER_AUDIO);
    if (words[0] == "window") {
        window = std::make_unique<PictureWindow>(kWidth, kHeight);
        player.engine().addWindow(WINDOW_TYPE_SDL, window->handle(), kWidth, kHeight);
    }
    // A thread without a name of its own has that of the one that made it: what the host's makes from here on, when it
    // calls `play`, decodes.
    pthread_setname_np(pthread_self(), kCodec);
    if (!enter(words[0], words[1], player)) {
        return false;
    }
    const auto pass = [&](double seconds) {
        for (double passed = 0; passed < seconds; passed += kServeSeconds) {
            if (window) {
                PictureWindow::serve();
            }
            sleepSeconds(kServeSeconds);
        }
    };
    pass(kSettleSeconds);
    const auto before = threads();
    const double begin = nowMs();
    pass(std::stod(words[2]));
    const auto after = threads();
    const double seconds = (nowMs() - begin) / 1000;
    std::set<std::string> seen;
    for (const auto& [number, thread] : after) {
        const auto earlier = before.find(number);
        const double wakes = (thread.waits - (earlier == before.end() ? 0 : earlier->second.waits)) / seconds;
        const std::string& name = thread.name;
        const bool own = isOwn(name) && seen.insert(name).second;  // a second one is what the first one made
        const char* foreign = name.starts_with("SDL")                                    ? "SDL"
                              : isOwn(name) || name == kCodec || name.starts_with("av:") ? kCodec
                                                                                         : "others";
        facts.add(own ? name : foreign, wakes);
        if (own) {
            facts.add(kAll, wakes);
        }
    }
    // A film that ended meanwhile wakes nobody.
    return words[0] == "idle" || words[0] == "ended" || !player.isOver();
}

bool measureWakes(const Settings& settings, Report& report) {
    const int seconds = settings.choose(10, 5, 1);
    const std::string path = clipPath(settings, {.seconds = seconds + 10});
    const std::string brief = clipPath(settings, {.seconds = 2});
    if (path.empty() || brief.empty()) {
        return false;
    }
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    struct State {
        const char* name;
        const char* heading;
        std::optional<double> most;
    };
    const State states[] = {{"idle", "initialised", 0},
                            {"playing", "playing, frame sink", 200},
                            {"window", "playing, X11 window", {}},
                            {"paused", "paused", 40},
                            {"ended", "after the end", {}}};
    std::vector<Column> columns = {{"thread", "thread"}, {"threads", "threads", 0}};
    std::vector<Cell> limits(2);
    limits[0] = "limit";
    std::vector<Facts> results;
    bool ok = true;
    for (const State& state : states) {
        const std::string name = state.name;
        std::optional<test::XScreen> screen;
        setenv("SDL_VIDEODRIVER", "dummy", 1);
        if (name == "window") {
            screen.emplace(kWidth, kHeight);
        }
        const ChildResult row = runRow({"wakes", name, name == "ended" ? brief : path, std::to_string(seconds)});
        ok = ok && row.ok;
        results.push_back(row.facts);
        columns.push_back({name, state.heading, 1});
        limits.emplace_back();
        if (state.most) {
            limits.back() = *state.most;
            report.expect(state.heading, sum(row.facts.list(kAll)), *state.most);
        }
    }
    Table table("wakes", "Wake-ups of the threads of one player, in a second", columns);
    const auto addRow = [&](const char* thread) {
        size_t threads = 0;
        std::vector<Cell> cells(2);
        for (const Facts& facts : results) {
            const auto wakes = facts.list(thread);
            threads = std::max(threads, wakes.size());
            cells.emplace_back();
            if (!wakes.empty()) {
                cells.back() = sum(wakes);
            }
        }
        cells[0] = thread;
        cells[1] = static_cast<double>(threads);
        table.addRow(cells);
    };
    std::for_each(std::begin(kOwn), std::end(kOwn), addRow);
    addRow(kAll);
    table.addRow(limits);
    std::for_each(std::begin(kForeign), std::end(kForeign), addRow);
    table.setNote(
        "Wake-ups are the voluntary context switches of a thread: it waited, also where another one had the lock, and "
        "woke up. The others are the graphics driver's.");
    report.add(table);
    return ok;
}

}  // namespace kelp::bench
