#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <vector>

#include "input/held_packet.h"
#include "input/input_mending.h"
#include "input/input_parts.h"
#include "input/read_again.h"
#include "input/read_ahead.h"
#include "input/read_errors.h"
#include "input/seek_reach.h"
#include "kelp_player/codec_info.h"
#include "kelp_player/types.h"

struct AVBSFContext;
struct AVStream;

namespace kelp {

class StreamChoice;

struct FreeLeftBsf {
    void operator()(AVBSFContext* context) const;
};

// How far a stream was handed on, in its ticks.
struct StreamReach {
    int64_t lastTicks = -1;  // the latest time since the last seek or turn of a loop
    int64_t endTicks = -1;   // where the packet ends that ends last
    int64_t endFromTicks = -1;

    void note(int64_t pts, int64_t end) {
        lastTicks = std::max(lastTicks, pts);
        if (end > endTicks) {
            endTicks = end;
            endFromTicks = pts;
        }
    }
};

// What an open has found and reading has come to: all that `close` sets back at once. While the thread runs it changes
// what belongs to a track.
struct StreamParserState {
    InputMending mending_;
    int64_t startTimeUs_ = 0;
    int64_t originUs_ = 0;  // the input's time that is position 0
    int64_t startTimeInVideoTimeBase_ = 0;
    int64_t startTimeInAudioTimeBase_ = 0;
    int videoStreamIndex_ = -1;
    int audioStreamIndex_ = -1;
    int subtitleStreamIndex_ = -1;
    AVStream* videoStream_ = nullptr;
    AVStream* audioStream_ = nullptr;
    AVStream* coverStream_ = nullptr;  // its picture goes with the sound; there is no video stream then
    int width_ = 0;                    // in pixels
    int height_ = 0;                   // in pixels
    int frameRate_ = 0;                // whole frames per second
    int channels_ = 0;
    int sampleRate_ = 0;  // in Hz
    int sampleFormat_ = -1;
    VideoCodecType videoCodecType_ = VIDEO_CODEC_NONE;
    AudioCodecType audioCodecType_ = AUDIO_CODEC_NONE;
    PixFormat pixFormat_ = PIX_FMT_NONE;
    bool isLive_ = false;
    bool isRemote_ = false;
    ReadAhead readAhead_;
    std::unique_ptr<InputParts> parts_;     // of the input, or null
    bool reopensForSeeks_ = false;          // libavformat can't go to another place in it
    bool isReadBreakable_ = false;          // a seek doesn't wait for what a server doesn't send
    const StreamChoice* choice_ = nullptr;  // from `open` on
    bool keepsSideData_ = false;            // palettes, samples to be left out, and so on
    bool tellsSoundEnd_ = false;            // with a packet without data, as that of the pictures and of exact seeks

    // The thread's own, like all below.
    ReadErrors readErrors_;
    bool lastPaused_ = false;            // as the demuxer was told
    int readPauseResult_ = 0;            // of the last av_read_pause
    bool firstPacketSent_ = false;       // onFirstPakcet was called since the open or the last seek
    bool foundKeyFrame_ = false;         // a video key frame was handed over, video flows
    int64_t lastKeyFramePts_ = -1;       // since the last seek; raw, in the video time base; -1 or less means none
    int64_t maxKeyFrameDurationMs_ = 0;  // the largest distance of two key frames; never falls until `close`
    int64_t maxVideoPtsMs_ = -1;         // the largest times handed over; not lowered by a seek
    int64_t maxAudioPtsMs_ = -1;

    // Of the last seek.
    int64_t seekPosUs_ = 0;
    bool seeksExactly_ = false;
    SeekReach reach_;
    bool isLost_ = false;             // the input couldn't be opened anew for it
    bool isFarthestBack_ = false;     // there is nothing before what is read for it
    std::vector<HeldPacket> unsure_;  // what was read while reach_ is open

    // Of changes of the tracks.
    std::shared_ptr<const CodecInfo> videoTrack_;  // for the packets; null until the first change
    std::shared_ptr<const CodecInfo> audioTrack_;
    bool leavesOthersOut_ = false;  // packets of streams that nobody has chosen are no mistake
    int nextVideoIndex_ = -1;       // the video that waits for its key frame; -1 for none
    std::vector<HeldPacket> held_;  // its packets from there on, while the old one hasn't come as far
    std::map<int, std::unique_ptr<AVBSFContext, FreeLeftBsf>> leftBsfs_;  // of videos that were played, by their stream
    ReadAgain readAgain_;                                                 // of the video
    ReadAgain soundReadAgain_;
    int mostReadAgain_ = 0;  // with so many packets in the queues what is read again doesn't keep them open
    int64_t lastVideoTicks_ = std::numeric_limits<int64_t>::min();  // of the last packet; none as FFmpeg has it
    int64_t soundFromMs_ = -1;    // sound that is read again is needed from here on; -1 if all is
    int64_t firstPacketMs_ = -1;  // of the first packet since the open or the last seek; -1 before it
    int64_t lastSoundMs_ = -1;    // of the last packet of sound; likewise
    bool videoEnded_ = false;     // the end packet was handed over; likewise
    bool soundEnded_ = false;
    int64_t videoEndMs_ = 0;  // where the last ones end
    int64_t audioEndMs_ = 0;
    StreamReach videoReach_;
    StreamReach audioReach_;
};

}  // namespace kelp
