#pragma once

#include <string>

#include "subtitle/subtitle_event.h"

namespace kelp::test {

inline SubtitleEvent line(int64_t startMs, int64_t endMs, const std::string& text) {
    SubtitleEvent event;
    event.startMs = startMs;
    event.endMs = endMs;
    event.ass = "0,Default,,0,0,0,," + text;
    return event;
}

}  // namespace kelp::test
