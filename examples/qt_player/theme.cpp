#include "theme.h"

#include <QApplication>
#include <QPalette>
#include <QProxyStyle>
#include <QStyleFactory>

namespace {

class Style : public QProxyStyle {
public:
    Style() : QProxyStyle(QStyleFactory::create(QStringLiteral("Fusion"))) {}

    // The standard icons of dialog buttons are made for light colours.
    int styleHint(StyleHint hint, const QStyleOption* option, const QWidget* widget,
                  QStyleHintReturn* data) const override {
        return hint == SH_DialogButtonBox_ButtonsHaveIcons ? 0 : QProxyStyle::styleHint(hint, option, widget, data);
    }
};

}  // namespace

void applyTheme(QApplication& application) {
    QApplication::setStyle(new Style);
    const QColor text(0xdd, 0xe1, 0xe6);
    QPalette palette;
    palette.setColor(QPalette::Window, QColor(0x23, 0x27, 0x2d));
    palette.setColor(QPalette::WindowText, text);
    palette.setColor(QPalette::Base, QColor(0x1a, 0x1d, 0x22));
    palette.setColor(QPalette::AlternateBase, QColor(0x20, 0x24, 0x2a));
    palette.setColor(QPalette::Text, text);
    palette.setColor(QPalette::PlaceholderText, QColor(0x7d, 0x86, 0x92));
    palette.setColor(QPalette::Button, QColor(0x2e, 0x33, 0x3b));
    palette.setColor(QPalette::ButtonText, text);
    palette.setColor(QPalette::BrightText, QColor(0xf4, 0xf6, 0xf8));
    palette.setColor(QPalette::ToolTipBase, QColor(0x11, 0x13, 0x16));
    palette.setColor(QPalette::ToolTipText, text);
    palette.setColor(QPalette::Light, QColor(0x4a, 0x52, 0x5d));
    palette.setColor(QPalette::Midlight, QColor(0x5a, 0x64, 0x71));
    palette.setColor(QPalette::Mid, QColor(0x3c, 0x43, 0x4d));
    palette.setColor(QPalette::Dark, QColor(0x16, 0x19, 0x1d));
    palette.setColor(QPalette::Shadow, QColor(0x0c, 0x0e, 0x10));
    palette.setColor(QPalette::Highlight, QColor(0x2f, 0x9e, 0x8f));
    palette.setColor(QPalette::HighlightedText, QColor(0xff, 0xff, 0xff));
    palette.setColor(QPalette::Link, QColor(0x4f, 0xc3, 0xb4));
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText}) {
        palette.setColor(QPalette::Disabled, role, QColor(0x6b, 0x73, 0x7e));
    }
    QApplication::setPalette(palette);
    application.setStyleSheet(
        QStringLiteral("QToolTip { color: #dde1e6; background: #111316; border: 1px solid #4a525d; padding: 2px; }"
                       "QToolButton { border: none; border-radius: 4px; padding: 5px; }"
                       "QToolButton:hover { background: #3c434d; }"
                       "QToolButton:pressed, QToolButton:checked { background: #2f5f5a; }"
                       "QToolBar { border: none; spacing: 6px; padding: 4px; }"
                       "QLineEdit { border: 1px solid #3c434d; border-radius: 4px; padding: 4px 8px; }"
                       "QLineEdit:focus { border-color: #2f9e8f; }"
                       "QMainWindow::separator { width: 1px; height: 1px; background: #16191d; }"));
}
