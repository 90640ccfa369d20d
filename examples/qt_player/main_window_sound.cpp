#include <QDateTime>
#include <QDockWidget>
#include <QFileDialog>
#include <QFileInfo>
#include <QMenu>

#include "control_bar.h"
#include "devices_menu.h"
#include "icons.h"
#include "main_window.h"
#include "statistics_panel.h"

// The menu of the sound devices, the record button, and the panel of the last minute.

void MainWindow::addSoundDevices(QMenu* menu) {
    auto* const devices = new DevicesMenu(tr("Sound d&evice"), this);
    devices->setObjectName(QStringLiteral("soundDevices"));
    menu->addMenu(devices);
    connect(addKey(tr("Sound device: the next one"), Qt::Key_D), &QAction::triggered, devices,
            &DevicesMenu::chooseNext);
    connect(devices, &QMenu::aboutToShow, &player_, &PlayerController::listAudioDevices);
    connect(devices, &DevicesMenu::chosen, &player_, &PlayerController::setAudioDevice);
    connect(&player_, &PlayerController::audioDevicesListed, devices, &DevicesMenu::showDevices);
    player_.listAudioDevices();
}

void MainWindow::addRecording(QMenu* menu) {
    QAction* const record = makeAction(menu, tr("&Record"), {Qt::Key_R}, [] {});
    record->setObjectName(QStringLiteral("record"));
    record->setCheckable(true);
    record->setIcon(signIcon(Sign::Record, QColor(0xe0, 0x50, 0x50)));
    connect(record, &QAction::triggered, this, [this, record](bool wanted) {
        if (wanted) {
            record->setChecked(false);  // until it runs
            chooseRecording();
        } else {
            player_.stopRecording();
        }
    });
    connect(&player_, &PlayerController::recordingChanged, record, &QAction::setChecked);
    controls_->addButton(record);
}

void MainWindow::chooseRecording() {
    auto* const dialog = new QFileDialog(this, tr("Record what is played"), folder_);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setAcceptMode(QFileDialog::AcceptSave);
    dialog->setFileMode(QFileDialog::AnyFile);
    dialog->setNameFilter(tr("Films (*.mkv *.mp4 *.mov *.ts)"));
    dialog->setDefaultSuffix(QStringLiteral("mkv"));
    dialog->selectFile(QFileInfo(player_.source()).completeBaseName() + QStringLiteral("-recorded.mkv"));
    connect(dialog, &QFileDialog::fileSelected, &player_, &PlayerController::startRecording);
    dialog->open();
}

void MainWindow::connectStatistics() {
    connect(statistics_, &StatisticsPanel::shownOrHidden, &player_, &PlayerController::watchStatistics);
    connect(&player_, &PlayerController::statisticsChanged, statistics_, [this](const kelp::Statistics& statistics) {
        statistics_->add(QDateTime::currentMSecsSinceEpoch(), statistics);
    });
    connect(&player_, &PlayerController::opened, statistics_, [this] { statistics_->clear(); });
}
