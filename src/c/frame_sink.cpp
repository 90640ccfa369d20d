// Windows, and sinks in their place.
#include "kelp_player/frame_sink.h"

#include "c/player.h"

using namespace kelp::c;

static_assert(same(KELP_WINDOW_TYPE_QT_WINID, kelp::WINDOW_TYPE_QT_WINID));
static_assert(same(KELP_WINDOW_TYPE_SDL, kelp::WINDOW_TYPE_SDL));
static_assert(same(KELP_PIX_FMT_NONE, kelp::PIX_FMT_NONE));
static_assert(same(KELP_PIX_FMT_YUV420P, kelp::PIX_FMT_YUV420P));
static_assert(same(KELP_PIX_FMT_YUYV422, kelp::PIX_FMT_YUYV422));
static_assert(same(KELP_PIX_FMT_YUV422P, kelp::PIX_FMT_YUV422P));
static_assert(same(KELP_PIX_FMT_YUV420P10, kelp::PIX_FMT_YUV420P10));
static_assert(same(KELP_PIX_FMT_PACKET, kelp::PIX_FMT_PACKET));

// Hands what the engine draws to the host's callbacks.
struct kelp_frame_sink final : kelp::ExternFrameSink {
    explicit kelp_frame_sink(const kelp_frame_sink_calls& calls) : calls_(calls) {}

    // How a player knows it.
    void* window() { return static_cast<kelp::ExternFrameSink*>(this); }

private:
    void onVideoSize(int width, int height, int fps) override {
        width_ = width;
        height_ = height;
        tell(calls_.on_size, calls_.user, width, height, fps);
    }

    bool onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int rotate,
                      int64_t frameTag) override {
        if (!calls_.on_frame) {
            return false;
        }
        kelp_frame frame{};
        frame.size = sizeof(frame);
        frame.pix_format = pixFormat;
        frame.width = width_;
        frame.height = height_;
        frame.rotate = rotate;
        frame.pts_ms = pts;
        frame.frame_tag = frameTag;
        for (int plane = 0; plane < kPlanes; ++plane) {
            frame.data[plane] = data[plane];
            frame.line_size[plane] = linesize[plane];
        }
        calls_.on_frame(calls_.user, &frame);
        return true;
    }

    static constexpr int kPlanes = 8;

    const kelp_frame_sink_calls calls_;
    int width_ = 0;  // as told last, on the one thread that draws
    int height_ = 0;
};

namespace {

// Carries `body` out with the player and the sink as it knows it.
template <typename Body>
int withSink(const char* operation, kelp_player* player, kelp_frame_sink* sink, Body body) {
    return carryOut(operation, player, [&](kelp_player& handle) {
        require(sink, "the sink is null");
        return body(*handle.player, sink->window());
    });
}

}  // namespace

int kelp_player_add_window(kelp_player* player, void* window, int type, int width, int height) {
    return carryOut(__func__, player, [&](kelp_player& handle) {
        require(type == KELP_WINDOW_TYPE_QT_WINID || type == KELP_WINDOW_TYPE_SDL, "there is no such type of window");
        return handle.player->addWindow(window, static_cast<kelp::WindowType>(type), width, height);
    });
}

int kelp_player_remove_window(kelp_player* player, void* window) {
    return carryOut(__func__, player, [&](kelp_player& handle) { return handle.player->removeWindow(window); });
}

int kelp_player_pause_window(kelp_player* player, void* window, int pause) {
    return carryOut(__func__, player,
                    [&](kelp_player& handle) { return handle.player->pauseWindow(window, pause != 0); });
}

kelp_frame_sink* kelp_frame_sink_create(const kelp_frame_sink_calls* calls) {
    return made<kelp_frame_sink>(__func__, [&] { return std::make_unique<kelp_frame_sink>(needed(calls)); });
}

void kelp_frame_sink_destroy(kelp_frame_sink* sink) {
    delete sink;
}

int kelp_player_add_frame_sink(kelp_player* player, kelp_frame_sink* sink) {
    return withSink(__func__, player, sink, [](kelp::TarnPlayer& engine, void* window) {
        return engine.addWindow(window, kelp::WINDOW_TYPE_EXTERN, 0, 0);
    });
}

int kelp_player_remove_frame_sink(kelp_player* player, kelp_frame_sink* sink) {
    return withSink(__func__, player, sink,
                    [](kelp::TarnPlayer& engine, void* window) { return engine.removeWindow(window); });
}

int kelp_player_pause_frame_sink(kelp_player* player, kelp_frame_sink* sink, int pause) {
    return withSink(__func__, player, sink,
                    [&](kelp::TarnPlayer& engine, void* window) { return engine.pauseWindow(window, pause != 0); });
}
