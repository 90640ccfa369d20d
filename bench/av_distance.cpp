#include "av_distance.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "child.h"
#include "clips.h"
#include "film_player.h"
#include "masters.h"
#include "measures.h"
#include "sound_watch.h"

namespace kelp::bench {

namespace {

constexpr int kBright = 128;
constexpr size_t kStartFlashes = 4;  // the first seconds are the start's
constexpr double kPatienceMs = 120'000;

std::vector<double> flashesMs(const std::vector<ShownPicture>& pictures) {
    std::vector<double> flashes;
    bool wasBright = false;
    for (const ShownPicture& picture : pictures) {
        const bool bright = picture.luma > kBright;
        if (bright && !wasBright) {
            flashes.push_back(picture.atMs);
        }
        wasBright = bright;
    }
    return flashes;
}

// From each flash to the nearest beep: positive where the picture is late.
std::vector<double> distances(const std::vector<double>& flashes, const std::vector<double>& beeps) {
    std::vector<double> apart;
    for (size_t i = kStartFlashes; i < flashes.size() && !beeps.empty(); ++i) {
        double nearest = flashes[i] - beeps.front();
        for (const double beep : beeps) {
            nearest = std::abs(flashes[i] - beep) < std::abs(nearest) ? flashes[i] - beep : nearest;
        }
        apart.push_back(nearest);
    }
    return apart;
}

}  // namespace

bool avDistanceRow(const std::vector<std::string>& words, Facts& facts) {
    if (words.size() != 3) {
        return false;
    }
    const double speed = std::stod(words[2]);
    const HostClock clock = hostClockFor(words[1], speed);
    SoundWatch sound;
    FilmPlayer player(masterNamed(words[1]), clock.get());
    player.engine().setSpeed(static_cast<float>(speed));
    const double begin = nowMs();
    if (!player.open(words[0]) || !player.engine().play() || !player.waitForEnd(kPatienceMs)) {
        return false;
    }
    facts.set("wall_s", (nowMs() - begin) / 1000);
    player.engine().stop();
    auto apart = distances(flashesMs(player.pictures()), sound.beepsMs());
    std::sort(apart.begin(), apart.end());
    facts.set("apart_ms", apart);
    return !apart.empty();
}

bool measureAvDistance(const Settings& settings, Report& report) {
    const std::string clip = flashesPath(settings, settings.choose(24, 12, 6));
    if (clip.empty()) {
        return false;
    }
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    Table table("presentation", "From the sound to its picture",
                {{"master", "master"},
                 {"speed", "speed", 0},
                 {"median_ms", "median ms", 0},
                 {"least_ms", "least ms", 0},
                 {"most_ms", "most ms", 0},
                 {"flashes", "flashes", 0},
                 {"wall_s", "wall s", 1}});
    bool ok = true;
    const auto masters = settings.choose<std::vector<std::string>>({"clock", "sound", "picture", "host"},
                                                                   {"clock", "sound", "picture", "host"}, {"sound"});
    for (const std::string& master : masters) {
        for (const int speed : settings.choose<std::vector<int>>({1, 2}, {1}, {1})) {
            const ChildResult row = runRow({"av-distance", clip, master, std::to_string(speed)});
            const auto apart = row.facts.list("apart_ms");
            ok = ok && row.ok;
            if (!apart.empty()) {
                table.addRow({master, static_cast<double>(speed), apart[apart.size() / 2], apart.front(), apart.back(),
                              static_cast<double>(apart.size()), row.facts.number("wall_s")});
            }
        }
    }
    table.setNote("Positive: the picture comes later than its sound. Nothing is between them in the best case: 0.");
    report.add(table);
    return ok;
}

}  // namespace kelp::bench
