#pragma once

#include <cstdint>
#include <memory>
#include <set>

#include "subtitle/ass_library.h"
#include "subtitle/subtitle_overlay.h"
#include "subtitle/subtitle_track.h"

namespace kelp {

// Has libass draw the text of one track. One thread at a time.
class TextDrawer {
public:
    explicit TextDrawer(std::shared_ptr<const SubtitleTrack> track);
    ~TextDrawer();
    TextDrawer(const TextDrawer&) = delete;
    TextDrawer& operator=(const TextDrawer&) = delete;

    // The same object as before if it looks the same. `screen` has a width and a height.
    DrawnSubtitles draw(int64_t timeMs, const SubtitleScreenSize& screen);

private:
    bool open();
    void takeEvents();
    void setScreen(const SubtitleScreenSize& screen);

    const std::shared_ptr<const SubtitleTrack> source_;
    const AssLibrary* const ass_;
    ASS_Library* library_ = nullptr;
    ASS_Renderer* renderer_ = nullptr;
    ASS_Track* track_ = nullptr;
    bool isOpen_ = false;
    bool isTold_ = false;       // that there were too many lines
    unsigned int version_ = 0;  // of the track when its events were taken
    bool hasEvents_ = false;    // they were taken
    std::set<SubtitleTrack::Event> taken_;
    SubtitleScreenSize screen_;
    DrawnSubtitles drawn_;
};

}  // namespace kelp
