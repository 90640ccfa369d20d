#include "playtask/play_task.h"
#include "runtime/kelp_time.h"

// What the stages count, put together. Nobody waits for it: each figure is an atomic, and the stages are found as by
// every other command.

namespace kelp {

namespace {

QueueStatistics read(const QueueLevel& level) {
    return {level.count(), level.durationMs()};
}

void fill(ReadStatistics& target, const Track& track, const ReadCounts& counts) {
    target.track = track.number;
    target.codec = track.codec;
    target.packets = counts.packets.read();
    target.bytes = counts.bytes.read();
    target.bitRate = 8 * counts.lastSecond.read(KelpTime::getTimeMs());
}

// Of a decode thread.
template <class Target, class DecodeThread>
void fill(Target& target, const DecodeThread& thread) {
    target.queue = read(thread.level());
    target.decoder = thread.counts().decoder.load(std::memory_order_relaxed);
    target.isHardware = thread.counts().isHardware.load(std::memory_order_relaxed);
    target.decoded = thread.counts().frames.read();
}

void fill(VideoStatistics& target, const VideoPlayThread& thread) {
    target.pictures = read(thread.level());
    target.shown = thread.counts().shown.read();
    target.late += thread.counts().late.read();
    target.repeated = thread.counts().repeated.read();
    target.aheadOfMasterMs = thread.counts().aheadOfMasterMs.read();
}

void fill(AudioStatistics& target, const AudioPlayThread& thread) {
    target.sound = read(thread.level());
    target.blocks = thread.counts().blocks.read();
    target.underruns = thread.counts().underruns.read();
    target.output = static_cast<SoundOutput>(thread.counts().output.read());
    target.aheadOfMasterMs = thread.counts().aheadOfMasterMs.read();
}

}  // namespace

Statistics PlayTask::getStatistics() {
    Statistics statistics;
    statistics.lastFailure = lastFailure_;
    const auto streamInfo = streamInfo_.load();
    if (!streamInfo) {
        return statistics;
    }
    if (const Track* const track = selectedTracks_.played(streamInfo->tracks, TRACK_KIND_VIDEO)) {
        fill(statistics.video, *track, streamParser_->counts(TRACK_KIND_VIDEO));
        const PlayDetailInfo detail = getPlayDetailInfo();
        statistics.video.width = detail.width;
        statistics.video.height = detail.height;
        statistics.video.frameRate = track->frameRate;
    }
    if (const Track* const track = selectedTracks_.played(streamInfo->tracks, TRACK_KIND_AUDIO)) {
        fill(statistics.audio, *track, streamParser_->counts(TRACK_KIND_AUDIO));
        statistics.audio.sampleRate = track->sampleRate;
        statistics.audio.channels = track->channels;
    }
    if (const auto thread = videoDecodeThread_.load()) {
        fill(statistics.video, *thread);
        statistics.video.late = thread->counts().late.read();
    } else if (const auto cover = coverDecodeThread_.load()) {
        fill(statistics.video, *cover);
    }
    if (const auto thread = audioDecodeThread_.load()) {
        fill(statistics.audio, *thread);
    }
    if (const auto thread = pictureThread()) {
        fill(statistics.video, *thread);
    }
    if (const auto thread = audioPlayThread_.load()) {
        fill(statistics.audio, *thread);
    }
    statistics.packetSinkMs = static_cast<double>(packets_->busyUs()) / 1000;
    statistics.packetSinkLongestMs = static_cast<double>(packets_->longestUs()) / 1000;
    if (streamInfo->is_live) {
        statistics.liveDelayMs = timestampExtrapolator_->delayMs();
        statistics.liveJitterMs = timestampExtrapolator_->jitterMs();
    }
    return statistics;
}

}  // namespace kelp
