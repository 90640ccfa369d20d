#include "players.h"

#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>

#include "bare_decoder.h"
#include "bare_loop.h"
#include "child.h"
#include "clips.h"
#include "film_player.h"
#include "measures.h"
#include "sound_drain.h"

namespace kelp::bench {

namespace {

constexpr double kSettleSeconds = 1;  // before what is measured: what a start costs is another matter
constexpr double kMarginSeconds = 8;  // of the clip, behind what is measured

void sleepSeconds(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// Watches what plays already for `seconds`.
void watch(const std::function<double()>& pictures, const ProcessState& before, int count, double seconds,
           Facts& facts) {
    sleepSeconds(kSettleSeconds);
    const double cpuBefore = cpuSeconds(RUSAGE_SELF);
    const double picturesBefore = pictures();
    const double begin = nowMs();
    sleepSeconds(seconds);
    const double watched = (nowMs() - begin) / 1000;
    facts.set("pictures_per_s", (pictures() - picturesBefore) / watched / count);
    facts.set("cpu", (cpuSeconds(RUSAGE_SELF) - cpuBefore) / watched / count);
    const ProcessState now = processState();
    facts.set("mib", (now.residentMiB - before.residentMiB) / count);
    facts.set("threads", static_cast<double>(now.threads - before.threads) / count);
}

bool watchPlayers(const std::string& path, int count, SyncMasterMode master, double seconds, Facts& facts) {
    {
        const FilmPlayer first(master);  // starts what all have in common, and stays behind
    }
    std::vector<std::unique_ptr<FilmPlayer>> players;
    const ProcessState before = processState();
    while (static_cast<int>(players.size()) < count) {
        players.push_back(std::make_unique<FilmPlayer>(master));
    }
    for (const auto& player : players) {
        if (!player->open(path)) {
            return false;
        }
    }
    for (const auto& player : players) {
        if (!player->engine().play()) {
            return false;
        }
    }
    for (const auto& player : players) {
        if (!player->waitForPicture(0)) {
            return false;
        }
    }
    const auto pictures = [&] {
        size_t sum = 0;
        for (const auto& player : players) {
            sum += player->pictureCount();
        }
        return static_cast<double>(sum);
    };
    watch(pictures, before, count, seconds, facts);
    return true;
}

bool watchLoops(const std::string& path, int count, double seconds, Facts& facts) {
    const ProcessState before = processState();
    std::atomic<int> pictures{0};
    std::atomic<int> ended{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&] {
            runBareLoop(path, {.window = nullptr, .onPicture = [&](double) { ++pictures; }, .stop = &stop});
            ++ended;
        });
    }
    while (pictures < count && ended == 0) {
        sleepSeconds(0.01);
    }
    watch([&] { return static_cast<double>(pictures); }, before, count, seconds, facts);
    const bool ok = ended == 0;
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    return ok;
}

}  // namespace

bool playersRow(const std::vector<std::string>& words, Facts& facts) {
    if (words.size() != 6) {
        return false;
    }
    const std::string& path = words[1];
    const int count = std::stoi(words[2]);
    setenv("SDL_DISKAUDIOFILE", soundDrain().c_str(), 1);
    const double seconds = std::stod(words[3]);
    return words[0] == "bare" ? watchLoops(path, count, seconds, facts)
                              : watchPlayers(path, count, SYNC_MASTER_CLOCK, seconds, facts);
}

bool measurePlayers(const Settings& settings, Report& report) {
    const double seconds = settings.choose(10.0, 3.0, 1.0);
    const int turns = settings.choose(2, 1, 1);
    const int clipSeconds = static_cast<int>(seconds + kSettleSeconds + kMarginSeconds);
    // SDL's disk driver has 15 devices, its dummy driver one.
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "disk", 1);
    Table table("players", "Players of 640x360 at 30 pictures per second in one process, with the clock as master",
                {{"players", "players", 0},
                 {"sound", "sound"},
                 {"cpu", "CPU s/s each", 3},
                 {"limit_cpu", "limit CPU s/s", 3},
                 {"times_limit", "x limit", 2},
                 {"mib", "MiB each", 1},
                 {"limit_mib", "limit MiB", 1},
                 {"threads", "threads each", 1},
                 {"limit_threads", "limit threads", 1},
                 {"shown_percent", "% shown", 1},
                 {"limit_shown_percent", "limit % shown", 1}});
    bool ok = true;
    for (const bool hasSound : {false, true}) {
        const std::string path = clipPath(settings, {.seconds = clipSeconds, .hasSound = hasSound});
        BareDecoder decoder;
        if (path.empty() || !decoder.openSource(path)) {
            return false;
        }
        const double rate = decoder.rate();
        const std::vector<int> silent = settings.choose<std::vector<int>>({1, 2, 4, 8, 16, 32}, {1, 4, 32}, {2});
        const std::vector<int> sounding = settings.choose<std::vector<int>>({1, 4, 15}, {1, 4}, {1});
        for (const int count : hasSound ? sounding : silent) {
            const auto words = [&](const char* who) -> std::vector<std::string> {
                return {"players", who, path, std::to_string(count), std::to_string(seconds / turns)};
            };
            const auto rows = runByTurns({words("player"), words("bare")}, turns, /*block=*/1);
            ok = ok && rows[0].ok && rows[1].ok;
            const Facts& facts = rows[0].facts;
            const Facts& limit = rows[1].facts;
            const double times = limit.number("cpu") > 0 ? facts.number("cpu") / limit.number("cpu") : 0;
            table.addRow({static_cast<double>(count), hasSound ? "yes" : "no", facts.number("cpu"), limit.number("cpu"),
                          times, facts.number("mib"), limit.number("mib"), facts.number("threads"),
                          limit.number("threads"), 100 * facts.number("pictures_per_s") / rate,
                          100 * limit.number("pictures_per_s") / rate});
            if (count == 32) {
                report.expect("32 players, x limit", times, 1.1);
            }
        }
    }
    table.setNote(
        "The limit is as many loops that read, decode and copy at the film's pace, each on a thread of its own. "
        "Memory is what the players have added to that of their process.");
    report.add(table);
    return ok;
}

}  // namespace kelp::bench
