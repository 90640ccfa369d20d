#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kelp_player/export.h"
#include "kelp_player/kelp_player.h"
#include "kelp_player/statistics.h"
#include "kelp_player/tracks.h"
#include "kelp_player/types.h"

namespace kelp {

class CurrentSource;
class InnerPlayerObserver;
class KelpSyncClock;
class RetryPace;

// Where a TarnPlayer is. Single bits, so that several states are one mask; the error state is none of them.
// A host meets the numbers in the log.
enum PlayerStates : int32_t {
    PLAYER_STATE_ERROR = 0,        // a failure was reported, or a call into the engine failed
    PLAYER_STATE_IDLE = 1,         // no data source; at first, and after `reset`
    PLAYER_STATE_INITIALIZED = 2,  // a data source is set
    PLAYER_STATE_PREPARING = 4,    // the source is being opened
    PLAYER_STATE_PREPARED = 8,     // it is open and not playing
    PLAYER_STATE_STARTED = 16,
    PLAYER_STATE_PAUSED = 32,
    PLAYER_STATE_STOPPED = 64,
    PLAYER_STATE_COMPLETED = 128,  // played to its end
};

// What `TarnPlayer::getPlayDetailInfo` is asked for.
using TarnPlayerInfoType = KelpPlayerInfoType;

// Takes the events of one TarnPlayer. The host implements it and owns the object, which must live until the player was
// destroyed.
//
// All operations are called on the player's worker thread, one at a time and in order, with no lock held: the host may
// call any operation of the player from here but `destroy`. Times are milliseconds on the host's clock, that is, with
// the offset of `setDataSource` added.
class TarnPlayerObserver {
public:
    // The size of the pictures before they are turned, in pixels, and their clockwise rotation in degrees, at first and
    // whenever they change.
    virtual void onVideoSizeUpdated(int width, int height, int rotate) = 0;

    // The source is open and has these streams. The time for `start`, if that was not asked for already.
    virtual void onPrepared(bool hasVideo, bool hasAudio) = 0;

    // Playback began, after `start` or by itself after a failure.
    virtual void onStarted() = 0;

    // The player has failed for good: 0 playing could not be started, 1 the source failed, 2 the video decoder failed.
    // Failures that the player mends by itself are not told. The log's last error line says why, and
    // KelpPlayerObserver::onFailed and KelpPlayer::play explain each. On from here: `stop` and `prepareAsync` for the
    // same source, `stop`, `reset` and `setDataSource` for another one. What plays, plays on until then.
    virtual void onFailed(int errorType) = 0;

    // The first picture, and the first sound, at the start and after a seek, see KelpPlayerObserver.
    virtual void onFirstVideoFrame(int ptsMs) = 0;
    virtual void onFirstAudioFrame(int ptsMs) = 0;

    // The source has been played to its end, though the last of the sound may be heard a moment later.
    virtual void onCompleted() = 0;

    // The source has turned out to have another duration than it stated, see KelpPlayerObserver.
    virtual void onDurationUpdated(int durationMs) = 0;

protected:
    // Not virtual: players never destroy it.
    ~TarnPlayerObserver() = default;
};

// A player for hosts that would rather not watch the order of things: calls are checked against a state, start and
// pause may be asked for before the source is ready, a stream that fails is restarted if the host wants that, hardware
// decoding that fails gives way to software, and all times are on the host's clock.
//
//     auto* player = TarnPlayer::create();
//     player->setOption("preset", "recommended");
//     player->setOption("retry_when_failed", "2000");
//     player->addWindow(handle, WINDOW_TYPE_QT_WINID, 1280, 720);
//     player->setDataSource("rtsp://camera/stream", 0, observer);
//     player->prepareAsync();           // and player->start() from observer->onPrepared()
//     ...
//     player->stop();
//     TarnPlayer::destroy(player);
//
// Any thread may call any operation, also from a callback; a lock serialises them. An operation in a state that it
// doesn't fit is refused with its failure result and an error line in the log, and changes nothing:
// [TarnPlayer] "seek, error state:2", with the operation and the number of the state, see PlayerStates; `setVolume`
// without the line.
//
// An ExternFrameSink and a KelpSyncClock may call `getTracks`, `getStatistics`, `takeSnapshot`, `runInWorker`,
// `addTimer` and `removeTimer` alone: they run on threads of the player, which another thread's `stop` waits for under
// the lock. A log callback may call nothing.
class KELP_PLAYER_API TarnPlayer {
public:
    // Makes a player in the idle state. The caller owns it. Null if SDL can't be started, see KelpPlayer::init; the
    // log's last lines are then [KelpPlayer] "Could not initialize SDL - REASON", a hint, and [TarnPlayer] "create, the
    // engine can't be started". Without memory, or a thread to be had, null, `std::bad_alloc` or `std::system_error`.
    static TarnPlayer* create();

