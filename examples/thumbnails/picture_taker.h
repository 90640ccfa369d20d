#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "contact_sheet.h"
#include "kelp_player/frame_sink.h"

// Draws the pictures that are asked for on a contact sheet, as the player shows them.
//
// `take` waits on the program's thread; the pictures come on the player's video thread.
class PictureTaker final : public kelp::ExternFrameSink {
public:
    // For a sheet of `count` pictures.
    explicit PictureTaker(int count) : count_(count) {}

    // Waits until the picture that is on at `timeMs` has been drawn on tile `index`. False if the source ends first.
    bool take(int index, int timeMs);

    // The source was played to its end, or it or the decoder failed: no other picture comes by itself.
    void onEnd();

    // Null before the first picture.
    const ContactSheet* sheet() const { return sheet_.get(); }

    void onVideoSize(int width, int height, int fps) override;
    bool onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int rotate, int64_t frameTag) override;

private:
    const int count_;
    std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    std::unique_ptr<ContactSheet> sheet_;
    int width_ = 0;
    int height_ = 0;
    int frameMs_ = 40;      // how long a picture is on
    int wantedIndex_ = -1;  // the tile to be drawn; -1 for none
    int wantedMs_ = 0;
    bool ended_ = false;
};
