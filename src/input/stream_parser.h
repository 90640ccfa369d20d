#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "input/input_loop.h"
#include "input/media_packet.h"
#include "input/packet_outlet.h"
#include "input/seek_reach.h"
#include "input/source_options.h"
#include "input/stream_info.h"
#include "input/stream_parser_observer.h"
#include "input/stream_parser_state.h"
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

class TimestampExtrapolator;

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

    // All of them by now, for what is opened beside the input; not what its kind of source has added.
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
    bool isReadBroken() const {
        return inBreakableRead_ && seekAsked_.isPending() && std::chrono::steady_clock::now() >= readBreak_.load();
    }

    bool openInput();
    void closeInput();  // with mutex_ held, and without a thread, or on it
    // avformat_open_input of filePath_, with the options that `inputOptions_` has.
    int openContext(AVFormatContext** context, const OptionMap& options);
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
    // An input that isn't in the place of the open one yet.
    struct Reopened {
        std::unique_ptr<InputParts> parts;
        AVFormatContext* context = nullptr;  // null if there is none
    };
    bool needsReopening() const;
    // Opens the input anew where `posUs` from its start can be decoded.
    Reopened reopenAt(int64_t posUs);
    // Whether what is played has the same places and forms in `context`.
    bool isSameFilm(const AVFormatContext& context) const;
    // Goes on with `reopened`. With mutex_ held.
    void adopt(Reopened reopened);
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

    std::atomic<int64_t> durationUs_{0};  // ten hours if it is unknown
    std::atomic<bool> paused_{false};     // as requested
    LatestTime seekAsked_;                // in microseconds
    // No earlier does a seek break off what the demuxer reads.
    std::atomic<std::chrono::steady_clock::time_point> readBreak_{};
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
    std::atomic<bool> inBreakableRead_{false};            // the demuxer may ask on a thread of its own
    std::atomic<std::chrono::milliseconds> readGrace_{};  // from a seek to readBreak_
    std::atomic<int> untilLow_{0};  // packets to be taken until the thread that rests before full queues reads on

    PlaybackOptions playbackOptions_;  // guarded by mutex_
    OptionMap inputOptions_;           // by which the input was opened; written by `open`
    // Until then a stop doesn't break off what the demuxer does. The thread's that closes, when no other one is in it.
    std::chrono::steady_clock::time_point farewellEnd_{};

    std::mutex optionsMutex_;  // not mutex_: options can be set while an open blocks
    OptionMap options_;        // guarded by optionsMutex_
    OptionMap kept_;           // what sources have added, and standard ones meet, fit or not; guarded by optionsMutex_
};

}  // namespace kelp
