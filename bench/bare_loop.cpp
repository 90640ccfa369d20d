#include "bare_loop.h"

#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "bare_decoder.h"
#include "measures.h"
#include "picture_window.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
}

namespace kelp::bench {

namespace {

void copy(const AVFrame& frame, std::vector<uint8_t>& block) {
    const auto pixels = static_cast<AVPixelFormat>(frame.format);
    block.resize(static_cast<size_t>(av_image_get_buffer_size(pixels, frame.width, frame.height, 1)));
    av_image_copy_to_buffer(block.data(), static_cast<int>(block.size()), frame.data, frame.linesize, pixels,
                            frame.width, frame.height, 1);
}

}  // namespace

double runBareLoop(const std::string& path, const BareLoop& loop) {
    BareDecoder decoder;
    if (!decoder.openSource(path) || !decoder.openDecoders(BareDecoder::Sound::Decode)) {
        return 0;
    }
    std::vector<uint8_t> block;
    double begin = 0;
    double firstMs = 0;
    int pictures = 0;
    while (decoder.next() && !(loop.stop && *loop.stop)) {
        if (loop.copies) {
            copy(decoder.picture(), block);
        }
        if (pictures == 0) {
            begin = nowMs();
            firstMs = decoder.pictureMs();
        }
        const double sinceFirstMs = decoder.pictureMs() - firstMs;
        if (loop.seconds > 0 && sinceFirstMs >= loop.seconds * 1000) {
            break;
        }
        double lateMs = 0;
        if (loop.speed > 0) {
            const double due = begin + sinceFirstMs / loop.speed;
            std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(due - nowMs()));
            lateMs = nowMs() - due;
        }
        ++pictures;
        if (loop.window) {
            loop.window->draw(block.data(), decoder.width(), decoder.height());
        }
        if (loop.onPicture) {
            loop.onPicture(lateMs);
        }
    }
    return pictures / decoder.rate();
}

}  // namespace kelp::bench
