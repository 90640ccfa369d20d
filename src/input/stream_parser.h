#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "input/held_packet.h"
#include "input/input_loop.h"
#include "input/input_mending.h"
#include "input/media_packet.h"
#include "input/packet_outlet.h"
#include "input/read_again.h"
#include "input/read_ahead.h"
#include "input/read_errors.h"
#include "input/seek_reach.h"
#include "input/source_options.h"
#include "input/stream_info.h"
#include "input/subtitle_taker.h"
#include "kelp_player/codec_info.h"
#include "kelp_player/tracks.h"
#include "kelp_player/types.h"
#include "runtime/base_thread.h"
#include "runtime/latest_time.h"
#include "runtime/playback_options.h"
#include "runtime/stage_counts.h"

struct AVBSFContext;
struct AVCodecContext;
struct AVFormatContext;
struct AVPacket;
struct AVStream;

namespace kelp {

class StreamChoice;
class TimestampExtrapolator;

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

// The demuxing stage: opens one input, picks one video and one audio stream and hands their packets to an observer.
//
// Order of use: init, any setOption, open, getStreamInfo and getCodecInfo, start, then pause and seek at will, stop,
// close; a closed parser can be opened again and keeps its observer and its options. `open` blocks for as long as the
// source takes and may run on a thread of its own: requestStop, stop and close from another thread cut it short.
// stop, pause, seek and setOption wait for nothing that the input does.
//
// The thread ends on a stop request only. At the end of the input, or when reading failed for good, it waits for a
// seek, which brings it back to life, or for the stop.
class StreamParser : public BaseThread, private StreamParserState {
public:
    // `extrapolator`, not owned and possibly null, is fed with the video packets of live sources; `packets` gets what
    // is read for the streams that are played, `subtitles` those of the subtitles that are chosen.
    explicit StreamParser(TimestampExtrapolator* extrapolator,
                          std::shared_ptr<PacketOutlet> packets = std::make_shared<PacketOutlet>(),
                          std::shared_ptr<SubtitleTaker> subtitles = nullptr);
    ~StreamParser() override;

    // Takes the observer and sets the default options over whatever values they had.
    void init(std::shared_ptr<StreamParserObserver> observer);

    // An option for the demuxer, for the opens to come. A later value for a key replaces the earlier one.
    void setOption(const char* key, const char* value);

    // All of them by now, for what is opened beside the input.
    OptionMap options();

    // What the host wants in another way than the standard one, for the opens to come. From the thread that opens.
    void setPlaybackOptions(const PlaybackOptions& options);

    // Opens `filePath`, a path or URL, at `seekTimeMs`. Says false if there is nothing that can be played; what was
    // made by then waits for `close`.
    bool open(std::string filePath, int64_t seekTimeMs);

    // Starts reading an open input. False if none is open or a stop was requested.
    bool start();

    // Ends the thread and leaves the input open for `close`.
    void stop();

    // Ends the thread, closes the input and takes the stop request back.
    void close();

    // For the end of the process, any thread: the input is closed for good, at once, or by the thread that reads it.
    // Whether it is closed; a parser that is just being asked for something wants to be called again.
    bool leave();

    // Stops or resumes the source, on the parser's thread. Always true.
    bool pause(bool paused);

    // Asks the thread to seek, to the end at most. Only the newest request that wasn't taken yet counts. Always true.
    // Exact: reading goes on from a key frame and from sound that aren't behind the target, if the input has such.
    // In a loop `seekTimeMs` is on the line of playback, which is ahead of the film by `shiftMs` there.
    bool seek(int seekTimeMs, SeekRule rule = SeekRule::Standard, int64_t shiftMs = 0);

    // Whether a seek was asked for of which the observer isn't told yet. Any thread.
    bool isSeekPending() const { return seekAsked_.isPending() || isSeekTaken_; }

    // The loop to be read from here on, or none: at its end the input goes back to its beginning. Kept until `close`.
    void setLoop(std::optional<Loop> loop);
    // How the line of playback lies to the film; any thread.
    const InputLoop& loop() const { return loop_; }

