#pragma once

#include <QActionGroup>
#include <QMenu>
#include <QStringList>

// The sound devices, of which one is played on: the system's default one first.
class DevicesMenu : public QMenu {
    Q_OBJECT

public:
    explicit DevicesMenu(const QString& title, QWidget* parent = nullptr);

    void showDevices(const QStringList& names);
    // The entry behind the one that is played, or the first.
    void chooseNext();

signals:
    // A value of the player's option "audio_device".
    void chosen(const QString& name);

private:
    void add(const QString& text, const QString& name);

    QActionGroup* group_ = nullptr;
    QString chosen_ = QStringLiteral("default");
};
