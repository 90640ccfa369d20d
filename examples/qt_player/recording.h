#pragma once

#include <QObject>
#include <QString>
#include <string>

#include "kelp_player/recorder.h"
#include "kelp_player/tarn_player.h"

// A recording of what is played, as it is read. `start` and `stop` are for one thread, which may wait; the signals come
// from that and from the recorder's.
class Recording : public QObject, private kelp::RecorderObserver {
    Q_OBJECT

public:
    void start(kelp::TarnPlayer& player, const std::string& path);
    // Does nothing if there is none.
    void stop(kelp::TarnPlayer& player);

signals:
    void changed(bool isRecording);
    // For the user.
    void happened(const QString& text);

private:
    void onFileEnded(const std::string& path, int64_t durationMs) override;
    void onPacketsLost(int packets) override;
    void onRecordingFailed(const std::string& path, const std::string& reason) override;

    kelp::Recorder recorder_{this};
};
