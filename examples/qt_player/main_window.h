#pragma once

#include <QMainWindow>
#include <QPointer>
#include <QTimer>

#include "log_relay.h"
#include "player_controller.h"

class ControlBar;
class LogPane;
class OptionsPanel;
class QAction;
class QDockWidget;
class QLabel;
class QLineEdit;
class QMenu;
class QMessageBox;
class QToolBar;
class SecondWindow;
class StatisticsPanel;
class VideoArea;

// The program's window. It holds the player; closing it ends the player first and then the window.
class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    MainWindow();
    ~MainWindow() override;

    // A path or a URL, and one of subtitles that go with it, if any.
    void open(const QString& source, const QString& subtitles = {});

    PlayerController& player() { return player_; }

signals:
    // The player has ended and the window is closed.
    void closed();

protected:
    void closeEvent(QCloseEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    void makeWidgets();
    void makeActions();
    QAction* makeAction(QMenu* menu, const QString& text, const QList<QKeySequence>& keys, std::function<void()> act);
    QAction* makeSwitch(QMenu* menu, const QString& text, const char* name, Qt::Key key, bool on);
    // One that stands in no menu.
    QAction* addKey(const QString& text, Qt::Key key);
    void addTracks(QMenu* menu, const QString& title, kelp::TrackKind kind, const char* name, Qt::Key key);
    void addSoundDevices(QMenu* menu);
    void addRecording(QMenu* menu);
    void chooseRecording();
    void connectStatistics();
    void connectPlayer();
    void connectPicture(VideoArea* area);
    void showState(PlayerController::State state);
    void showSource(const SourceInfo& info);
    void showFailure(const QString& what, const QString& why);
    void showHint(const QString& title, const QString& text);
    void showPicture(bool shown);
    void chooseFile();
    void chooseSubtitles();
    void chooseSnapshot();
    void openUrl();
    void useSecondWindow(bool shown);
    void setFullScreen(bool fullScreen);
    // In full screen the controls show while the pointer moves.
    void showControlsForAWhile();
    void showKeys();

    LogRelay log_;  // before the player, which logs
    PlayerController player_;
    VideoArea* area_ = nullptr;
    SecondWindow* second_ = nullptr;
    ControlBar* controls_ = nullptr;
    OptionsPanel* options_ = nullptr;
    LogPane* logPane_ = nullptr;
    StatisticsPanel* statistics_ = nullptr;
    QDockWidget* optionsDock_ = nullptr;
    QDockWidget* statisticsDock_ = nullptr;
    QDockWidget* logDock_ = nullptr;
    QToolBar* toolBar_ = nullptr;
    QLineEdit* url_ = nullptr;
    QLabel* sourceLabel_ = nullptr;
    QLabel* stateLabel_ = nullptr;
    QAction* fullScreenAction_ = nullptr;
    QAction* secondAction_ = nullptr;
    QList<QWidget*> hiddenInFullScreen_;  // that were visible when it began
    QTimer hideControls_;
    QPoint pointer_;  // where it was when the controls were shown
    QPointer<QMessageBox> failure_;
    QString folder_;  // of the file opened last
    bool closing_ = false;
    bool closed_ = false;
};
