#include "latency.h"

#include <SDL.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <future>
#include <mutex>
#include <random>
#include <stop_token>
#include <thread>
#include <utility>

#include "bare_decoder.h"
#include "child.h"
#include "clips.h"
#include "film_player.h"
#include "measures.h"
#include "seek_latency.h"
#include "spread_columns.h"

namespace kelp::bench {

namespace {

constexpr int kLongestPlayMs = 60;   // between the first picture and the stop
constexpr int kWaitingPictures = 3;  // that the player decodes ahead

using Random = std::mt19937;

// At any moment of what goes on in the player.
void sleepUpTo(int ms, Random& random) {
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % static_cast<uint32_t>(ms)));
}

// Does `round` again and again, until it fails. The first one isn't counted: it loads what the process keeps.
template <class Round>
bool repeat(int rounds, Facts& facts, Round round) {
    Facts ignored;
    bool ok = round(ignored);
    for (int i = 0; i < rounds && ok; ++i) {
        ok = round(facts);
    }
    return ok;
}

// Loads, plays and stops, each time a new player: the internal clock of an older one has run on, and pictures without
// sound would be late by it from the first on.
bool timeStarts(const std::string& path, int rounds, Random& random, Facts& facts) {
    return repeat(rounds, facts, [&](Facts& times) {
        FilmPlayer player(SYNC_MASTER_AUDIO);
        const double load = nowMs();
        if (!player.open(path)) {
            return false;
        }
        const double play = nowMs();
        if (!player.engine().play()) {
            return false;
        }
        const auto first = player.waitForPicture(0);
        if (!first) {
            return false;
        }
        times.add("prepare_ms", player.preparedAtMs() - load);
        times.add("play_ms", first->atMs - play);
        times.add("load_play_ms", first->atMs - load);
        sleepUpTo(kLongestPlayMs, random);
        const double stop = nowMs();
        player.engine().stop();
        times.add("stop_ms", nowMs() - stop);
        return true;
    });
}

// Pauses and resumes what plays; from the start again when it comes to the end.
bool timePauses(const std::string& path, int rounds, Random& random, Facts& facts) {
    FilmPlayer player(SYNC_MASTER_AUDIO);
    bool plays = false;
    return repeat(rounds, facts, [&](Facts& times) {
        if (!plays || player.isOver()) {
            player.engine().stop();
            if (!player.open(path) || !player.engine().play() || !player.waitForPicture(0)) {
                return false;
            }
            plays = true;
        }
        sleepUpTo(kLongestPlayMs, random);
        double begin = nowMs();
        player.engine().pause();
        times.add("pause_ms", nowMs() - begin);
        sleepUpTo(kLongestPlayMs, random);
        begin = nowMs();
        player.engine().resume();
        times.add("resume_ms", nowMs() - begin);
        return true;
    });
}

// What the libraries need: to open the file and know its streams, and from there to the first picture.
bool timeBare(const std::string& path, int rounds, Random& random, Facts& facts) {
    return repeat(rounds, facts, [&](Facts& times) {
        BareDecoder decoder;
        // A busy system serves those first that have rested, as the player has.
        sleepUpTo(kLongestPlayMs, random);
        const double load = nowMs();
        if (!decoder.openSource(path)) {
            return false;
        }
        const double play = nowMs();
        if (!decoder.openDecoders(BareDecoder::Sound::Decode) || !decoder.next()) {
            return false;
        }
        const double first = nowMs();
        times.add("prepare_ms", play - load);
        times.add("play_ms", first - play);
        times.add("load_play_ms", first - load);
        return true;
    });
}

// What the libraries need to end and to give all back, for a loop that is as many pictures ahead as the player.
bool timeBareStops(const std::string& path, int rounds, Random& random, Facts& facts) {
    return repeat(rounds, facts, [&](Facts& times) {
        std::promise<bool> hasBegun;
        std::jthread loop([&](const std::stop_token& stop) {
            std::mutex mutex;
            std::condition_variable_any end;
            std::unique_lock lock(mutex);
            BareDecoder decoder;
            const bool ok =
                decoder.openSource(path) && decoder.openDecoders(BareDecoder::Sound::Decode) && decoder.next();
            hasBegun.set_value(ok);
            const auto begin = std::chrono::steady_clock::now();
            for (int pictures = 1 - kWaitingPictures; ok && !stop.stop_requested() && decoder.next(); ++pictures) {
                const std::chrono::duration<double> at(pictures / decoder.rate());
                end.wait_until(lock, stop, begin + std::chrono::duration_cast<std::chrono::nanoseconds>(at),
                               [] { return false; });
            }
        });
        if (!hasBegun.get_future().get()) {
            return false;
        }
        sleepUpTo(kLongestPlayMs, random);
        const double stop = nowMs();
        loop.request_stop();
        loop.join();
        times.add("stop_ms", nowMs() - stop);
        return true;
    });
}

