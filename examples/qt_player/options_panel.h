#pragma once

#include <QWidget>

#include "kelp_player/types.h"

class QCheckBox;
class QComboBox;
class QSpinBox;

// What is chosen once rather than while watching.
class OptionsPanel : public QWidget {
    Q_OBJECT

public:
    explicit OptionsPanel(QWidget* parent = nullptr);

    // Sends every choice once.
    void announce();

signals:
    void masterChanged(kelp::SyncMasterMode mode);
    void hardwareDecodingChanged(bool enabled);
    void retryIntervalChanged(int ms);

private:
    void sendMaster();
    void sendRetryInterval();

    QComboBox* master_;
    QCheckBox* hardware_;
    QSpinBox* retry_;
};
