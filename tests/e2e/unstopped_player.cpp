// A program that ends in order with a player that nobody has stopped. Arguments: the URL, the transport, and "plays"
// for one that plays; else it is open. Exit code 0 if it came so far.

#include <string>

#include "e2e/playback.h"
#include "e2e/recording_sink.h"

namespace {

constexpr int kAtMostMs = 60000;

// They stay, and aren't lost.
kelp::test::Playback* playback = nullptr;
kelp::test::RecordingSink* sink = nullptr;

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return 2;
    }
    playback = new kelp::test::Playback;
    sink = new kelp::test::RecordingSink(kelp::test::RecordingSink::Keep::Nothing);
    kelp::KelpPlayer& player = playback->player();
    player.enableHwDecoder(false, kelp::HW_DECODE_NONE);
    player.setOption("rtsp_transport", argv[2]);
    player.addWindow(kelp::WINDOW_TYPE_EXTERN, static_cast<kelp::ExternFrameSink*>(sink), 0, 0);
    if (!playback->open(argv[1], kAtMostMs)) {
        return 1;
    }
    const bool plays = argc > 3 && argv[3] == std::string("plays");
    return !plays || (player.play() && sink->waitForFrames(2, kAtMostMs)) ? 0 : 1;
}