// What SDL alone needs to close its device, which sounds as the player's does.
bool timeDevice(int rounds, Random& random, Facts& facts) {
    if (SDL_Init(SDL_INIT_AUDIO) != 0) {
        return false;
    }
    return repeat(rounds, facts, [&](Facts& times) {
        SDL_AudioSpec spec{};
        spec.freq = 48000;
        spec.format = AUDIO_S16LSB;
        spec.channels = 2;
        spec.samples = 1024;
        spec.callback = [](void*, Uint8* stream, int size) { std::memset(stream, 0, static_cast<size_t>(size)); };
        const SDL_AudioDeviceID device = SDL_OpenAudioDevice(nullptr, /*iscapture=*/0, &spec, nullptr, 0);
        if (device == 0) {
            return false;
        }
        SDL_PauseAudioDevice(device, 0);
        sleepUpTo(kLongestPlayMs, random);
        const double stop = nowMs();
        SDL_CloseAudioDevice(device);
        times.add("stop_ms", nowMs() - stop);
        return true;
    });
}

}  // namespace

bool latencyRow(const std::vector<std::string>& words, Facts& facts) {
    if (words.size() != 4) {
        return false;
    }
    const int rounds = std::stoi(words[2]);
    Random random(static_cast<uint32_t>(std::stoi(words[3])));
    return words[0] == "start"   ? timeStarts(words[1], rounds, random, facts)
           : words[0] == "pause" ? timePauses(words[1], rounds, random, facts)
           : words[0] == "bare"  ? timeBare(words[1], rounds, random, facts)
           : words[0] == "end"   ? timeBareStops(words[1], rounds, random, facts)
                                 : timeDevice(rounds, random, facts);
}

bool measureLatency(const Settings& settings, Report& report) {
    const int rounds = settings.choose(200, 20, 3);
    const int stops = settings.choose(1000, 40, 3);
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    const std::vector<NamedClip> films = latencyClips(settings);
    Table table("latency", "From a call to what it is for, in ms",
                spreadColumns({{"clip", "clip"}, {"what", "what"}, {"count", "count", 0}}, /*decimals=*/2));
    std::vector<std::vector<std::string>> ends = {{"latency", "device", ""}};
    for (const NamedClip& film : films) {
        const std::string silent = film.path.empty() ? "" : silentPath(settings, film.path);
        if (silent.empty()) {
            return false;
        }
        ends.push_back({"latency", "start", film.path});
        ends.push_back({"latency", "start", silent});
        ends.push_back({"latency", "end", silent});
    }
    const auto stopped = runByTurns(ends, stops);
    const Facts& device = stopped[0].facts;
    bool ok = stopped[0].ok;
    for (size_t i = 0; i < films.size(); ++i) {
        const auto& [name, path] = films[i];
        const auto starts =
            runByTurns({{"latency", "bare", path}, {"latency", "start", path}, {"latency", "pause", path}}, rounds);
        const auto addRow = [&](const char* what, const ChildResult& row, const char* key, const Facts& limits) {
            const Spread times = spreadOf(row.facts.list(key));
            const Spread limit = spreadOf(limits.list(key));
            table.addRow(spreadRow({name, what, static_cast<double>(times.count)}, times, limit));
            ok = ok && row.ok && times.count > 0;
            return std::pair(times, limit);
        };
        addRow("loadFileAsync to onPrepared", starts[1], "prepare_ms", starts[0].facts);
        addRow("play to the first picture", starts[1], "play_ms", starts[0].facts);
        const auto [both, bothBare] =
            addRow("both, load to the first picture", starts[1], "load_play_ms", starts[0].facts);
        const auto [sounding, closing] =
            addRow("stop to its return, with sound", stopped[1 + 3 * i], "stop_ms", device);
        const Spread silent =
            addRow("stop to its return, without sound", stopped[2 + 3 * i], "stop_ms", stopped[3 + 3 * i].facts).first;
        addRow("pause to its return", starts[2], "pause_ms", {});
        addRow("resume to its return", starts[2], "resume_ms", {});
        report.expect(name + " clip: load to the first picture, median", both.median, bothBare.median);
        report.expect(name + " clip: stop with sound, median", sounding.median, closing.median + 10);
        report.expect(name + " clip: stop with sound, worst", sounding.worst, closing.worst + 60);
        report.expect(name + " clip: stop without sound, median", silent.median, 10);
        report.expect(name + " clip: stop without sound, worst", silent.worst, 10 + 60);
        ok = ok && starts[0].ok && stopped[3 + 3 * i].ok;
    }
    table.setNote(
        "The limit opens the file and finds out about its streams, and decodes from there to the first picture; for a "
        "stop with sound it is the time in which SDL alone closes its device, and without sound that in which a loop, "
        "three "
        "pictures ahead, ends and gives all back. The other calls have none.");
    report.add(table);
    Table seeks = seekTable();
    for (const auto& [name, path] : films) {
        ok = measureSeeks(settings, name, path, rounds, seeks, report) && ok;
    }
    report.add(seeks);
    return ok;
}

}  // namespace kelp::bench
