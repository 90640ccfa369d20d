// Records what a player plays, without encoding: cookbook_record_played SOURCE OUT [SECONDS]
//
// Plays SOURCE without a window and writes its packets to OUT, an .mp4, .mov, .mkv or .ts file, in files of SECONDS.
#include <kelp_player/recorder.h>
#include <kelp_player/tarn_player.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "ended_events.h"

namespace {

// [events]
struct RecordEvents final : kelp::RecorderObserver {
    std::atomic<bool> failed{false};

    void onFileEnded(const std::string& path, int64_t durationMs) override {
        std::printf("%s: %.1f s\n", path.c_str(), static_cast<double>(durationMs) / 1000);
    }
    void onPacketsLost(int packets) override { std::printf("the disk is too slow: %d packets lost\n", packets); }
    void onRecordingFailed(const std::string& path, const std::string& reason) override {
        std::printf("%s: %s\n", path.c_str(), reason.c_str());  // the playback goes on
        failed = true;
    }
};
// [/events]

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: cookbook_record_played SOURCE OUT [SECONDS]\n");
        return 2;
    }
    const int seconds = argc > 3 ? std::atoi(argv[3]) : 0;
    Events events;
    kelp::TarnPlayer* player = kelp::TarnPlayer::create();
    player->setOption("preset", "recommended");
    // [record]
    RecordEvents recordEvents;
    kelp::Recorder recorder(&recordEvents);
    player->setPacketSink(&recorder);
    recorder.start(argv[2], {.fileMs = seconds * 1000});  // 0: one file
    // [/record]
    player->setAVSyncMode(kelp::SYNC_MASTER_AUDIO);
    player->setDataSource(argv[1], 0, &events);
    player->prepareAsync();
    player->start();
    while (!events.ended) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    player->stop();
    // [end]
    recorder.stop();                 // what was read by now is written, and the file is complete
    player->setPacketSink(nullptr);  // before the recorder goes
    // [/end]
    kelp::TarnPlayer::destroy(player);
    return events.failed || recordEvents.failed ? 1 : 0;
}
