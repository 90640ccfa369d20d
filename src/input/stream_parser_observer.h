#pragma once

#include <cstdint>
#include <memory>

#include "input/media_packet.h"
#include "input/read_ahead.h"

namespace kelp {

// Takes what the parser reads and tells it how much is still waiting behind it. All calls come on the parser's thread,
// with no lock held. The four queue sizes are asked for on every pass of its loop: they must be cheap and must not
// wait.
class StreamParserObserver {
public:
    // The first packet after an open or a seek, video or audio, right after it was handed over.
    virtual void onFirstPakcet(std::shared_ptr<MediaPacket> packet) = 0;
    // The results of both are not looked at.
    virtual int onAudioPakcet(std::shared_ptr<AudioPacket> packet) = 0;
    virtual int onVideoPacket(std::shared_ptr<VideoPacket> packet) = 0;  // also end and flush packets
    virtual int onAudioPacketQueueSize() = 0;
    virtual int onVideoPacketQueueSize() = 0;
    virtual int onAudioFrameQueueSize() = 0;
    virtual int onVideoFrameQueueSize() = 0;
    // Asked for where a source is read ahead by time.
    virtual WaitingPackets waitingPackets() { return {}; }
    // Whether a packet has left its queue and may still give a frame to another.
    virtual bool isDecoding() { return false; }
    // Whether a seek waits for its picture: sound that was read far ahead then holds nothing up.
    virtual bool isPictureAwaited() { return false; }
    // Before a seek: empty the packet queues. Reading goes on once both are empty.
    virtual void onSeekStart(int seekTimeMs) = 0;
    // After a seek, also a failed one.
    virtual void onSeekCompleted() = 0;
    // Another loop was asked for, or none, and what was read to be played before `lineMs` isn't of it.
    virtual void onLoopChanged(int64_t /*lineMs*/) {}
    // The time that is heard, or the target of a seek that is under way, in milliseconds; -1 before there is one.
    virtual int64_t audibleTimeMs() { return -1; }
    // The time that is seen, likewise.
    virtual int64_t shownTimeMs() { return -1; }
    // The sound of another track comes, from before what waits: drop the packets of sound.
    virtual void onSoundReadAgain() {}
    // The same times as onFileEnd's, ahead of the end packets: what these bring out of a decoder is known for the last.
    virtual void onLastTimes(int64_t /*maxVideoPtsMs*/, int64_t /*maxAudioPtsMs*/) {}
    // Right before onFileEnd, of an input that is mended: where its last packet ends, in milliseconds.
    virtual void onInputLength(int64_t /*lengthMs*/) {}
    // The end of the input, with the largest times handed over in milliseconds, -1 where there were none.
    virtual void onFileEnd(int64_t maxVideoPtsMs, int64_t maxAudioPtsMs) = 0;
    // The end of the input was met, or reading was given up, and all four queues have run empty since.
    virtual void onPlaybackCompleted() = 0;
    virtual void onPlayFailed() = 0;

protected:
    // Nobody deletes an observer through this interface.
    ~StreamParserObserver() = default;
};

}  // namespace kelp
