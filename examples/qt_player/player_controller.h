#pragma once

#include <QObject>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QWindow>
#include <functional>
#include <memory>
#include <vector>

#include "command_thread.h"
#include "kelp_player/tarn_player.h"
#include "player_events.h"
#include "recording.h"
#include "track_menu.h"

// The player as the GUI sees it: every operation returns at once, every answer comes as a signal on the GUI thread.
//
// Calls of the player may take as long as its threads take to end, so that all of them are made on a command thread, in
// the order in which they were asked for. The player's events come through PlayerEvents; those of a source that was
// left meanwhile are dropped.
class PlayerController : public QObject {
    Q_OBJECT

public:
    enum class State { Idle, Opening, Playing, Paused, Completed, Stopped, Failed };
    Q_ENUM(State)
    // What is known of the part to be repeated.
    enum class Part { None, Begun, Looped };
    Q_ENUM(Part)

    // The duration of a source that doesn't state one, such as a camera, as the player gives it.
    static constexpr int kUnknownDurationMs = 10 * 60 * 60 * 1000;

    explicit PlayerController(QObject* parent = nullptr);
    // Waits for the player's end, unless `shutDown` has been answered before.
    ~PlayerController() override;

    State state() const { return state_; }
    QString source() const { return source_; }
    int durationMs() const { return durationMs_; }
    int timeMs() const { return timeMs_; }
    // Whether there is a position to go to.
    bool isOpen() const;

    // A path or a URL, and one of subtitles that go with it, if any. The answer is `opened` or `failed`; playback
    // begins by itself.
    void open(const QString& source, const QString& subtitles = {});
    // Shows the subtitles of a file with the source that is open, which is opened anew at its position.
    void addSubtitles(const QString& file);
    // Pauses or resumes; starts again what has ended, was stopped, or has failed.
    void togglePlay();
    void stop();
    void seek(int timeMs);
    // Pauses, and shows another picture of those next to the one that is shown.
    void step(int pictures);
    void setVolume(double factor);
    void setMuted(bool muted);
    // The whole film again and again, and those that are opened later.
    void setLooped(bool looped);
    // The first call takes the position for the beginning of a part, the second one for its end, from when on that part
    // is played again and again, the third one ends that, as does another source. The answers are `partChanged`.
    void markPart();
    void setSpeed(double speed);
    // A value of the player's option "audio_device". What plays goes on there; one that can't be had is told by the
    // log.
    void setAudioDevice(const QString& name);
    // The answer is `audioDevicesListed`.
    void listAudioDevices();
    // Records what is played, or will be, into an .mp4, .mov, .mkv or .ts file. The answers are `recordingChanged`.
    void startRecording(const QString& path);
    void stopRecording();
    // Whether `statisticsChanged` is to come, ten times a second while there is a position.
    void watchStatistics(bool watch);
    void setMaster(kelp::SyncMasterMode mode);
    // A source that plays is started again at its position.
    void setHardwareDecoding(bool enabled);
    // Whether windows show the picture in its own shape, as at the start, or are filled by it.
    void setKeepsShape(bool keeps);
    // Plays another track of the source, by the number of its entry. The answer is `tracksChanged`.
    void selectTrack(kelp::TrackKind kind, int number);
    // Writes the picture that is shown into a PNG file.
    void saveSnapshot(const QString& path);
    // 0 for no retry.
    void setRetryInterval(int ms);
    // One of the words of KelpPlayer's option "log_level".
    void setLogLevel(const QString& word);

    // Shows the pictures in a native window, of a size in device pixels; again, when it has got another size. Hidden or
    // not, the window must live until `shutDownDone`.
    void showIn(WId window, QSize size);
    void leave(WId window);

    // Ends the player; no operation may follow.
    void shutDown();

signals:
    void stateChanged(PlayerController::State state);
    void opened(const SourceInfo& info);
    // The tracks of a kind to choose from; none when there is no source.
    void tracksChanged(kelp::TrackKind kind, const std::vector<TrackEntry>& entries);
    void timeChanged(int timeMs);
    void partChanged(PlayerController::Part part);
    void audioDevicesListed(const QStringList& names);
    void recordingChanged(bool isRecording);
    void statisticsChanged(const kelp::Statistics& statistics);
    void durationChanged(int durationMs);
    // The source can't be played: what happened, and why, as far as the log knows.
    void failed(const QString& what, const QString& why);
    // For the status bar.
    void happened(const QString& text);
    // Playback stands for want of data, and so many percent of what it takes are there; then it goes on.
    void stalled(int percent);
    void stallEnded();
    void shutDownDone();

private:
    using PlayerCall = std::function<void(kelp::TarnPlayer& player)>;

    void connectEvents();
    // The player's calls, in order, on the command thread. Without a player nothing is done.
    void command(PlayerCall call);
    void command(int kind, PlayerCall call);
    // Runs `function` on the GUI thread, behind the events that the player has reported by now.
    void report(std::function<void()> function);
    void start(int fromMs);
    void useSubtitles(const QString& file);
    void setState(State state);
    void setPart(Part part);
    void loop();
    void setWantsPause(bool wantsPause);
    void fail(const QString& what, const QString& why);
    // Whether events that arrive now are about the source that was asked for last.
    bool isUpToDate() const { return reportedSource_ == requestedSource_; }
    // On behalf of an event: does nothing if it comes from a source that was left.
    std::function<void()> ifUpToDate(std::function<void()> function);

    // On the command thread.
    void createPlayer();
    void reportNoPlayer();
    void openSource(kelp::TarnPlayer& player, const std::string& source, int number, bool pause);
    int pollTime();
    void reportStatistics();
    void reportTracks(kelp::TarnPlayer& player);

    // GUI thread.
    State state_ = State::Idle;
    QString source_;
    QString subtitles_;  // a file beside it; empty for none
    bool wantsPause_ = false;
    bool isLooped_ = false;
    Part part_ = Part::None;
    int partStartMs_ = 0;
    int partEndMs_ = 0;
    int requestedSource_ = 0;  // counts what was asked to be opened
    int reportedSource_ = 0;   // which of these the events are about
    int requestedSeek_ = 0;    // counts seeks, so that positions from before one don't come behind it
    int startAtMs_ = 0;        // where to go when playback begins
    int timeMs_ = 0;
    int durationMs_ = 0;

    // Command thread.
    kelp::TarnPlayer* player_ = nullptr;
    bool hasSource_ = false;
    bool polls_ = false;
    bool watchesStatistics_ = false;
    int polledSeek_ = 0;
    int polledSource_ = 0;

    Recording recording_;
    PlayerEvents events_;
    std::unique_ptr<CommandThread> commands_;  // uses all of the above
};
