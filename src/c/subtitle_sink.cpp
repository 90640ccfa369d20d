#include "kelp_player/subtitle_sink.h"

#include "c/player.h"

using namespace kelp::c;

namespace {

kelp_subtitle_line translated(const kelp::SubtitleLine& from) {
    kelp_subtitle_line to{};
    to.size = sizeof(to);
    to.start_ms = from.startMs;
    to.end_ms = from.endMs;
    to.text = from.text.c_str();
    to.styled = from.styled.c_str();
    return to;
}

kelp_subtitle_picture translated(const kelp::SubtitlePicture& from) {
    kelp_subtitle_picture to{};
    to.size = sizeof(to);
    to.x = from.x;
    to.y = from.y;
    to.width = from.width;
    to.height = from.height;
    to.pixel_width = from.pixelWidth;
    to.pixel_height = from.pixelHeight;
    to.pixels = from.pixels;
    return to;
}

}  // namespace

// Hands what is to be seen to the host's callbacks.
struct kelp_subtitle_sink final : kelp::ExternSubtitleSink {
    explicit kelp_subtitle_sink(const kelp_subtitle_sink_calls& calls) : calls_(calls) {}

private:
    void onSubtitles(const kelp::ShownSubtitles& subtitles) override {
        if (!calls_.on_subtitles) {
            return;
        }
        guarded("on_subtitles", nullptr, 0, [&] {
            const Translation<kelp_subtitle_line> lines(subtitles.lines, translated);
            const Translation<kelp_subtitle_picture> pictures(subtitles.pictures, translated);
            kelp_subtitles known{};
            known.size = sizeof(known);
            known.time_ms = subtitles.timeMs;
            known.script = subtitles.script.c_str();
            known.lines = lines.pointers.data();
            known.line_count = lines.pointers.size();
            known.pictures = pictures.pointers.data();
            known.picture_count = pictures.pointers.size();
            calls_.on_subtitles(calls_.user, &known);
            return 1;
        });
    }

    kelp::SubtitlePictureSize pictureSize() override {
        kelp::SubtitlePictureSize size;
        tell(calls_.get_picture_size, calls_.user, &size.width, &size.height);
        return size;
    }

    const kelp_subtitle_sink_calls calls_;
};

kelp_subtitle_sink* kelp_subtitle_sink_create(const kelp_subtitle_sink_calls* calls) {
    return made<kelp_subtitle_sink>(__func__, [&] { return std::make_unique<kelp_subtitle_sink>(needed(calls)); });
}

void kelp_subtitle_sink_destroy(kelp_subtitle_sink* sink) {
    delete sink;
}

int kelp_player_set_subtitle_sink(kelp_player* player, kelp_subtitle_sink* sink) {
    return carryOut(__func__, player, [&](kelp_player& handle) { handle.player->setSubtitleSink(sink); });
}
