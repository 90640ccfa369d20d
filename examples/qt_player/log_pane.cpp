#include "log_pane.h"

#include <QComboBox>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QVBoxLayout>

namespace {

constexpr int kMaxLines = 2000;

QColor colorOf(const QString& line, const QPalette& palette) {
    if (line.contains(QLatin1String("(ERROR)")) || line.contains(QLatin1String("(FATAL)"))) {
        return {0xff, 0x7b, 0x72};
    }
    if (line.contains(QLatin1String("(WARN)"))) {
        return {0xe3, 0xb3, 0x41};
    }
    if (line.contains(QLatin1String("(DEBUG)"))) {
        return palette.color(QPalette::PlaceholderText);
    }
    return palette.color(QPalette::Text);
}

}  // namespace

LogPane::LogPane(QWidget* parent) : QWidget(parent), text_(new QPlainTextEdit), level_(new QComboBox) {
    text_->setObjectName(QStringLiteral("logText"));
    text_->setReadOnly(true);
    text_->setMaximumBlockCount(kMaxLines);
    text_->setLineWrapMode(QPlainTextEdit::NoWrap);
    text_->setFrameShape(QFrame::NoFrame);
    text_->setFocusPolicy(Qt::ClickFocus);
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setPointSizeF(font.pointSizeF() * 0.9);
    text_->setFont(font);

    level_->setObjectName(QStringLiteral("logLevel"));
    level_->addItems(
        {QStringLiteral("error"), QStringLiteral("warning"), QStringLiteral("info"), QStringLiteral("debug")});
    level_->setCurrentText(QStringLiteral("info"));
    level_->setFocusPolicy(Qt::ClickFocus);
    auto* const clear = new QPushButton(tr("Clear"));
    clear->setFocusPolicy(Qt::NoFocus);

    auto* const side = new QVBoxLayout;
    side->addWidget(level_);
    side->addWidget(clear);
    side->addStretch(1);
    auto* const layout = new QHBoxLayout(this);
    layout->setContentsMargins(6, 6, 6, 6);
    layout->addWidget(text_, 1);
    layout->addLayout(side);

    connect(clear, &QPushButton::clicked, text_, &QPlainTextEdit::clear);
    connect(level_, &QComboBox::currentTextChanged, this, &LogPane::levelChanged);
}

void LogPane::addLines(const QStringList& lines) {
    QScrollBar* const bar = text_->verticalScrollBar();
    const bool atEnd = bar->value() == bar->maximum();
    QTextCursor cursor(text_->document());
    cursor.movePosition(QTextCursor::End);
    cursor.beginEditBlock();
    for (const QString& line : lines) {
        QTextCharFormat format;
        format.setForeground(colorOf(line, palette()));
        if (!text_->document()->isEmpty()) {
            cursor.insertBlock();
        }
        cursor.insertText(line, format);
    }
    cursor.endEditBlock();
    if (atEnd) {
        bar->setValue(bar->maximum());
    }
}
