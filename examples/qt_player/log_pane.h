#pragma once

#include <QStringList>
#include <QWidget>

class QComboBox;
class QPlainTextEdit;

// The last lines of the log, and how much is logged.
class LogPane : public QWidget {
    Q_OBJECT

public:
    explicit LogPane(QWidget* parent = nullptr);

    void addLines(const QStringList& lines);

signals:
    // A word of the player's option "log_level".
    void levelChanged(const QString& word);

private:
    QPlainTextEdit* text_;
    QComboBox* level_;
};
