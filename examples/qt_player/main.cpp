#include <QApplication>
#include <QCommandLineParser>
#include <cstdlib>

#include "machine.h"
#include "main_window.h"
#include "theme.h"

int main(int argc, char** argv) {
    // [embed] Qt and the player's renderer must speak to the same window system, and winId() is an X11 window
    setenv("QT_QPA_PLATFORM", "xcb", /*overwrite=*/0);
    setenv("SDL_VIDEODRIVER", "x11", /*overwrite=*/0);
    chooseSoundDriver();
    // [embed end]
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("qt_player"));
    QApplication::setQuitOnLastWindowClosed(false);
    applyTheme(application);

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Plays files, streams and cameras."));
    parser.addHelpOption();
    parser.addPositionalArgument(QStringLiteral("source"), QStringLiteral("A path or URL to play."),
                                 QStringLiteral("[source]"));
    parser.process(application);

    MainWindow window;
    QObject::connect(&window, &MainWindow::closed, &application, &QApplication::quit);
    window.show();
    if (!parser.positionalArguments().isEmpty()) {
        window.open(parser.positionalArguments().constFirst());
    }
    return QApplication::exec();
}
