// A host with nothing but the library: plays a file into a frame sink and says how many pictures came.
#include <kelp_player/kelp_player.h>
#include <kelp_player/log.h>
#include <kelp_player/stream_muxer.h>
#include <kelp_player/tarn_player.h>
#include <kelp_player/udp_transport.h>

#include <cstdio>
#include <cstdlib>
#include <future>
#include <set>

namespace {

struct Sink final : kelp::ExternFrameSink {
    std::set<int64_t> times;

    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int, int64_t pts, uint8_t**, int*, int, int64_t) override { return times.insert(pts).second; }
};

struct Events final : kelp::TarnPlayerObserver {
    std::promise<bool> end;

    void onCompleted() override { end.set_value(true); }
    void onFailed(int) override { end.set_value(false); }
    void onVideoSizeUpdated(int, int, int) override {}
    void onPrepared(bool, bool) override {}
    void onStarted() override {}
    void onFirstVideoFrame(int) override {}
    void onFirstAudioFrame(int) override {}
    void onDurationUpdated(int) override {}
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    Sink sink;
    Events events;
    kelp::TarnPlayer* player = kelp::TarnPlayer::create();
    player->setOption("log_level", "error");
    player->addWindow(static_cast<kelp::ExternFrameSink*>(&sink), kelp::WINDOW_TYPE_EXTERN, 0, 0);
    player->setDataSource(argv[1], 0, &events);
    player->prepareAsync();
    player->start();
    const bool played = events.end.get_future().get();
    player->stop();
    kelp::TarnPlayer::destroy(player);

    // One call into each of the other classes: whatever isn't exported doesn't link.
    kelp::StreamMuxer muxer;
    kelp::UdpSender sender;
    kelp::UdpReceiver::destroy(kelp::UdpReceiver::create());
    kelp::TarnSyncClock::destroy(kelp::TarnSyncClock::create(0, 0));
    sender.stopSender();
    muxer.close();

    std::printf("%zu pictures\n", sink.times.size());
    return played && !sink.times.empty() ? 0 : 1;
}
