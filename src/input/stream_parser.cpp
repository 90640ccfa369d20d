// The parser's thread: the read loop, pauses and the end of the input.

#include "input/stream_parser.h"

#include <algorithm>
#include <utility>

#include "input/open_sessions.h"
#include "input/stream_choice.h"
#include "kelp_player/log.h"
#include "runtime/ffmpeg_compat.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

namespace kelp {
namespace {

constexpr const char* TAG = "StreamParser";

constexpr int kFewQueuedPictures = 10;
constexpr int kMostQueuedSound = 10'000;  // some minutes

constexpr int kQueuesFullRestMs = 100;
constexpr int kEndOfInputRestMs = 100;
constexpr int kReadErrorRestMs = 30;
constexpr int64_t kLongestLastPictureMs = 60'000;

}  // namespace

void StreamParser::Run() {
    Log::Debug(TAG, "Run...\n");
    BaseThread::setName(TAG);
    AVPacket packet;
    compat::initPacket(&packet);
    sendCover();
    while (!isStopRequested()) {
        applyPauseRequest();
        if (isReadingHeldByPause()) {
            rest(Rest::kForeverMs, [this] { return !paused_; });  // not until a seek, which isn't taken here
            continue;
        }
        if (const auto seekPosUs = takeSeek()) {
            processSeekRequest(*seekPosUs);
        }
        if (std::exchange(isLost_, false)) {
            reach_.end();
            waitAfterEnd(/*isFailed=*/true);
            continue;
        }
        if (!reach_.isOpen()) {
            changeTracks(GoBack::Allowed);
        }
        if (loop_.isAsked()) {
            changeLoop();
        }
        const bool isFull = areQueuesFull();
        reading_.store(!isFull, std::memory_order_relaxed);
        if (isFull) {
            rest(kQueuesFullRestMs, [this, told = lastPaused_] {
                return untilLow_ <= 0 || seekAsked_.isPending() || isTrackAsked() || loop_.isAsked() || paused_ != told;
            });
            continue;
        }
        const int result = readFrame(&packet);
        if (isReadBreakable_ && result == AVERROR_EXIT && seekAsked_.isPending()) {
            continue;
        }
        if (result < 0 && result != AVERROR(EAGAIN) && goesBackFromEnd()) {
            continue;
        }
        if (result == AVERROR_EOF && loop_.isOn() && goRound()) {
            continue;
        }
        if (result < 0) {
            handleReadError(result);
            rest(kReadErrorRestMs, [this] { return seekAsked_.isPending(); });
            continue;
        }
        readErrors_.forget();
        const bool isProtected = choice_->isProtected(packet);
        if (!isProtected) {
            handlePacket(&packet);
            if (isNextVideoDue()) {
                takeNextVideo();
            }
            if (isTurnRead()) {
                goRound();
            }
        }
        av_packet_unref(&packet);
        if (isProtected) {
            Log::Error(TAG, "%s can't be played: it is protected\n", filePath_.c_str());
            waitAfterEnd(/*isFailed=*/true);
        }
    }
    packets_->end();
    if (leaves_) {
        {
            std::lock_guard lock(mutex_);
            closeInput();
        }
        OpenSessions::remove(*this);
    }
    Log::Debug(TAG, "Run exit...\n");
}

int StreamParser::readFrame(AVPacket* packet) {
    if (!isReadBreakable_) {
        return av_read_frame(formatContext_, packet);
    }
    inBreakableRead_ = true;
    const int result = av_read_frame(formatContext_, packet);
    inBreakableRead_ = false;
    if (!seekAsked_.isPending()) {
        return result;
    }
    if (result >= 0) {
        av_packet_unref(packet);
    }
    clearInputEnd();
    return AVERROR_EXIT;
}

bool StreamParser::pause(bool paused) {
    paused_ = paused;
    endRest();
    return true;
}

void StreamParser::packetTaken() {
    if (--untilLow_ == 0) {
        endRest();
    }
}

void StreamParser::applyPauseRequest() {
    const bool paused = paused_;
    if (paused == lastPaused_) {
        return;
    }
    lastPaused_ = paused;
    if (paused) {
        readPauseResult_ = av_read_pause(formatContext_);
        return;
    }
    av_read_play(formatContext_);
    if (isLive_) {
        packets_->gap();
    }
    if (isLive_ && videoStream_) {
        // What was on its way during the pause is gone: the picture restarts at a key frame.
        foundKeyFrame_ = false;
        if (observer_) {
            auto flush = std::make_shared<VideoPacket>();
            flush->flush = true;
            observer_->onVideoPacket(std::move(flush));
        }
    }
}

// Every other source is read on while paused, until the queues are full.
bool StreamParser::isReadingHeldByPause() const {
    return lastPaused_ && (isInputNamed("rtsp") || (formatContext_->pb && filePath_.starts_with("mmsh:")));
}

// All four are asked for, in this order; frames have no say in it.
bool StreamParser::areQueuesFull() {
    if (!observer_) {
        return false;
    }
    const int pictures = observer_->onVideoPacketQueueSize();
    const int packets = pictures + observer_->onAudioPacketQueueSize();
    // What is read again has been in the queues before. It never ends for a stream that is over.
    if ((readAgain_.isActive() || soundReadAgain_.isActive()) && packets < mostReadAgain_) {
        return false;
    }
    observer_->onVideoFrameQueueSize();
    observer_->onAudioFrameQueueSize();
    // Those that were taken since the look aren't counted: the rest ends so many packets later, or by itself.
    untilLow_ = packets - readAhead_.few(packets);
    const auto waiting = readAhead_.isByTime() ? observer_->waitingPackets() : WaitingPackets{};
    if (!readAhead_.isEnough(packets, waiting)) {
        return false;
    }
    // Sound that is read ahead of the picture that a seek waits for: it may end before it, and be the last one.
    if (pictures >= kFewQueuedPictures || !observer_->isPictureAwaited()) {
        return true;
    }
    if (packets >= kMostQueuedSound) {
        endPictures();
    }
    return packets >= kMostQueuedSound;
}

void StreamParser::endPictures() {
    if (!videoStream_ || videoEnded_) {
        return;
    }
    videoEnded_ = true;
    sendVideoEnd();
    auto flush = std::make_shared<VideoPacket>();
    flush->flush = true;
    observer_->onVideoPacket(std::move(flush));
    foundKeyFrame_ = false;
}

// Without data: makes the decoder give out what it still holds.
void StreamParser::sendVideoEnd() {
    auto end = std::make_shared<VideoPacket>();
    end->foundKeyFrame = foundKeyFrame_;
    observer_->onVideoPacket(std::move(end));
}

void StreamParser::handleReadError(int result) {
    char text[255] = {};
    av_strerror(result, text, sizeof(text));
    const AVIOContext* pb = formatContext_->pb;
    Log::Error(TAG, "Running... read failed, ret:%d, %s, pb->eof_reached:%d,error:%d\n", result, text,
               pb ? pb->eof_reached : 0, pb ? pb->error : 0);
    const auto verdict = readErrors_.judge(*choice_, *formatContext_, result);
    if (verdict == ReadErrors::Verdict::ReadOn) {
        return;
    }
    if (verdict == ReadErrors::Verdict::Over && loop_.isOn() && goRound()) {
        return;
    }
    if (verdict == ReadErrors::Verdict::Over) {
        handleEndOfFile();
    } else if (verdict == ReadErrors::Verdict::Lost && observer_) {
        sendEnds();  // what was read is shown to the last picture
    }
    if (!isStopRequested()) {
        waitAfterEnd(/*isFailed=*/verdict != ReadErrors::Verdict::Over);
        readErrors_.forget();
    }
}

void StreamParser::handleEndOfFile() {
    Log::Info(TAG, "Running... end of file, foundKeyFrame_:%d, stopRequested:%d\n", foundKeyFrame_, isStopRequested());
    if (observer_) {
        sendEnds();
        if (mending_.isWanted()) {
            observer_->onInputLength(std::max(videoEndMs_, audioEndMs_));
        }
        observer_->onFileEnd(maxVideoPtsMs_, maxAudioPtsMs_);
    }
    const int64_t endMs = std::max({maxVideoPtsMs_, maxAudioPtsMs_, videoEndMs_, audioEndMs_});
    if (mending_.isWanted() && endMs > 0) {
        durationUs_ = endMs * 1000;  // for seeks: what the header says may be less
    }
}

void StreamParser::sendEnds() {
    showUnmarked();
    if (!held_.empty()) {
        takeNextVideo();
    }
    observer_->onLastTimes(maxVideoPtsMs_, maxAudioPtsMs_);
    if (videoStream_ && !videoEnded_) {
        videoEnded_ = true;
        sendVideoEnd();
    }
    if (audioStream_ && (tellsSoundEnd_ || seeksExactly_) && !soundEnded_) {
        soundEnded_ = true;
        observer_->onAudioPakcet(std::make_shared<AudioPacket>());
    }
}

int64_t StreamParser::lastPictureMs() const {
    const int64_t elseMs = std::max(maxVideoPtsMs_, audioEndMs_);
    return mending_.isWanted() ? std::clamp<int64_t>(videoEndMs_ - elseMs, 0, kLongestLastPictureMs) : 0;
}

void StreamParser::waitAfterEnd(bool isFailed) {
    reading_.store(false, std::memory_order_relaxed);
    packets_->end();
    bool isReported = false;
    int64_t heldMs = isFailed ? 0 : lastPictureMs();
    do {
        const bool wasPaused = paused_;
        if (loop_.isAsked() && (isFailed || isReported)) {
            loop_.take();  // for a seek
        } else if (loop_.isAsked() && goesRoundFromEnd()) {
            return;
        }
        const bool isStill = loop_.isOn() && !isFailed;  // until a seek into the loop, which is on its way
        const bool isOver = observer_ && areQueuesEmpty() && !isReported && !wasPaused && !isStill;
        const bool isHeld = isOver && heldMs > 0;
        if (isOver && !isHeld) {
            isFailed ? observer_->onPlayFailed() : observer_->onPlaybackCompleted();
            isReported = true;
        }
        if (isReported || isFailed) {
            changeTracks(GoBack::Forbidden);  // for a seek, behind which they are played
        }
        if (seekAsked_.isPending() || isTrackAsked()) {
            clearInputEnd();
            return;
        }
        const int restMs = isHeld ? static_cast<int>(std::min<int64_t>(heldMs, kEndOfInputRestMs)) : kEndOfInputRestMs;
        rest(isReported ? Rest::kForeverMs : restMs, [&] {
            return seekAsked_.isPending() || isTrackAsked() || loop_.isAsked() ||
                   (wasPaused && !isReported && !paused_);
        });
        heldMs -= isHeld ? restMs : 0;
    } while (!isStopRequested());
}

// In this order: what is in none of the first three any more has got to the frames.
bool StreamParser::areQueuesEmpty() {
    return observer_->onVideoPacketQueueSize() == 0 && observer_->onAudioPacketQueueSize() == 0 &&
           !observer_->isDecoding() && observer_->onVideoFrameQueueSize() == 0 &&
           observer_->onAudioFrameQueueSize() == 0;
}

void StreamParser::clearInputEnd() {
    if (formatContext_->pb) {
        formatContext_->pb->eof_reached = 0;
        formatContext_->pb->error = 0;
    }
}

}  // namespace kelp
