#include "player_controller.h"

// The choice among a source's tracks, and subtitles that come beside it.

void PlayerController::selectTrack(kelp::TrackKind kind, int number) {
    command([this, kind, number](kelp::TarnPlayer& player) {
        if (!player.selectTrack(kind, number)) {
            report(ifUpToDate([this] { emit happened(tr("This track can't be played")); }));
        }
        reportTracks(player);
    });
}

// A track that was chosen for another source would be chosen again.
void PlayerController::useSubtitles(const QString& file) {
    subtitles_ = file;
    if (!file.isEmpty()) {
        command([](kelp::TarnPlayer& player) { player.setOption("subtitle_track", "auto"); });
    }
}

// They are read with the film, which goes on where it is.
void PlayerController::addSubtitles(const QString& file) {
    if (state_ == State::Idle) {
        emit happened(tr("These are subtitles: open a film first"));
        return;
    }
    useSubtitles(file);
    if (isOpen() || state_ == State::Opening) {
        start(durationMs_ < kUnknownDurationMs && isOpen() ? timeMs_ : startAtMs_);
    }
}

void PlayerController::reportTracks(kelp::TarnPlayer& player) {
    for (const kelp::TrackKind kind : {kelp::TRACK_KIND_VIDEO, kelp::TRACK_KIND_AUDIO, kelp::TRACK_KIND_SUBTITLE}) {
        report(ifUpToDate([this, kind, entries = trackMenu(player, kind)] { emit tracksChanged(kind, entries); }));
    }
}
