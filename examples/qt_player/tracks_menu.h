#pragma once

#include <QActionGroup>
#include <QMenu>
#include <vector>

#include "kelp_player/tracks.h"
#include "track_menu.h"

// The tracks of one kind, of which one is played.
class TracksMenu : public QMenu {
    Q_OBJECT

public:
    TracksMenu(const QString& title, kelp::TrackKind kind, QWidget* parent);

    // Does nothing for tracks of another kind.
    void showTracks(kelp::TrackKind kind, const std::vector<TrackEntry>& entries);
    // The entry behind the one that is played, or the first.
    void chooseNext();

signals:
    void chosen(kelp::TrackKind kind, int number);

private:
    const kelp::TrackKind kind_;
    QActionGroup* group_ = nullptr;
};