    // Asks the thread to play track `number` of this kind in place of the one that is played: one that can be played.
    // Only the newest request for a kind counts. Sound follows from where it is heard, if the source can go back, and
    // else behind what was read; a video from its next key frame on. Subtitles may also be none, by a number below 0;
    // they come from before what is seen, if the source can go back.
    void selectTrack(TrackKind kind, int number);

    // A packet has left a queue behind. Ends the rest before full queues when they are down to a half, for stages that
    // are faster than its 100 ms. Any thread, under any lock.
    void packetTaken();

    // Whether more is being read: the input isn't over, and not enough waits. Any thread.
    bool isReading() const { return reading_.load(std::memory_order_relaxed); }

    // What was read since `start`; any thread, without a lock.
    const ReadCounts& counts(TrackKind kind) const { return kind == TRACK_KIND_VIDEO ? videoRead_ : audioRead_; }

    // What `open` found. The codec parameters are copies of what the demuxer holds: not while the thread reads.
    std::shared_ptr<CodecInfo> getCodecInfo();
    std::shared_ptr<StreamInfo> getStreamInfo();

private:
    // Not 0 when a blocking call of the demuxer is to give up; `opaque` is the parser.
    static int interruptCallback(void* opaque);

    bool isToGiveUp();
    bool isReadBroken() const { return inBreakableRead_ && seekAsked_.isPending(); }

    bool openInput();
    void closeInput();  // with mutex_ held, and without a thread, or on it
    void readTimes();
    void seekAfterOpen(int64_t seekTimeMs);
    bool selectStreams();
    // The stream of track `wanted`; of FFmpeg's choice, beside the stream `related`, where that is none to be played.
    // -1 if there is none of this `kind`.
    int chooseStream(TrackKind kind, int wanted, int related);
    // A picture that is attached to the sound is handed over once, and the input read as one of sound alone.
    void setCoverAside();
    // Takes the stream at `index`, which may be none at all. False if it can't be played.
    bool findStream(int index);
    void takeAudioStream(AVStream* stream, const AVCodecContext* context);
    void takeVideoStream(AVStream* stream, const AVCodecContext* context);
    // Sets up bsfContext_ if the stream's extra data asks for it.
    bool detectBsf(AVStream* stream);
    bool isInputNamed(const char* name) const;

    // The rest runs on the parser's thread.
    void Run() override;
    void sendCover();
    // av_read_frame. One that a seek has broken off gives AVERROR_EXIT, and what it has read of a packet is dropped.
    int readFrame(AVPacket* packet);
    void applyPauseRequest();
    bool isReadingHeldByPause() const;
    bool areQueuesFull();
    void handlePacket(AVPacket* packet);
    void logFirstKeyFrame(const AVPacket* packet);
    void logDroppedPacket(const AVPacket* packet);
    void showUnmarked();

    void handleReadError(int result);
    void handleEndOfFile();
    // Tells the stages that nothing comes behind what they have.
    void sendEnds();
    // Waits for a seek or a stop, and tells the observer once when all queues have run empty.
    void waitAfterEnd(bool isFailed);
    bool areQueuesEmpty();
    // For how long the last picture is to be seen when all else has been.
    int64_t lastPictureMs() const;
    void clearInputEnd();

    // One demuxed packet to the observer; its payload may be converted in place.
    void disPatchPacket(AVPacket* packet);
    void dispatchAudio(const AVPacket* packet);
    bool dispatchVideo(AVPacket* packet);
    // Counts a packet that is handed on, and gives it to the outlet.
    void noteRead(const AVPacket& packet, ReadCounts& counts);
    void sendFirstPacket(const std::shared_ptr<MediaPacket>& packet);
    bool convertToAnnexB(AVPacket* packet);
    void measureKeyFrameGap(const AVPacket* packet);
    void fillMediaPacketInfo(std::shared_ptr<MediaPacket> packet, const AVPacket* source, const AVStream* stream,
                             bool isVideo);

