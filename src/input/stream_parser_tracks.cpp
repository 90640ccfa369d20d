// The choice of the tracks, and their changes while the input is read: the request, and what the parser's thread does
// about it.
//
// Sound that was read ahead may lie seconds behind what is heard, so the input goes back to there, and what is read
// again of the video isn't handed on twice. A video begins at a key frame: both are read until the new one has brought
// one and the old one has come as far. Each packet of a track that wasn't there at the start names it, so that its
// decoder changes between the packets of the two, whatever happens to the queue.

#include <algorithm>
#include <utility>

#include "clock/wrapping_math.h"
#include "input/stream_choice.h"
#include "input/stream_parser.h"
#include "input/track_list.h"
#include "kelp_player/log.h"
#include "runtime/ffmpeg_compat.h"

extern "C" {
#include <libavcodec/bsf.h>
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

namespace kelp {
namespace {

constexpr const char* TAG = "StreamParser";

constexpr int64_t kSoundLeadInMs = 200;        // sound is right only after some was decoded before it
constexpr int64_t kSubtitleLeadInMs = 10'000;  // what began so long before what is seen may still stand
constexpr size_t kMaxHeldPackets = 200;        // of a video that waits for the old one to come as far
constexpr int64_t kVideoOverUs = 2'000'000;    // with nothing of it for so long the old one is over, or it rests
// More than were queued when the input went back: of sound that takes the place of what was queued, and of whatever is
// read between the last known video and the last known sound.
constexpr int kMostSoundAgain = 2000;
constexpr int kMostElseAgain = 200;

int64_t ticksOf(const AVPacket& packet) {
    return packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
}

int64_t ticksToUs(int64_t ticks, const AVStream& stream) {
    return ticks == AV_NOPTS_VALUE ? ticks : av_rescale_q(ticks, stream.time_base, AVRational{1, AV_TIME_BASE});
}

}  // namespace

void FreeHeldPacket::operator()(AVPacket* packet) const {
    av_packet_free(&packet);
}

void FreeLeftBsf::operator()(AVBSFContext* context) const {
    av_bsf_free(&context);
}

int StreamParser::chooseStream(TrackKind kind, int wanted, int related) {
    const bool isVideo = kind == TRACK_KIND_VIDEO;
    if (wanted == PlaybackOptions::kNoTrack) {
        return -1;
    }
    if (wanted != PlaybackOptions::kAutoTrack) {
        if (static_cast<unsigned int>(wanted) < formatContext_->nb_streams) {
            const AVStream& stream = *formatContext_->streams[wanted];
            if (trackKindOf(stream) == kind && isPlayable(stream, playbackOptions_)) {
                return wanted;
            }
        }
        Log::Warn(TAG, "%s %d is none that can be played, taking auto\n", isVideo ? "video_track" : "audio_track",
                  wanted);
    }
    return choice_->best(formatContext_, isVideo ? AVMEDIA_TYPE_VIDEO : AVMEDIA_TYPE_AUDIO, related);
}

void StreamParser::selectTrack(TrackKind kind, int number) {
    if (kind == TRACK_KIND_SUBTITLE) {
        subtitleAsked_.post(number);
    } else {
        (kind == TRACK_KIND_VIDEO ? videoAsked_ : audioAsked_).post(number);
    }
    endRest();
}

void StreamParser::changeTracks(GoBack goBack) {
    if (const auto number = audioAsked_.take()) {
        changeAudio(static_cast<int>(*number), goBack);
    }
    if (const auto number = videoAsked_.take()) {
        announceVideo(static_cast<int>(*number));
    }
    if (const auto number = subtitleAsked_.take()) {
        changeSubtitle(static_cast<int>(*number), goBack);
    }
}

void StreamParser::changeAudio(int number, GoBack goBack) {
    AVStream* const before = audioStream_;
    if (number == audioStreamIndex_ || !findStream(number)) {
        return;
    }
    if (before) {
        before->discard = AVDISCARD_ALL;
    }
    audioStreamIndex_ = number;
    soundReadAgain_.forget();
    audioReach_ = {};
    auto track = std::make_shared<CodecInfo>();
    track->audioCodecType = audioCodecType_;
    track->audioParameters = compat::copyParameters(audioStream_);
    audioTrack_ = std::move(track);
    leavesOthersOut_ = true;
    Log::Info(TAG, "track %d is the sound now\n", number);
    // A seek that waits brings its own place.
    if (goBack == GoBack::Allowed && observer_ && !seekAsked_.isPending()) {
        goBackForSound();
    }
}

// If not, as in a loop, the new track is played when what was read has been.
bool StreamParser::canGoBack() const {
    const AVIOContext* const pb = formatContext_->pb;
    const bool isAnythingRead = firstPacketMs_ >= 0;
    return isAnythingRead && !isLive_ && !loop_.turn() && pb && (pb->seekable & AVIO_SEEKABLE_NORMAL) != 0;
}

void StreamParser::goBackForSound() {
    if (!canGoBack()) {
        return;
    }
    // A time out of what was read is one from before a seek.
    const int64_t heardMs = observer_->audibleTimeMs();
    const int64_t fromMs = heardMs <= lastSoundMs_ ? std::max(heardMs, firstPacketMs_) : firstPacketMs_;
    if (!seekInput(std::max<int64_t>(fromMs - kSoundLeadInMs, 0) * 1000)) {
        return;
    }
    soundFromMs_ = fromMs - kSoundLeadInMs;
    packets_->tellAgain();  // the track before may have been left before a packet of it came
    readAgain_.begin();
    held_.clear();
    observer_->onSoundReadAgain();
    mostReadAgain_ = queuedPackets() + kMostSoundAgain;
}

int StreamParser::queuedPackets() {
    const int pictures = observer_->onVideoPacketQueueSize();
    return pictures + observer_->onAudioPacketQueueSize();
}

void StreamParser::chooseSubtitle() {
    const int wanted = playbackOptions_.subtitleTrack;
    if (!subtitles_ || wanted == PlaybackOptions::kAutoTrack || wanted == PlaybackOptions::kNoTrack) {
        return;
    }
    const bool isThere = static_cast<unsigned int>(wanted) < formatContext_->nb_streams;
    if (isThere && trackKindOf(*formatContext_->streams[wanted]) == TRACK_KIND_SUBTITLE &&
        isPlayable(*formatContext_->streams[wanted], playbackOptions_)) {
        leavesOthersOut_ = true;
        takeSubtitle(wanted);
        return;
    }
    // Behind the source's own come those of another file.
    if (isThere || playbackOptions_.subtitleFile.empty()) {
        Log::Warn(TAG, "%s %d is none that can be played, taking auto\n", "subtitle_track", wanted);
    }
}

void StreamParser::takeSubtitle(int number) {
    subtitleStreamIndex_ = number;
    if (number >= 0) {
        AVStream& stream = *formatContext_->streams[number];
        stream.discard = AVDISCARD_DEFAULT;
        subtitles_->onSubtitleStream(*formatContext_, stream, originUs_);
    }
}

void StreamParser::changeSubtitle(int number, GoBack goBack) {
    if (!subtitles_ || number == subtitleStreamIndex_) {
        return;
    }
    if (subtitleStreamIndex_ >= 0) {
        formatContext_->streams[subtitleStreamIndex_]->discard = AVDISCARD_ALL;
    }
    leavesOthersOut_ = true;
    takeSubtitle(number);
    subtitles_->onSubtitleGap();
    if (number < 0) {
        Log::Info(TAG, "no subtitles are read now\n");
        return;
    }
    Log::Info(TAG, "track %d is the subtitles now\n", number);
    if (goBack == GoBack::Allowed && observer_ && !seekAsked_.isPending()) {
        goBackForSubtitles();
    }
}

// Nothing else is handed on twice, so it costs no more than the reading.
void StreamParser::goBackForSubtitles() {
    if (!canGoBack()) {
        return;
    }
    // Nothing may have been shown yet.
    const int64_t fromMs = std::max(observer_->shownTimeMs(), firstPacketMs_) - kSubtitleLeadInMs;
    if (!seekInput(std::max<int64_t>(fromMs, 0) * 1000)) {
        return;
    }
    readAgain_.begin();
    soundReadAgain_.begin();
    held_.clear();
    mostReadAgain_ = queuedPackets() + kMostElseAgain;
}

void StreamParser::announceVideo(int number) {
    held_.clear();
    if (nextVideoIndex_ >= 0) {
        formatContext_->streams[nextVideoIndex_]->discard = AVDISCARD_ALL;
    }
    nextVideoIndex_ = number == videoStreamIndex_ ? -1 : number;
    if (nextVideoIndex_ >= 0) {
        formatContext_->streams[nextVideoIndex_]->discard = AVDISCARD_DEFAULT;
    }
}

bool StreamParser::isForNobody(const AVPacket& packet) {
    if (packet.stream_index == videoStreamIndex_) {
        if (readAgain_.wasHandedOn(packet)) {
            return true;
        }
        readAgain_.note(packet);
        lastVideoTicks_ = ticksOf(packet);
        return false;
    }
    if (packet.stream_index == audioStreamIndex_) {
        if (soundReadAgain_.wasHandedOn(packet)) {
            return true;
        }
        const int64_t us = soundFromMs_ >= 0 ? ticksToUs(ticksOf(packet), *audioStream_) : AV_NOPTS_VALUE;
        const bool isEarly = us != AV_NOPTS_VALUE && us - std::max<int64_t>(startTimeUs_, 0) < soundFromMs_ * 1000;
        if (!isEarly) {
            soundFromMs_ = -1;
            soundReadAgain_.note(packet);
        }
        return isEarly;
    }
    // What the demuxer has read of a track that was left since, or before its choice.
    return leavesOthersOut_ && formatContext_->streams[packet.stream_index]->discard >= AVDISCARD_ALL;
}

bool StreamParser::holdNextVideo(const AVPacket& packet) {
    if (packet.stream_index != nextVideoIndex_) {
        return false;
    }
    const bool isKey = (packet.flags & AV_PKT_FLAG_KEY) != 0;
    // The old one's last packet may not come again: it may be over.
    const bool isUnseen = !readAgain_.isActive() || usBehindVideo(packet) >= 0;
    if (isUnseen && (isKey || !held_.empty())) {
        if (HeldPacket copy{av_packet_clone(&packet)}) {
            held_.push_back(std::move(copy));
        }
    }
    return true;
}

int64_t StreamParser::usBehindVideo(const AVPacket& next) const {
    const int64_t nextUs = ticksToUs(ticksOf(next), *formatContext_->streams[nextVideoIndex_]);
    const int64_t lastUs = ticksToUs(lastVideoTicks_, *videoStream_);
    return nextUs == AV_NOPTS_VALUE || lastUs == AV_NOPTS_VALUE ? AV_NOPTS_VALUE : wrappingSubtract(nextUs, lastUs);
}

bool StreamParser::isNextVideoDue() const {
    if (held_.empty()) {
        return false;
    }
    // Without times it is due at once: the library's value for none lies below all.
    return isLive_ || !foundKeyFrame_ || usBehindVideo(*held_.front()) <= 0 ||
           usBehindVideo(*held_.back()) > kVideoOverUs || held_.size() > kMaxHeldPackets;
}

void StreamParser::takeNextVideo() {
    const int number = std::exchange(nextVideoIndex_, -1);
    const auto held = std::exchange(held_, {});
    AVStream* const before = videoStream_;
    const int indexBefore = videoStreamIndex_;
    AVBSFContext* const bsfBefore = std::exchange(bsfContext_, nullptr);
    if (!findStream(number)) {
        bsfContext_ = bsfBefore;
        return;
    }
    // The stream's parameters stay converted, so the filter has to stay with them.
    leftBsfs_[indexBefore].reset(bsfBefore);
    mending_.takeKept();
    if (before) {
        before->discard = AVDISCARD_ALL;
    }
    videoStreamIndex_ = number;
    auto track = std::make_shared<CodecInfo>();
    track->videoCodecType = videoCodecType_;
    track->pixFormat = pixFormat_;
    track->videoParameters = compat::copyParameters(videoStream_);
    videoTrack_ = std::move(track);
    leavesOthersOut_ = true;
    videoEnded_ = false;
    videoReach_ = {};
    readAgain_.forget();
    lastKeyFramePts_ = -1;
    Log::Info(TAG, "track %d is the video now\n", number);
    for (const auto& packet : held) {
        handlePacket(packet.get());
    }
}

void StreamParser::forgetReading() {
    readAgain_.forget();
    soundReadAgain_.forget();
    soundFromMs_ = firstPacketMs_ = lastSoundMs_ = -1;
    videoReach_.lastTicks = audioReach_.lastTicks = -1;
    videoEnded_ = soundEnded_ = false;
    held_.clear();
    if (nextVideoIndex_ >= 0) {
        takeNextVideo();
    }
}

}  // namespace kelp
