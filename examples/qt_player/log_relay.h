#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

// [embed] The log, from any thread to a signal
//
// The library's log as a signal on the GUI thread. Lines come from any thread of any player, within the log's own lock:
// they are only put down there, and the GUI is told once for as many as have come meanwhile.
//
// One at a time.
class LogRelay : public QObject {
    Q_OBJECT

public:
    explicit LogRelay(QObject* parent = nullptr);
    ~LogRelay() override;

    // The text of the last error line since `forgetErrors`; empty if there was none. From any thread.
    static QString lastError();
    static void forgetErrors();

signals:
    // Without line feeds and terminal colours.
    void linesWritten(const QStringList& lines);

private:
    void deliver();
};
// [embed end]