    bool isTrackAsked() const {
        return audioAsked_.isPending() || videoAsked_.isPending() || subtitleAsked_.isPending();
    }
    enum class GoBack { Allowed, Forbidden };
    void changeTracks(GoBack goBack);
    void changeAudio(int number, GoBack goBack);
    bool canGoBack() const;
    void goBackForSound();
    void changeSubtitle(int number, GoBack goBack);
    void goBackForSubtitles();
    int queuedPackets();
    // The stream of subtitles that the options ask for is read from here on.
    void chooseSubtitle();
    void takeSubtitle(int number);
    void announceVideo(int number);
    // A packet that was handed on before, or isn't needed. To be asked once for each, in their order.
    bool isForNobody(const AVPacket& packet);
    // Takes a packet of the video that is announced.
    bool holdNextVideo(const AVPacket& packet);
    // How far such a packet lies behind the last one of the video that is played, in microseconds; none as FFmpeg has
    // it.
    int64_t usBehindVideo(const AVPacket& next) const;
    bool isNextVideoDue() const;
    void takeNextVideo();
    // The input goes to any other place.
    void forgetReading();

    // The pictures are over for now, as far as anybody waits for one; they go on with their next key frame.
    void endPictures();
    void sendVideoEnd();

    // The loop that was asked for is read from here on.
    void changeLoop();
    bool isReadBeyondLoop() const;
    // Says of a packet that was read whether the turn that is read is over for its stream.
    bool isBehindLoop(const AVPacket& packet);
    bool isTurnRead() const { return loop_.isOn() && loop_.isRead(videoStream_ != nullptr, audioStream_ != nullptr); }
    // A packet that is handed on now.
    void noteInLoop(const MediaPacket& packet);
    // How long the input says it is; 0 for unknown.
    int64_t statedLengthUs() const;
    // Where the turn that was read ends in the film.
    int64_t turnEndUs() const;
    // A loop was asked for at the end of the input: whether its next turn is read now.
    bool goesRoundFromEnd();
    // Begins the next turn. False if there can be none: there is no loop any more.
    bool goRound();

    std::optional<int64_t> takeSeek();
    void processSeekRequest(int64_t lineUs);
    // Whether `packet` is kept until it is known that the seek has gone back far enough.
    bool holdUnsure(const AVPacket& packet);
    SeekReach::Verdict judge(const AVPacket& packet);
    // The input is over: whether it has gone back to a place before.
    bool goesBackFromEnd();
    void goFartherBack();
    void handOnUnsure();
    // Moves the input to where `seekPosUs`, from its start, can be decoded.
    bool seekInput(int64_t seekPosUs);
    int64_t mpegTsSeekTarget(int64_t position, int64_t seekPosUs);
    void waitQueueDrain();

    TimestampExtrapolator* extrapolator_;
    const std::shared_ptr<PacketOutlet> packets_;
    const std::shared_ptr<SubtitleTaker> subtitles_;  // or null
    std::shared_ptr<StreamParserObserver> observer_;
    std::string filePath_;
    AVFormatContext* formatContext_ = nullptr;
    AVBSFContext* bsfContext_ = nullptr;  // null unless the video has to be converted
    // Held through `open`; guards what an open finds. The thread takes it at its end alone, to leave.
    std::mutex mutex_;
    bool isThreadThere_ = false;  // from `start` to `close`; guarded by mutex_
    std::atomic<bool> leaves_{false};

    std::atomic<int64_t> durationUs_{0};                  // ten hours if it is unknown
    std::atomic<bool> paused_{false};                     // as requested
    LatestTime seekAsked_;                                // in microseconds
    std::atomic<bool> isSeekTaken_{false};                // and the observer not told
    std::atomic<SeekRule> seekRule_{SeekRule::Standard};  // of that, like the next
    std::atomic<int64_t> seekShiftMs_{0};
    InputLoop loop_;
    LatestTime videoAsked_;  // a track's number, likewise
    LatestTime audioAsked_;
    LatestTime subtitleAsked_;
    ReadCounts videoRead_;
    ReadCounts audioRead_;
    std::atomic<bool> reading_{false};
    std::atomic<bool> inBreakableRead_{false};  // the demuxer may ask on a thread of its own
    std::atomic<int> untilLow_{0};  // packets to be taken until the thread that rests before full queues reads on

    PlaybackOptions playbackOptions_;  // guarded by mutex_
    // Until then a stop doesn't break off what the demuxer does. The thread's that closes, when no other one is in it.
    std::chrono::steady_clock::time_point farewellEnd_{};

    std::mutex optionsMutex_;  // not mutex_: options can be set while an open blocks
    OptionMap options_;        // guarded by optionsMutex_
};

}  // namespace kelp
