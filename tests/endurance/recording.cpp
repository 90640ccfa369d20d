// Records what is played for a long time, and looks whether it is all there.
//
//   recording [MINUTES] [--file-seconds N] [--ending mp4|mov|mkv|ts] [--folder DIR]
//
// A server on the loopback address sends numbered pictures and a tone in real time, for MINUTES (30). They are played,
// and recorded beside that, into files of N seconds (60) in DIR, or a folder that goes. Afterwards the ffmpeg command
// decodes each file without a word, and put together they hold every picture that the server has sent, and all of the
// sound behind the first picture. The program prints the CPU time beside that of a minute without the recorder, and
// what the process holds; it fails if anything is missing or grows.

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "e2e/child_process.h"
#include "e2e/free_ports.h"
#include "e2e/managed_playback.h"
#include "e2e/media.h"
#include "endurance/holdings.h"
#include "kelp_player/log.h"
#include "kelp_player/recorder.h"
#include "support/temp_files.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

using namespace kelp;
using namespace kelp::test;

constexpr int kPlainSeconds = 60;
constexpr int kWarmUpSeconds = 20;
constexpr int kOverMs = 600000;  // beyond the film's time: a machine that is busy falls behind
constexpr long kHeapKbAllowed = 1024;
constexpr size_t kReordered = 2;  // B-frames in a row
constexpr int kHashField = 5;     // of a line of ffmpeg's framemd5

struct Settings {
    int seconds = 1800;
    int fileSeconds = 60;
    std::string ending = "mp4";
    std::string folder;
};

bool complain(const std::string& what) {
    std::fprintf(stderr, "recording: %s\n", what.c_str());
    return false;
}

std::vector<std::string> hashesIn(const std::string& path) {
    std::vector<std::string> hashes;
    std::ifstream lines(path);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line[0] != '#') {
            std::istringstream fields(line);
            std::string field;
            for (int i = 0; i <= kHashField; ++i) {
                std::getline(fields, field, ',');
            }
            hashes.push_back(field);
        }
    }
    return hashes;
}

