#include "options_panel.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QLabel>
#include <QSpinBox>

namespace {

constexpr int kMaxRetryMs = 60000;
constexpr int kRetryStepMs = 500;

QLabel* makeNote(const QString& text) {
    auto* const note = new QLabel(text);
    note->setWordWrap(true);
    note->setForegroundRole(QPalette::PlaceholderText);
    return note;
}

}  // namespace

OptionsPanel::OptionsPanel(QWidget* parent)
    : QWidget(parent), master_(new QComboBox), hardware_(new QCheckBox(tr("Hardware decoding"))), retry_(new QSpinBox) {
    master_->setObjectName(QStringLiteral("master"));
    master_->addItem(tr("Sound"), kelp::SYNC_MASTER_AUDIO);
    master_->addItem(tr("Picture"), kelp::SYNC_MASTER_VIDEO);
    master_->addItem(tr("Clock"), kelp::SYNC_MASTER_CLOCK);
    hardware_->setObjectName(QStringLiteral("hardware"));
    hardware_->setChecked(true);
    retry_->setObjectName(QStringLiteral("retry"));
    retry_->setRange(0, kMaxRetryMs);
    retry_->setSingleStep(kRetryStepMs);
    retry_->setSuffix(tr(" ms"));
    retry_->setSpecialValueText(tr("never"));

    auto* const layout = new QFormLayout(this);
    layout->setContentsMargins(12, 12, 12, 12);
    layout->setVerticalSpacing(8);
    layout->addRow(tr("Master"), master_);
    layout->addRow(
        makeNote(tr("What the other streams are held to. At another speed than 1 the pictures follow the "
                    "sound only.")));
    layout->addRow(tr("Retry"), retry_);
    layout->addRow(makeNote(tr("How long after a failure a source, such as a camera, is started again.")));
    layout->addRow(hardware_);
    layout->addRow(makeNote(tr("Where there is none, decoding is done in software.")));

    connect(master_, &QComboBox::currentIndexChanged, this, &OptionsPanel::sendMaster);
    connect(hardware_, &QCheckBox::toggled, this, &OptionsPanel::hardwareDecodingChanged);
    connect(retry_, &QSpinBox::valueChanged, this, &OptionsPanel::sendRetryInterval);
}

void OptionsPanel::announce() {
    sendMaster();
    emit hardwareDecodingChanged(hardware_->isChecked());
    sendRetryInterval();
}

void OptionsPanel::sendMaster() {
    emit masterChanged(static_cast<kelp::SyncMasterMode>(master_->currentData().toInt()));
}

void OptionsPanel::sendRetryInterval() {
    emit retryIntervalChanged(retry_->value());
}
