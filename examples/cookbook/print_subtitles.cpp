// Prints the subtitles of a film while it plays: cookbook_subtitles FILM [SUBTITLES]
//
// Of the film the first ones that are text, or those of a second file.
#include <kelp_player/subtitle_sink.h>
#include <kelp_player/tarn_player.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "ended_events.h"

namespace {

// [sink]
// On the player's subtitle thread: it holds up nothing but the next ones.
class Printer final : public kelp::ExternSubtitleSink {
public:
    void onSubtitles(const kelp::ShownSubtitles& subtitles) override {
        if (subtitles.lines.empty() && subtitles.pictures.empty()) {
            std::printf("%7.3f s: -\n", seconds(subtitles.timeMs));  // what stood there has gone
        }
        for (const kelp::SubtitleLine& line : subtitles.lines) {
            std::printf("%7.3f s: %s\n", seconds(subtitles.timeMs), line.text.c_str());
        }
        // To be laid over a picture of the film, each scaled to its width and height.
        for (const kelp::SubtitlePicture& picture : subtitles.pictures) {
            std::printf("%7.3f s: %dx%d at %d,%d\n", seconds(subtitles.timeMs), picture.width, picture.height,
                        picture.x, picture.y);
        }
    }
    // For how large a screen they are drawn. Without this nothing is drawn, and there are the texts alone.
    kelp::SubtitlePictureSize pictureSize() override { return {1280, 720}; }

private:
    static double seconds(int64_t ms) { return static_cast<double>(ms) / 1000; }
};
// [/sink]

// [choose]
// Shows the first subtitles that there are, or none.
void showSubtitles(kelp::TarnPlayer& player, bool wanted) {
    if (!wanted) {
        player.selectTrack(kelp::TRACK_KIND_SUBTITLE, -1);
        return;
    }
    for (const kelp::Track& track : player.getTracks()) {
        if (track.kind == kelp::TRACK_KIND_SUBTITLE && track.isPlayable) {
            player.selectTrack(kelp::TRACK_KIND_SUBTITLE, track.number);
            return;
        }
    }
}
// [/choose]

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: cookbook_subtitles FILM [SUBTITLES]\n");
        return 2;
    }
    Events events;
    kelp::TarnPlayer* player = kelp::TarnPlayer::create();
    player->setOption("preset", "recommended");
    if (argc > 2) {
        const char* subtitles = argv[2];
        // [file]
        player->setOption("subtitle_file",
                          subtitles);  // of the sources to come; "none" for those that have no such file
        // [/file]
    }
    // [set]
    Printer printer;
    player->setSubtitleSink(&printer);
    // [/set]
    player->setDataSource(argv[1], 0, &events);
    player->prepareAsync();
    player->start();
    bool isChosen = argc > 2;
    while (!events.ended) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (!isChosen && !player->getTracks().empty() && player->getCurrentTime() > 0) {
            isChosen = true;
            showSubtitles(*player, true);
        }
    }
    player->stop();
    // [end]
    player->setSubtitleSink(nullptr);  // from here on it isn't called any more
    // [/end]
    kelp::TarnPlayer::destroy(player);
    return events.failed ? 1 : 0;
}
