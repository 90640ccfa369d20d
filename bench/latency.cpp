#include "latency.h"

#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

#include "bare_decoder.h"
#include "child.h"
#include "clips.h"
#include "film_player.h"
#include "measures.h"
#include "seek_latency.h"
#include "spread_columns.h"

namespace kelp::bench {

namespace {

constexpr int kLongestPlayMs = 100;  // between the first picture and the stop

// At any moment of what goes on in the player.
void sleepUpTo(int ms, std::mt19937& random) {
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % static_cast<uint32_t>(ms)));
}

// Loads, plays and stops one player again and again.
bool timeStarts(const std::string& path, int rounds, Facts& facts) {
    std::vector<double> prepared;
    std::vector<double> played;
    std::vector<double> stopped;
    std::mt19937 random(1);
    FilmPlayer player(SYNC_MASTER_AUDIO);
    for (int i = 0; i < rounds; ++i) {
        double begin = nowMs();
        if (!player.open(path)) {
            return false;
        }
        prepared.push_back(player.preparedAtMs() - begin);
        begin = nowMs();
        if (!player.engine().play()) {
            return false;
        }
        const auto first = player.waitForPicture(0);
        if (!first) {
            return false;
        }
        played.push_back(first->atMs - begin);
        sleepUpTo(kLongestPlayMs, random);
        begin = nowMs();
        player.engine().stop();
        stopped.push_back(nowMs() - begin);
    }
    facts.set("prepare_ms", prepared);
    facts.set("play_ms", played);
    facts.set("stop_ms", stopped);
    return true;
}

// Pauses and resumes what plays; from the start again when it comes to the end.
bool timePauses(const std::string& path, int rounds, Facts& facts) {
    std::vector<double> paused;
    std::vector<double> resumed;
    std::mt19937 random(1);
    FilmPlayer player(SYNC_MASTER_AUDIO);
    while (static_cast<int>(paused.size()) < rounds) {
        if (!player.open(path) || !player.engine().play() || !player.waitForPicture(0)) {
            return false;
        }
        while (static_cast<int>(paused.size()) < rounds && !player.isOver()) {
            sleepUpTo(kLongestPlayMs, random);
            double begin = nowMs();
            player.engine().pause();
            paused.push_back(nowMs() - begin);
            sleepUpTo(kLongestPlayMs, random);
            begin = nowMs();
            player.engine().resume();
            resumed.push_back(nowMs() - begin);
        }
        player.engine().stop();
    }
    facts.set("pause_ms", paused);
    facts.set("resume_ms", resumed);
    return true;
}

// What the libraries need: to open the file and know its streams, and from there to the first picture.
bool timeBare(const std::string& path, int rounds, Facts& facts) {
    std::vector<double> opened;
    std::vector<double> decoded;
    std::mt19937 random(1);
    for (int i = 0; i < rounds; ++i) {
        BareDecoder decoder;
        // A busy system serves those first that have rested, as the player has.
        sleepUpTo(kLongestPlayMs, random);
        double begin = nowMs();
        if (!decoder.openSource(path)) {
            return false;
        }
        opened.push_back(nowMs() - begin);
        begin = nowMs();
        if (!decoder.openDecoders(BareDecoder::Sound::Decode) || !decoder.next()) {
            return false;
        }
        decoded.push_back(nowMs() - begin);
    }
    facts.set("prepare_ms", opened);
    facts.set("play_ms", decoded);
    return true;
}

}  // namespace

bool latencyRow(const std::vector<std::string>& words, Facts& facts) {
    if (words.size() != 3) {
        return false;
    }
    const int rounds = std::stoi(words[2]);
    return words[0] == "start"   ? timeStarts(words[1], rounds, facts)
           : words[0] == "pause" ? timePauses(words[1], rounds, facts)
                                 : timeBare(words[1], rounds, facts);
}

bool measureLatency(const Settings& settings, Report& report) {
    const std::string path = everydayPath(settings);
    if (path.empty()) {
        return false;
    }
    const int rounds = settings.choose(200, 20, 3);
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    Table table("latency", "From a call to what it is for, in ms",
                spreadColumns({{"what", "what"}, {"count", "count", 0}}, /*decimals=*/2));
    const auto run = [&](const char* what) { return runRow({"latency", what, path, std::to_string(rounds)}); };
    const ChildResult bare = run("bare");
    const ChildResult starts = run("start");
    const ChildResult pauses = run("pause");
    const auto addRow = [&](const char* what, const ChildResult& row, const char* name) {
        const Spread times = spreadOf(row.facts.list(name));
        const Spread limit = spreadOf(bare.facts.list(name));
        table.addRow(spreadRow({what, static_cast<double>(times.count)}, times, limit));
    };
    addRow("loadFileAsync to onPrepared", starts, "prepare_ms");
    addRow("play to the first picture", starts, "play_ms");
    addRow("stop to its return", starts, "stop_ms");
    addRow("pause to its return", pauses, "pause_ms");
    addRow("resume to its return", pauses, "resume_ms");
    table.setNote(
        "The limit opens the file and finds out about its streams, and decodes from there to the first picture. "
        "`stop`, `pause` and `resume` have none.");
    report.add(table);
    return measureSeekLatency(settings, path, rounds, report) && bare.ok && starts.ok && pauses.ok;
}

}  // namespace kelp::bench
