#include <QFile>
#include <algorithm>
#include <string>

#include "player_controller.h"

// Mute, loops, the sound devices, recordings and statistics.

void PlayerController::setMuted(bool muted) {
    command([muted](kelp::TarnPlayer& player) { player.setMute(muted); });
}

void PlayerController::setLooped(bool looped) {
    isLooped_ = looped;
    loop();
}

void PlayerController::markPart() {
    if (part_ == Part::Looped) {
        setPart(Part::None);
    } else if (part_ == Part::None && isOpen()) {
        partStartMs_ = timeMs_;
        setPart(Part::Begun);
    } else if (isOpen() && timeMs_ != partStartMs_) {
        partEndMs_ = std::max(partStartMs_, timeMs_);
        partStartMs_ = std::min(partStartMs_, timeMs_);
        setPart(Part::Looped);
    }
}

void PlayerController::setPart(Part part) {
    if (part_ == part) {
        return;
    }
    const bool isLoopOther = part_ == Part::Looped || part == Part::Looped;
    part_ = part;
    if (isLoopOther) {
        loop();
    }
    emit partChanged(part);
}

void PlayerController::loop() {
    const bool isPart = part_ == Part::Looped;
    command([isPart, isLooped = isLooped_, startMs = partStartMs_, endMs = partEndMs_](kelp::TarnPlayer& player) {
        if (isPart) {
            player.setLoop(startMs, endMs);
        } else if (isLooped) {
            player.setLoop();
        } else {
            player.clearLoop();
        }
    });
}

void PlayerController::setAudioDevice(const QString& name) {
    // Takes as long as the device takes to open.
    command([name = name.toStdString()](kelp::TarnPlayer& player) { player.setOption("audio_device", name.c_str()); });
}

void PlayerController::listAudioDevices() {
    command([this](kelp::TarnPlayer&) {
        QStringList names;
        for (const std::string& name : kelp::TarnPlayer::getAudioDevices()) {
            names.append(QString::fromStdString(name));
        }
        report([this, names] { emit audioDevicesListed(names); });
    });
}

void PlayerController::startRecording(const QString& path) {
    command([this, path = QFile::encodeName(path).toStdString()](kelp::TarnPlayer& player) {
        recording_.start(player, path);
    });
}

void PlayerController::stopRecording() {
    command([this](kelp::TarnPlayer& player) { recording_.stop(player); });
}

void PlayerController::watchStatistics(bool watch) {
    command([this, watch](kelp::TarnPlayer&) { watchesStatistics_ = watch; });
}

void PlayerController::reportStatistics() {
    report(ifUpToDate([this, statistics = player_->getStatistics()] { emit statisticsChanged(statistics); }));
}