    // Ends a player; null is allowed. What still plays is stopped. Not to be called from a callback. No call to the
    // host follows, nor to its clock and frame sinks.
    static void destroy(TarnPlayer* player);

    // Sets the source, a path or URL. `offsetToClockMs` is where the stream's zero lies on the host's clock: it is
    // added to every time that the player gives out and taken off every time that it takes. Below 0 the stream starts
    // at that much after its beginning. Idle only; false in another state, and for a null `url`.
    bool setDataSource(const char* url, int offsetToClockMs, TarnPlayerObserver* observer);

    // Opens the source. The answer is onPrepared or onFailed. Initialized or stopped only. False also for an empty
    // `url`, in which case no answer comes: `stop`, `reset` and `setDataSource` then.
    bool prepareAsync();

    // Plays. While the source is being prepared the request is kept and carried out when it is ready. Prepared or
    // preparing only, so that right after `prepareAsync` it is refused if the source has failed by then, also where a
    // retry is due: from within `onPrepared` it never comes too early or too late. False if playing can't be started,
    // for what KelpPlayer::play says; the state is then the error state. A request that was kept and can't be carried
    // out comes as onFailed(0). It is kept over a `stop`, but not over a `reset`.
    bool start();

    // Pause and resume. Out of playback they are kept, or taken back, for the next start that was asked for before the
    // source was ready, also over a `stop` and a `reset`.
    bool pause();
    bool resume();

    // Goes to `timeMs` on the host's clock; before the stream's zero that clears the screen and goes to the beginning.
    // With the option "seek" = "exact" to the picture that holds that time, see KelpPlayer::seek. From the completed
    // state playback begins again. Prepared, started, paused or completed only; false also if the source can't seek.
    bool seek(int timeMs);

    // Shows another picture of those next to the one that is shown, see KelpPlayer. Paused only.
    bool stepFrame(int pictures);

    // Plays from `startMs` to right before `endMs` on the host's clock again and again, and no more, see KelpPlayer; in
    // any state, and over a restart, a `stop` and a `reset`.
    bool setLoop(int startMs = 0, int endMs = std::numeric_limits<int>::max());
    void clearLoop();

    // Ends playback and gives up a restart that is due. False when there is nothing to stop: idle or initialized.
    bool stop();

    // Forgets the source, so that another one can be set. Doesn't end playback: `stop` comes first, or else it ends
    // when the next source is opened. Always true.
    bool reset();

    // The position and the duration in milliseconds on the host's clock; stopped, the offset. Idle, initialized,
    // preparing and in the error state they are 0, and each call writes an error line: a host that polls does so
    // between `onPrepared` and the playback's end.
    int getCurrentTime();
    int getDuration();

    // One fact of the source: see KelpPlayerInfoType. The duration is on the host's clock: the offset where there is
    // none.
    int64_t getPlayDetailInfo(TarnPlayerInfoType type);

    // All tracks of the source, see KelpPlayer; in any state, and empty while none is prepared. Doesn't take the lock.
    std::vector<Track> getTracks();

    // How the playback goes, see KelpPlayer; in any state, and with the restarts of the player. Doesn't take the lock.
    Statistics getStatistics();

    // Writes the picture that is shown into a PNG file, see KelpPlayer; also the one that stands while a source is
    // started again. Doesn't take the lock.
    bool takeSnapshot(const char* path);

    // Plays another track, see KelpPlayer. Started, paused or completed only. A restart keeps it, as if the option
    // "video_track", "audio_track" or "subtitle_track" had been set, which stays for the next source too.
    bool selectTrack(TrackKind kind, int number);

    // The volume, see KelpPlayer; 1.0 again after each start, and after each restart, which keeps it only if the option
    // "closed_live_source" is "failed". Started, paused or completed only, and false as there.
    bool setVolume(float volume);

    // Silence and back, see KelpPlayer; in any state, and over a restart, a `stop` and a `reset`.
    void setMute(bool muted);
    bool isMuted();

    // The names of the sound devices, see KelpPlayer.
    static std::vector<std::string> getAudioDevices();

    // The tempo of the sound, see KelpPlayer, at any time.
    void setSpeed(float speed);

    // Windows, as KelpPlayer has them, at any time. Sizes are pixels.
    bool addWindow(void* handle, WindowType type, int width, int height);
    bool removeWindow(void* handle);
    bool pauseWindow(void* handle, bool pause);

    // Hardware decoding from the next start on; on, with all modes, at first. A decoder that fails turns it off for
    // good, until this is called again.
    void enableHwDecoder(bool enable, HwDecodeMode mode);

