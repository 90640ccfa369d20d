#include "subtitle/shown_lines.h"

#include <algorithm>
#include <cstdio>

namespace kelp {

namespace {

// As a script writes it, in hundredths of a second.
std::string scriptTime(int64_t ms) {
    const int64_t hundredths = std::max<int64_t>(ms, 0) / 10;
    char text[40];
    std::snprintf(text, sizeof(text), "%d:%02d:%02d.%02d", static_cast<int>(hundredths / 360'000),
                  static_cast<int>(hundredths / 6000 % 60), static_cast<int>(hundredths / 100 % 60),
                  static_cast<int>(hundredths % 100));
    return text;
}

SubtitleLine lineOf(const SubtitleEvent& event) {
    constexpr int64_t kLastMs = 35'999'990;  // 9:59:59.99, for one whose end isn't known
    const bool isOpen = event.endMs == SubtitleEvent::kOpenEnd;
    SubtitleLine line;
    line.startMs = event.startMs;
    line.endMs = isOpen ? -1 : event.endMs;
    line.text = event.plainText();
    const size_t layer = std::min(event.ass.find(','), event.ass.size());
    line.styled = "Dialogue: " + event.ass.substr(0, layer) + "," + scriptTime(event.startMs) + "," +
                  scriptTime(isOpen ? kLastMs : event.endMs) + event.ass.substr(layer);
    return line;
}

}  // namespace

ShownSubtitles shownSubtitles(int64_t timeMs, const SubtitleTrack* track,
                              const std::vector<SubtitleTrack::Event>& events, const SubtitleOverlay* drawn) {
    ShownSubtitles shown;
    shown.timeMs = timeMs;
    for (const auto& event : events) {
        if (!event->ass.empty()) {
            shown.lines.push_back(lineOf(*event));
        }
    }
    if (track) {
        shown.script = track->head().script;
    }
    if (drawn) {
        for (const auto& part : drawn->parts) {
            shown.pictures.push_back(
                {part.x, part.y, part.width, part.height, part.pixelWidth, part.pixelHeight, part.pixels.data()});
        }
    }
    return shown;
}

}  // namespace kelp
