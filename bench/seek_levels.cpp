#include "seek_levels.h"

#include <cstring>

#include "kelp_player/log.h"

namespace kelp::bench {

namespace {

constexpr int kDebug = 4;

bool holds(const char* line, const char* text) {
    return std::strstr(line, text) != nullptr;
}

}  // namespace

SeekLevels::SeekLevels() {
    Log::SetLogCallback([this](const char* line) { read(line); });
    Log::SetLevel(kDebug);
}

SeekLevels::~SeekLevels() {
    Log::SetLevel(-1);
    Log::SetLogCallback({});
}

void SeekLevels::read(const char* line) {
    if (holds(line, "[VideoPlayThread], clearBuffer, frame pts:") && holds(line, " found\n")) {
        last_ = SeekLevel::Pictures;
    } else if (holds(line, "[VideoDecodeThread]: onSeek,") && holds(line, "flush:0")) {
        last_ = SeekLevel::Packets;
    } else if (holds(line, "[StreamParser]: processSeekRequest, seekPos:")) {
        last_ = SeekLevel::Demuxer;
    }
}

}  // namespace kelp::bench
