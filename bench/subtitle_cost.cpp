#include "subtitle_cost.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <utility>

#include "child.h"
#include "clips.h"
#include "film_player.h"
#include "kelp_player/subtitle_sink.h"

namespace kelp::bench {

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr int kLineMs = 2000;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class CountingSink final : public ExternSubtitleSink {
public:
    void onSubtitles(const ShownSubtitles& subtitles) override { drawings += subtitles.pictures.empty() ? 0 : 1; }
    SubtitlePictureSize pictureSize() override { return {kWidth, kHeight}; }

    std::atomic<int> drawings{0};
};
#pragma GCC diagnostic pop

std::string timeText(int ms) {
    char text[40];
    std::snprintf(text, sizeof(text), "%d:%02d:%02d.%02d", ms / 3'600'000, ms / 60'000 % 60, ms / 1000 % 60,
                  ms % 1000 / 10);
    return text;
}

// Two lines of a dialogue every two seconds, outlined and with a shadow, and a sign; with `movement` before each text.
std::string writeScript(const Settings& settings, const std::string& name, const std::string& movement, int seconds) {
    const std::string path = settings.folder + "/bench_media/" + name;
    std::ofstream script(path);
    script
        << "[Script Info]\nScriptType: v4.00+\nPlayResX: 1920\nPlayResY: 1080\n\n[V4+ Styles]\n"
           "Format: Name, Fontname, Fontsize, PrimaryColour, SecondaryColour, OutlineColour, BackColour, Bold, Italic, "
           "BorderStyle, Outline, Shadow, Alignment, MarginL, MarginR, MarginV\n"
           "Style: Talk,Sans,64,&H00FFFFFF,&H000000FF,&H00202020,&H80000000,0,0,1,4,3,2,60,60,50\n"
           "Style: Sign,Sans,80,&H2000FFFF,&H000000FF,&H00004080,&H80000000,1,0,1,5,0,8,60,60,80\n\n"
           "[Events]\nFormat: Layer, Start, End, Style, Name, MarginL, MarginR, MarginV, Effect, Text\n";
    for (int ms = 0; ms < seconds * 1000; ms += kLineMs) {
        const std::string times = timeText(ms) + "," + timeText(ms + kLineMs - 100);
        script << "Dialogue: 0," << times << ",Talk,,0,0,0,," << movement << "The line that begins at " << ms
               << "\\NAnd a {\\i1}second{\\i0} one below it\n"
               << "Dialogue: 1," << times << ",Sign,,0,0,0,," << movement << "{\\frz8}A sign, number " << ms / kLineMs
               << '\n';
    }
    return script ? path : std::string();
}

}  // namespace

bool subtitleCostRow(const std::vector<std::string>& words, Facts& facts) {
    if (words.size() != 3) {
        return false;
    }
    CountingSink sink;
    FilmPlayer player(SYNC_MASTER_AUDIO);
    player.engine().setOption("preset", "recommended");
    player.engine().setOption("subtitle_file", words[1].c_str());
    player.engine().setSubtitleSink(&sink);
    if (!player.open(words[0]) || !player.engine().play()) {
        return false;
    }
    const auto first = player.waitForPicture(0);
    if (!first) {
        return false;
    }
    const double lastMs = static_cast<double>(first->ptsMs) + std::stod(words[2]) * 1000;
    while (!player.isOver() && player.engine().getCurrentTime() < lastMs) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    player.engine().stop();
    player.engine().setSubtitleSink(nullptr);
    facts.set("pictures", static_cast<double>(player.pictures().size()));
    facts.set("drawings", sink.drawings);
    return player.pictures().size() > 1;
}

bool measureSubtitleCost(const Settings& settings, Report& report) {
    const bool isSmoke = settings.length == Length::Smoke;
    const Clip clip = isSmoke ? Clip{.seconds = 2, .hasSound = false}
                              : Clip{.width = kWidth, .height = kHeight, .seconds = 20, .hasSound = false};
    const int seconds = clip.seconds - 1;
    const std::string film = clipPath(settings, clip);
    const std::string still = writeScript(settings, "still.ass", "", clip.seconds);
    const std::string moving =
        writeScript(settings, "moving.ass", "{\\t(0,2000,\\fscx120\\fscy120)\\fad(200,200)}", clip.seconds);
    if (film.empty() || still.empty() || moving.empty()) {
        return false;
    }
    const double rate = std::stod(clip.fps);
    Table table("subtitles", "Playing a film with subtitles, " + std::to_string(seconds) + " s of it",
                {{"subtitles", "subtitles"},
                 {"pictures", "pictures"},
                 {"drawings", "drawings"},
                 {"cpu", "CPU s/s", 3},
                 {"peak_mib", "peak MiB"}});
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    bool ok = true;
    for (const auto& [what, file] : {std::pair<const char*, std::string>{"none", "none"},
                                     {"ASS with styles", still},
                                     {"the same, moving", moving}}) {
        const ChildResult row = runRow({"subtitles", film, file, std::to_string(seconds)});
        ok = ok && row.ok;
        const double pictures = row.facts.number("pictures");
        table.addRow({what, pictures, row.facts.number("drawings"), pictures > 0 ? row.cpuSeconds * rate / pictures : 0,
                      row.peakMiB});
    }
    table.setNote(
        "With the recommended preset, into a frame sink, and a subtitle sink that has three lines drawn for a screen "
        "of "
        "1920x1080: every two seconds others, or in each picture anew.");
    report.add(table);
    return ok;
}

}  // namespace kelp::bench
