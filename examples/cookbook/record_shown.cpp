// Records what a player shows: cookbook_record FILE OUT
//
// Plays FILE without a window, from its middle after the first half second, and writes what came to OUT: a name with
// ".mp4" in it, or an "rtsp://" or "rtp://" destination.
#include <kelp_player/tarn_player.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "ended_events.h"
#include "sink_recorder.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: cookbook_record FILE OUT\n");
        return 2;
    }
    // [record shown]
    SinkRecorder recorder(argv[2]);
    Events events;
    kelp::TarnPlayer* player = kelp::TarnPlayer::create();
    player->setOption("preset", "recommended");
    player->addWindow(static_cast<kelp::ExternFrameSink*>(&recorder), kelp::WINDOW_TYPE_EXTERN, 0, 0);
    player->setAVSyncMode(kelp::SYNC_MASTER_AUDIO);
    player->setDataSource(argv[1], 0, &events);
    player->prepareAsync();
    player->start();
    // [/record shown]
    bool sought = false;
    while (!events.ended) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (!sought && player->getCurrentTime() > 500) {
            sought = player->seek(player->getDuration() / 2);
        }
    }
    player->stop();
    kelp::TarnPlayer::destroy(player);
    const bool written = recorder.finish();
    std::printf("%d pictures, %d left out\n", recorder.written(), recorder.leftOut());
    return written && !events.failed ? 0 : 1;
}
