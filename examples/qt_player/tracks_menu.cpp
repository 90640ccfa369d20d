#include "tracks_menu.h"

#include "next_action.h"

TracksMenu::TracksMenu(const QString& title, kelp::TrackKind kind, QWidget* parent)
    : QMenu(title, parent), kind_(kind), group_(new QActionGroup(this)) {
    setEnabled(false);
    connect(group_, &QActionGroup::triggered, this,
            [this](const QAction* action) { emit chosen(kind_, action->data().toInt()); });
}

void TracksMenu::showTracks(kelp::TrackKind kind, const std::vector<TrackEntry>& entries) {
    if (kind != kind_) {
        return;
    }
    clear();
    for (const TrackEntry& entry : entries) {
        QAction* const action = addAction(QString::fromStdString(entry.label).replace('&', QLatin1String("&&")));
        action->setCheckable(true);
        action->setChecked(entry.isChecked);
        action->setData(entry.number);
        group_->addAction(action);
    }
    setEnabled(!entries.empty());
}

void TracksMenu::chooseNext() {
    triggerNext(*group_);
}