std::string textIn(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

class Files final : public RecorderObserver {
public:
    virtual ~Files() = default;
    void onFileEnded(const std::string& path, int64_t) override {
        std::lock_guard lock(mutex_);
        ended_.push_back(path);
    }
    void onPacketsLost(int packets) override { lost += packets; }
    void onRecordingFailed(const std::string& path, const std::string& reason) override {
        ++failures;
        complain(path + ": " + reason);
    }
    std::vector<std::string> ended() {
        std::lock_guard lock(mutex_);
        return ended_;
    }

    std::atomic<int> lost{0};
    std::atomic<int> failures{0};

private:
    std::mutex mutex_;
    std::vector<std::string> ended_;  // guarded by mutex_
};

// What of a file, or of several put together, is there.
struct Content {
    std::vector<std::string> pictures;  // decoded
    std::vector<std::string> sound;     // packets
};

class Recording {
public:
    explicit Recording(Settings settings) : settings_(std::move(settings)) {
        Log::SetLogCallback([](const char*) {});
    }

    bool run() {
        const double plain = play(kPlainSeconds, /*records=*/false) / kPlainSeconds;
        const double recorded = play(settings_.seconds, /*records=*/true) / settings_.seconds;
        if (plain < 0 || recorded < 0) {
            return false;
        }
        std::printf("recording: CPU s per s of film: %.4f playing, %.4f recording beside it\n", plain, recorded);
        return isWhole();
    }

private:
    std::string path(const std::string& name) const { return folder_.path(name); }

    // The CPU seconds that it took; below 0 if it went wrong.
    double play(int seconds, bool records) {
        const int port = freePortPair(SOCK_STREAM);
        const std::string address = "tcp://127.0.0.1:" + std::to_string(port);
        const std::string length = std::to_string(seconds);
        // What it sends is written down beside it: the packets' hashes.
        ChildProcess server({"ffmpeg",
                             "-v",
                             "error",
                             "-nostdin",
                             "-y",
                             "-re",
                             "-stream_loop",
                             "-1",
                             "-i",
                             mediaPath("numbers.mp4"),
                             "-t",
                             length,
                             "-map",
                             "0",
                             "-c",
                             "copy",
                             "-f",
                             "mpegts",
                             address + "?listen=1",
                             "-t",
                             length,
                             "-map",
                             "0:v",
                             "-c",
                             "copy",
                             "-f",
                             "framemd5",
                             path("sent_pictures"),
                             "-t",
                             length,
                             "-map",
                             "0:a",
                             "-c",
                             "copy",
                             "-f",
                             "framemd5",
                             path("sent_sound")});
        if (!waitForPort(SOCK_STREAM, port)) {
            complain("there is no server");
            return -1;
        }
        Recorder recorder(&files_);
        ManagedPlayback playback;
        TarnPlayer& player = playback.player();
        player.setOption("preset", "recommended");
        player.enableHwDecoder(false, HW_DECODE_NONE);
        player.setAVSyncMode(SYNC_MASTER_AUDIO);
        av_log_set_level(AV_LOG_QUIET);
        const std::string folder = settings_.folder.empty() ? folder_.path("") : settings_.folder + "/";
        if (records) {
            player.setPacketSink(&recorder);
            if (!recorder.start(folder + "part." + settings_.ending,
                                {.fileMs = int64_t{settings_.fileSeconds} * 1000})) {
                return -1;
            }
        }
        const double cpuBefore = cpuSeconds();
        if (!playback.open(address) || !player.start() || !playback.waitFor("picture", 1, kOverMs)) {
            complain("it isn't played");
            return -1;
        }
        if (records && seconds > 3 * kWarmUpSeconds) {
            watchGrowth(playback, seconds);
        }
        if (!playback.waitFor("completed", 1, seconds * 1000 + kOverMs)) {
            complain("it doesn't come to its end");
            return -1;
        }
        const double cpu = cpuSeconds() - cpuBefore;
        const Statistics last = player.getStatistics();
        std::printf(
            "recording: %s, %d s: %lld pictures decoded, %lld shown, %lld late; a packet was with the sink for "
            "%.2f ms at most\n",
            records ? "recorded" : "played", seconds, static_cast<long long>(last.video.decoded),
            static_cast<long long>(last.video.shown), static_cast<long long>(last.video.late),
            last.packetSinkLongestMs);
        player.stop();
        recorder.stop();
        player.setPacketSink(nullptr);
        if (server.wait() != 0) {
            complain("the server has failed");
            return -1;
        }
        return cpu;
    }

    // From a while after the beginning to a while before the end.
    void watchGrowth(ManagedPlayback& playback, int seconds) {
        playback.waitFor("completed", 1, kWarmUpSeconds * 1000);
        const Holdings early;
        playback.waitFor("completed", 1, (seconds - 2 * kWarmUpSeconds) * 1000);
        const Holdings late;
        std::printf("recording: %d descriptors, %d threads, %ld KB of heap early; %d, %d, %ld late\n",
                    early.descriptors, early.threads, early.heapKb, late.descriptors, late.threads, late.heapKb);
        grows_ = late.descriptors > early.descriptors || late.threads > early.threads + 1 ||
                 late.heapKb > early.heapKb + kHeapKbAllowed;
    }

    Content contentOf(const std::string& file) {
        const std::string command = "ffmpeg -v error -nostdin -y -i " + file +
                                    " -map 0:v -fps_mode passthrough -f framemd5 " + path("pictures") +
                                    " -map 0:a -c copy -f framemd5 " + path("sound") + " -map 0 -f null - 2>" +
                                    path("words");
        if (std::system(command.c_str()) != 0 || !textIn(path("words")).empty()) {
            complain(file + ": " + textIn(path("words")));
            ++complaints_;
        }
        return {hashesIn(path("pictures")), hashesIn(path("sound"))};
    }

    bool isWhole() {
        const auto sentSound = hashesIn(path("sent_sound"));
        const size_t sentPictures = hashesIn(path("sent_pictures")).size();
        const auto round = contentOf(mediaPath("numbers.mp4")).pictures;
        Content got;
        const auto files = files_.ended();
        for (const auto& file : files) {
            const Content part = contentOf(file);
            got.pictures.insert(got.pictures.end(), part.pictures.begin(), part.pictures.end());
            got.sound.insert(got.sound.end(), part.sound.begin(), part.sound.end());
        }
        size_t wrong = 0;
        // The end of what is sent may cut pictures off that come before others.
        for (size_t i = 0; i + kReordered < got.pictures.size(); ++i) {
            wrong += got.pictures[i] != round[i % round.size()];
        }
        const bool isSoundWhole = got.sound.size() <= sentSound.size() &&
                                  std::equal(got.sound.rbegin(), got.sound.rend(), sentSound.rbegin());
        std::printf(
            "recording: %zu files, %zu of %zu pictures, %zu of them not in their place; %zu of %zu packets of "
            "sound%s\n",
            files.size(), got.pictures.size(), sentPictures, wrong, got.sound.size(), sentSound.size(),
            isSoundWhole ? ", the last ones" : ", with holes");
        const bool isAllThere = !files.empty() && wrong == 0 && got.pictures.size() == sentPictures && isSoundWhole;
        return (isAllThere || complain("something is missing")) &&
               (complaints_ == 0 || complain("ffmpeg has complained")) &&
               (files_.lost + files_.failures == 0 || complain("packets were lost")) &&
               (!grows_ || complain("it grows"));
    }

    const Settings settings_;
    const TempFolder folder_;
    Files files_;
    int complaints_ = 0;
    bool grows_ = false;
};

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const bool hasValue = i + 1 < argc;
        if (word == "--file-seconds" && hasValue) {
            settings.fileSeconds = std::atoi(argv[++i]);
        } else if (word == "--ending" && hasValue) {
            settings.ending = argv[++i];
        } else if (word == "--folder" && hasValue) {
            settings.folder = argv[++i];
        } else {
            settings.seconds = static_cast<int>(std::atof(word.c_str()) * 60);
        }
    }
    setenv("SDL_VIDEODRIVER", "dummy", 0);
    setenv("SDL_AUDIODRIVER", "dummy", 0);
    return settings.seconds > 0 && settings.fileSeconds > 0 && Recording(settings).run() ? 0 : 1;
}
