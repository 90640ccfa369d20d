#include <algorithm>
#include <utility>

#include "kelp_player/log.h"
#include "playtask/play_task.h"
#include "subtitle/subtitle_file.h"

// The tracks of the source: which there are, and the change to another one.

namespace kelp {

std::vector<Track> PlayTask::getTracks() {
    const auto streamInfo = streamInfo_.load();
    auto tracks = streamInfo ? streamInfo->tracks : std::vector<Track>();
    const int subtitle = subtitles_->chosen();
    for (Track& track : tracks) {
        if (track.kind == TRACK_KIND_SUBTITLE) {
            track.isPlayed = track.number == subtitle;
        } else if (track.kind != TRACK_KIND_OTHER) {
            track.isPlayed = selectedTracks_.isPlayed(track);
        }
    }
    return tracks;
}

// A request that is on its way reaches the parser before it is closed, as a seek does.
bool PlayTask::selectTrack(TrackKind kind, int number) {
    std::lock_guard lock(seekRunMutex_);
    if (const char* const obstacle = obstacleTo(kind, number)) {
        Log::Error(kTag, "selectTrack, kind:%d, number:%d, %s\n", kind, number, obstacle);
        return false;
    }
    if (kind == TRACK_KIND_SUBTITLE) {
        selectSubtitle(number);
        return true;
    }
    selectedTracks_.select(kind, number);
    streamParser_->selectTrack(kind, number);
    return true;
}

const char* PlayTask::obstacleTo(TrackKind kind, int number) {
    const auto streamInfo = streamInfo_.load();
    const auto codecInfo = codecInfo_.load();
    if (!isRead_ || !streamInfo || !codecInfo) {
        return "nothing is played";
    }
    const bool isVideo = kind == TRACK_KIND_VIDEO;
    const bool isSubtitle = kind == TRACK_KIND_SUBTITLE;
    if (!isVideo && !isSubtitle && kind != TRACK_KIND_AUDIO) {
        return "only video, sound and subtitles can be changed";
    }
    if (isSubtitle && number == SubtitleTracks::kNone) {
        return nullptr;
    }
    // Subtitles need no place of their own.
    if (!isSubtitle && (isVideo ? !videoPlayThread_.load() : !audioPlayThread_.load())) {
        return "no track of this kind is played";
    }
    const auto track = std::ranges::find(streamInfo->tracks, number, &Track::number);
    if (track == streamInfo->tracks.end() || track->kind != kind) {
        return "there is no such track";
    }
    if (!track->isPlayable || track->isAttachedPicture) {
        return "it can't be played";
    }
    if (isVideo && codecInfo->videoCodecType == VIDEO_CODEC_270) {
        return "the video that is played isn't decoded";
    }
    return nullptr;
}

void PlayTask::chooseSubtitle(const PlaybackOptions& options, StreamInfo& streamInfo) {
    auto& tracks = streamInfo.tracks;
    const int firstOfFile = static_cast<int>(tracks.size());
    const bool hasFile = !options.subtitleFile.empty();
    if (hasFile) {
        auto file = SubtitleFile::read(options.subtitleFile, streamParser_->options(), firstOfFile,
                                       [this] { return isStopping(); });
        for (auto& [track, known] : file.entries) {
            if (known) {
                subtitles_->add(track.number, std::move(known));
            }
            tracks.push_back(std::move(track));
        }
    }
    // Of the source's own the parser has taken one, or said why not.
    int chosen = SubtitleTracks::kNone;
    const int wanted = options.subtitleTrack;
    for (const Track& track : tracks) {
        const bool isOfFile = wanted != PlaybackOptions::kNoTrack && subtitles_->isWhole(track.number);
        if (track.kind == TRACK_KIND_SUBTITLE &&
            (track.isPlayed || (isOfFile && (chosen == SubtitleTracks::kNone || track.number == wanted)))) {
            chosen = track.number;
        }
    }
    if (hasFile && wanted >= firstOfFile && chosen != wanted) {
        Log::Warn(kTag, "%s %d is none that can be played, taking auto\n", "subtitle_track", wanted);
    }
    if (chosen != SubtitleTracks::kNone) {
        subtitles_->choose(chosen);
    }
}

void PlayTask::selectSubtitle(int number) {
    subtitles_->choose(number);
    streamParser_->selectTrack(TRACK_KIND_SUBTITLE, subtitles_->isWhole(number) ? SubtitleTracks::kNone : number);
    if (number != SubtitleTracks::kNone) {
        subtitleScreen_->begin();
    }
}

int64_t PlayTask::audibleTimeMs() {
    if (const auto target = seekTurns_.target()) {
        return *target;
    }
    return heardMs();
}

}  // namespace kelp
