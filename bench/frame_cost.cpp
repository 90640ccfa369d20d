// What a picture costs a host in C++, for bench/python_frames.py to lay beside one in Python. Plays FILE without sound
// into a sink that does one of three things with each picture, and prints the processor time for a picture that is
// shown, in microseconds: frame_cost call|array|copy FILE
#include <kelp_player/frame_sink.h>
#include <kelp_player/statistics.h>
#include <kelp_player/tarn_player.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <numeric>
#include <string_view>
#include <thread>
#include <vector>

#include "ended_events.h"

namespace {

constexpr std::chrono::milliseconds kPoll{10};
constexpr std::chrono::minutes kAtMost{10};  // for either part: a film of the bench is far shorter

template <class Condition>
bool waitFor(Condition isThere) {
    const auto end = std::chrono::steady_clock::now() + kAtMost;
    while (!isThere() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(kPoll);
    }
    return isThere();
}

double processSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

class Sink final : public kelp::ExternFrameSink {
public:
    explicit Sink(std::string_view way) : wantsMean_(way == "array"), wantsCopy_(way == "copy") {}

    void onVideoSize(int width, int height, int /*fps*/) override {
        width_ = width;
        height_ = height;
    }

    bool onVideoFrame(int /*pixFormat*/, int64_t pts, uint8_t** data, int* lineSize, int /*rotate*/,
                      int64_t /*frameTag*/) override {
        if (pts == lastPts_) {
            return true;  // painted once more
        }
        lastPts_ = pts;
        if (wantsMean_) {
            uint64_t sum = 0;
            for (int y = 0; y < height_; ++y) {
                const uint8_t* const row = data[0] + static_cast<ptrdiff_t>(y) * lineSize[0];
                sum = std::accumulate(row, row + width_, sum);
            }
            mean_ = static_cast<double>(sum) / (static_cast<double>(width_) * height_);
        }
        for (int plane = 0; wantsCopy_ && plane < 3; ++plane) {
            const int height = plane == 0 ? height_ : height_ / 2;
            planes_[plane].assign(data[plane], data[plane] + static_cast<ptrdiff_t>(lineSize[plane]) * height);
        }
        return true;
    }

private:
    const bool wantsMean_;
    const bool wantsCopy_;
    int width_ = 0;
    int height_ = 0;
    int64_t lastPts_ = -1;
    volatile double mean_ = 0;  // so that it is computed
    std::vector<uint8_t> planes_[3];
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: frame_cost call|array|copy FILE\n");
        return 2;
    }
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    Sink sink(argv[1]);
    Events events;
    kelp::TarnPlayer* const player = kelp::TarnPlayer::create();
    player->setOption("preset", "recommended");
    player->setOption("log_level", "none");
    player->setOption("audio_track", "none");
    player->addWindow(&sink, kelp::WINDOW_TYPE_EXTERN, 0, 0);
    player->setDataSource(argv[2], 0, &events);
    player->prepareAsync();
    const bool isOpen = waitFor([&] { return !player->getTracks().empty() || events.ended; });
    const double begin = processSeconds();
    player->start();
    const bool isEnded = isOpen && waitFor([&] { return events.ended.load(); });
    const double seconds = processSeconds() - begin;
    std::printf("%f\n", seconds / static_cast<double>(player->getStatistics().video.shown) * 1e6);
    player->stop();
    kelp::TarnPlayer::destroy(player);
    return events.failed || !isEnded ? 1 : 0;
}