    // Whose clock the streams follow; SYNC_MASTER_CLOCK at first, which without a clock of the host's is for the first
    // playback only: see KelpPlayer::setAVSyncMode.
    void setAVSyncMode(SyncMasterMode mode);

    // A clock of the host's to follow, or null for the player's own. Not owned: take it back before it goes, after
    // `stop` too, as the next playback follows it again. A clock that was replaced isn't read any more once this has
    // returned, which takes a second at most: see KelpPlayer::setExternSyncClock. Other calls don't wait meanwhile.
    void setSyncClock(KelpSyncClock* clock);

    // Who gets the packets as they are read, see KelpPlayer::setPacketSink; in any state. It stays over a restart,
    // which begins with `onStreams`. Doesn't take the lock.
    void setPacketSink(ExternPacketSink* sink);

    // Who hears when playback stands for want of data, see KelpPlayer::setStallObserver; in any state. It stays over
    // restarts, and must live until `destroy` has returned, or as said there. Doesn't take the lock.
    void setStallObserver(StallObserver* observer);

    // Who gets the subtitles that are shown, see KelpPlayer::setSubtitleSink; in any state, and over a restart. Doesn't
    // take the lock.
    void setSubtitleSink(ExternSubtitleSink* sink);

    // Changes the offset of `setDataSource` during playback and seeks to where the clock is on the stream. For one
    // control thread. True, and nothing is done, if it is the offset already. False if no clock is set: the calls then
    // take the new value, the events keep the old one.
    bool setOffsetToClockMs(int offsetMs);

    // "retry_when_failed": milliseconds from a failure of the stream to its restart; 0, the default, for none. It is
    // restarted, in the state that it was in, as often as it fails, until `stop` or `reset`. A live source whose server
    // closes the connection is completed and hasn't failed, unless "closed_live_source" is "failed", with which the
    // restarts also come less and less often; one whose server falls silent fails only with "timeout" or
    // "listen_timeout". All other keys as in KelpPlayer; they stay over a restart, a `stop` and a `reset`.
    void setOption(const char* key, const char* value);

    // Callables and timers on the player's worker thread, in the order of its events; see KelpPlayer.
    void runInWorker(std::function<void()> function);
    unsigned int addTimer(unsigned int intervalMs, bool oneShot, std::function<void()> function);
    void removeTimer(unsigned int timerId);

private:
    friend class InnerPlayerObserver;

    TarnPlayer();
    virtual ~TarnPlayer();

    // Whether the state is one of `states`; if not, the log says so for `operation`. mutex_ is held.
    bool isIn(int states, const char* operation) const;
    // Has the engine open the source, from `seekTimeMs` on, and end what it still plays. mutex_ is held, as in the next
    // three and armRetry.
    bool load(int seekTimeMs);
    // Has the engine end playback.
    bool unload();
    // Starts what is ready and tells the host on the worker thread. False if it can't be started.
    bool play(int offsetMs);
    bool pauseNow();

    // Arms the timer that restarts the source in `oldState`.
    void armRetry(PlayerStates oldState);
    // What that timer does.
    void retry(PlayerStates oldState, unsigned int plan, unsigned int number);
    // Restarts the source on the worker thread and brings it back to `state`, unless the host acts on it before.
    void restartWithOldState(PlayerStates state, unsigned int plan);
    void restart(PlayerStates state, unsigned int plan);

    std::shared_ptr<KelpPlayer> player_;
    std::shared_ptr<InnerPlayerObserver> innerObserver_;
    std::string dataSource_;                              // guarded by mutex_, like all below that isn't atomic
    std::atomic<int32_t> offsetToClockMs_{0};             // the stream's zero on the host's clock
    std::atomic<TarnPlayerObserver*> observer_{nullptr};  // the host, not owned
    std::mutex mutex_;                                    // also held through calls into player_, never into the host
    PlayerStates state_ = PLAYER_STATE_IDLE;
    bool startRequest_ = false;  // start as soon as prepared
    bool pauseRequest_ = false;  // pause right after that start
    SyncMasterMode syncMasterMode_ = SYNC_MASTER_CLOCK;
    std::atomic<KelpSyncClock*> syncClock_{nullptr};  // not owned
    bool hwDecoderEnabled_ = true;
    int64_t retryIntervalMs_ = 0;  // 0 or less for no retry
    HwDecodeMode hwDecodeMode_ = HW_DECODE_ALL;
    bool engineReady_ = false;               // the engine could be set up; written by the constructor
    std::unique_ptr<CurrentSource> source_;  // what events and restarts are about
    std::unique_ptr<RetryPace> retryPace_;
};

}  // namespace kelp
