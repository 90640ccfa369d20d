#include "recording.h"

#include "log_relay.h"

void Recording::start(kelp::TarnPlayer& player, const std::string& path) {
    stop(player);
    const bool isStarted = recorder_.start(path);
    if (isStarted) {
        player.setPacketSink(&recorder_);
        emit happened(tr("Recording to %1").arg(QString::fromStdString(path)));
    } else {
        emit happened(LogRelay::lastError());
    }
    emit changed(isStarted);
}

void Recording::stop(kelp::TarnPlayer& player) {
    player.setPacketSink(nullptr);
    recorder_.stop();
    emit changed(false);
}

void Recording::onFileEnded(const std::string& path, int64_t durationMs) {
    emit happened(tr("%1 s recorded to %2").arg(static_cast<double>(durationMs) / 1000, 0, 'f', 1).arg(path.c_str()));
}

void Recording::onPacketsLost(int packets) {
    emit happened(tr("The disk is too slow: %1 packets are missing").arg(packets));
}

void Recording::onRecordingFailed(const std::string& path, const std::string& reason) {
    emit happened(tr("%1: %2").arg(path.c_str(), reason.c_str()));
    emit changed(false);
}
