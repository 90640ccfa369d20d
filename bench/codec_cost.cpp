#include "codec_cost.h"

#include <algorithm>
#include <cstdlib>
#include <string>

#include "child.h"
#include "clips.h"

namespace kelp::bench {

namespace {

struct Film {
    const char* codec;
    const char* encoder;  // of the ffmpeg command, with its options
};

// Fast to encode: it is the decoding that is measured.
constexpr Film kFilms[] = {
    {"VP9", "libvpx-vp9 -deadline realtime -cpu-used 8 -row-mt 1 -b:v 5M"},
    {"AV1", "libsvtav1 -preset 12 -crf 35"},
    {"HEVC, 10 bits", "libx265 -preset ultrafast -x265-params log-level=error -pix_fmt yuv420p10le"},
};

// For a second of film that was shown.
double cpuOf(const ChildResult& row, double rate) {
    const double pictures = row.facts.number("pictures");
    return pictures > 0 ? row.cpuSeconds * rate / pictures : 0;
}

}  // namespace

bool measureCodecCost(const Settings& settings, Report& report) {
    const bool isSmoke = settings.length == Length::Smoke;
    const Clip clip = isSmoke ? Clip{.seconds = 2, .hasSound = false}
                              : Clip{.width = 1920, .height = 1080, .seconds = 10, .hasSound = false};
    const int seconds = clip.seconds - 1;
    const double rate = std::stod(clip.fps);
    Table table("codecs", "Playing a film of other codecs, " + std::to_string(seconds) + " s of it",
                {{"codec", "codec"},
                 {"pictures", "pictures"},
                 {"limit_pictures", "limit pictures"},
                 {"cpu", "CPU s/s", 3},
                 {"limit_cpu", "limit CPU s/s", 3},
                 {"times_limit", "x limit", 2},
                 {"peak_mib", "peak MiB"},
                 {"limit_peak_mib", "limit peak MiB"}});
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    setenv("SVT_LOG", "1", 0);  // an encoder that tells all its settings
    bool ok = true;
    for (const Film& film : kFilms) {
        const std::string path = encodedPath(settings, clip, film.encoder);
        if (path.empty()) {
            return false;
        }
        const auto measure = [&](const char* who) {
            return runRow({"cost", who, "sink", path, "1", std::to_string(seconds)});
        };
        const ChildResult limit = measure("bare-sharing");
        const ChildResult player = measure("player-recommended");
        ok = ok && limit.ok && player.ok;
        const double limitCpu = cpuOf(limit, rate);
        const double cpu = cpuOf(player, rate);
        table.addRow({film.codec, player.facts.number("pictures"), limit.facts.number("pictures"), cpu, limitCpu,
                      limitCpu > 0 ? cpu / limitCpu : 0, player.peakMiB, limit.peakMiB});
    }
    table.setNote(
        "The limit is a loop of the same libraries that reads, decodes with as many threads and waits for each "
        "picture's time, and does nothing with it: pictures of 10 bits stay what they are there, and become 8 bits in "
        "the player.");
    report.add(table);
    return ok;
}

}  // namespace kelp::bench
