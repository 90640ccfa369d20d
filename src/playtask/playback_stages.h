#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>

#include "decode/audio_decode_thread.h"
#include "decode/video_decode_thread.h"
#include "input/media_packet.h"
#include "input/stream_parser.h"
#include "playtask/frame_buffer_pool.h"
#include "present/audio_play_thread.h"
#include "present/video_play_thread.h"
#include "runtime/atomic_shared_ptr.h"

namespace kelp {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"  // of the observer interfaces
// The stages of one playback, and what passes from one to another as it is: packets and frames, the room for them, how
// much waits, and which time is played. A stage that isn't there swallows what it would get, and counts as empty.
//
// The operations come from any thread; an observer's own on the threads that it names.
class PlaybackStages : public StreamParserObserver,
                       public VideoDecodeThreadObserver,
                       public AudioDecodeThreadObserver,
                       public VideoPlayThreadObserver,
                       public AudioPlayThreadObserver {
protected:
    PlaybackStages() = default;
    ~PlaybackStages() = default;

    bool isStopping() const { return streamParser_ && streamParser_->isStopRequested(); }
    // What draws: the video, or the cover.
    std::shared_ptr<VideoPlayThread> pictureThread();
    void holdPlayThreads(bool held);

    // Time on the line of playback. It doesn't go back by itself, see forgetSoundTold.
    int64_t lineTimeMs();
    // Playback goes elsewhere: the picture has the say.
    void forgetSoundTold() { soundToldMs_ = kNoneTold; }
    bool isBent() const { return streamParser_ && streamParser_->loop().isBent(); }
    int64_t filmMs(int64_t lineMs) const { return streamParser_ ? streamParser_->loop().filmMs(lineMs) : lineMs; }
    int64_t heardMs() override;  // from the video play thread
    int64_t seenMs() override;   // from the threads of the sound

    int onAudioPakcet(std::shared_ptr<AudioPacket> packet) override;
    int onAudioPacketQueueSize() override;  // also from the audio play thread
    int onVideoPacketQueueSize() override;  // also from the video play thread
    int onAudioFrameQueueSize() override;   // also from the audio decode thread
    int onVideoFrameQueueSize() override;   // also from the video decode thread
    bool isDecoding() override;
    WaitingPackets waitingPackets() override;

    // Room for the parser, and for the decode threads. From whoever took the frames, with no lock of a play thread
    // held.
    void onPacketTaken();
    void onVideoPacketTaken() override { onPacketTaken(); }
    void onAudioPacketTaken() override { onPacketTaken(); }
    void onVideoFramesTaken(int left) override;
    void onAudioFramesTaken(int left) override;

    int onSpeedUpSamples() override;
    void onSoundReadAgain() override;
    void onAudioDecodeTrack() override;
    void onLastTimes(int64_t maxVideoPtsMs, int64_t maxAudioPtsMs) override;
    void onVideoDecodeEnd() override;
    void onAudioDecodeEnd() override;

    // `alloc` lets std::bad_alloc out.
    std::shared_ptr<FrameBuffer> allocPixBuffer(unsigned int size) override { return pixBufferPool_.alloc(size); }
    void freePixBuffer(std::shared_ptr<FrameBuffer> buffer) override { pixBufferPool_.free(std::move(buffer)); }
    std::shared_ptr<FrameBuffer> allocPcmBuffer(unsigned int size) override { return pcmBufferPool_.alloc(size); }
    void freePcmBuffer(std::shared_ptr<FrameBuffer> buffer) override { pcmBufferPool_.free(std::move(buffer)); }

    std::shared_ptr<StreamParser> streamParser_;  // set once, ahead of all else

    // While they run; a stage that failed is empty.
    AtomicSharedPtr<VideoDecodeThread> videoDecodeThread_;
    AtomicSharedPtr<AudioDecodeThread> audioDecodeThread_;
    AtomicSharedPtr<VideoPlayThread> videoPlayThread_;
    AtomicSharedPtr<AudioPlayThread> audioPlayThread_;
    // A picture that goes with the sound: shown as a video's first one, and kept. It has windows and no time: whoever
    // asks for the video's position, end, clock or queues finds none.
    AtomicSharedPtr<VideoDecodeThread> coverDecodeThread_;
    AtomicSharedPtr<VideoPlayThread> coverPlayThread_;

    std::atomic<bool> hasStepped_{false};  // since the last seek of the host's, or resume

    FrameBufferPool pixBufferPool_{100};
    FrameBufferPool pcmBufferPool_{121};  // blocks of sound differ a little in length

private:
    static constexpr int64_t kNoneTold = std::numeric_limits<int64_t>::min();
    std::atomic<int64_t> soundToldMs_{kNoneTold};  // by lineTimeMs, for want of pictures
};
#pragma GCC diagnostic pop

}  // namespace kelp
