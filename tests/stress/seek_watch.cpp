#include "stress/seek_watch.h"

#include <cstdio>

#include "e2e/recording_sink.h"
#include "kelp_player/log.h"

namespace kelp::test {

namespace {

constexpr size_t kTailLines = 400;

}  // namespace

SeekWatch::SeekWatch() {
    Log::SetLogCallback([this](const char* line) { take(line); });
    Log::SetLevel(4);
}

SeekWatch::~SeekWatch() {
    Log::SetLogCallback(nullptr);
}

void SeekWatch::reset(bool hasVideo) {
    std::lock_guard lock(mutex_);
    hasVideo_ = hasVideo;
}

bool SeekWatch::isIdle() {
    std::lock_guard lock(mutex_);
    return !running_ && !waiting_;
}

SeekWatch::Forgotten SeekWatch::forgotten() {
    std::lock_guard lock(mutex_);
    return {waiting_ && !running_, parkedAtUs_, endedAtUs_};
}

SeekWatch::Totals SeekWatch::totals() {
    std::lock_guard lock(mutex_);
    return totals_;
}

int SeekWatch::endsWithoutAFrame() {
    std::lock_guard lock(mutex_);
    return endsWithoutAFrame_;
}

void SeekWatch::printTail() {
    std::lock_guard lock(mutex_);
    for (const std::string& line : tail_) {
        std::fputs(line.c_str(), stdout);
    }
}

void SeekWatch::take(const std::string& line) {
    const auto holds = [&](const char* text) { return line.find(text) != std::string::npos; };
    if (holds("[Worker]") || holds("FrameBuffer")) {
        return;
    }
    std::lock_guard lock(mutex_);
    tail_.push_back(line);
    if (tail_.size() > kTailLines) {
        tail_.pop_front();
    }
    if (holds("[PlayTask]: seek, ")) {
        if (holds("now is seeking")) {
            ++totals_.parked;
            waiting_ = true;
            parkedAtUs_ = steadyUs();
        } else if (holds("seekable:1")) {
            ++totals_.requests;
        }
    } else if (holds("[PlayTask]: processBufferedSeekRequest, startSeek")) {
        ++totals_.replayed;
        waiting_ = false;
        running_ = true;
    } else if (holds("[StreamParser]: seek to ") && holds(" ms\n")) {
        ++totals_.atDemuxer;
        running_ = true;
        waiting_ = false;  // nothing starts while one waits, unless the end of the file has dropped it
    } else if (holds(hasVideo_ ? "[VideoPlayThread], seek, seek req" : "[AudioPlayThread], seek, seek req")) {
        if (holds("needFlush:0")) {
            ++totals_.inPackets;
            running_ = true;
            waiting_ = false;
        }
    } else if (holds(hasVideo_ ? "[VideoPlayThread], clearBuffer, seekTimeMs" : "[AudioPlayThread], clearBuffer, s")) {
        ++totals_.inFrames;
        running_ = false;
        waiting_ = false;
    } else if (holds(hasVideo_ ? "[PlayTask]: onFirstVideoFrame" : "[PlayTask]: onFirstAudioFrame")) {
        running_ = false;
        endedAtUs_ = steadyUs();
    } else if (holds("[PlayTask]: onVideoDecodeNoMoreFrame")) {
        ++endsWithoutAFrame_;
        running_ = false;
    } else if (holds("[PlayTask]: stop end")) {
        running_ = false;
        waiting_ = false;
    }
}

}  // namespace kelp::test
