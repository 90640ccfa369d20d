#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "clock/master_clock.h"
#include "clock/render_timing.h"
#include "clock/sync_object.h"
#include "clock/timestamp_extrapolator.h"
#include "decode/audio_decode_thread.h"
#include "decode/audio_output_spec.h"
#include "decode/video_decode_thread.h"
#include "input/media_packet.h"
#include "input/packet_outlet.h"
#include "input/stream_info.h"
#include "input/stream_parser.h"
#include "kelp_player/codec_info.h"
#include "kelp_player/statistics.h"
#include "kelp_player/tracks.h"
#include "kelp_player/types.h"
#include "playtask/event_type.h"
#include "playtask/host_windows.h"
#include "playtask/play_detail.h"
#include "playtask/playback_stages.h"
#include "playtask/rebuffer.h"
#include "playtask/seek_turns.h"
#include "playtask/selected_tracks.h"
#include "playtask/stall_watch.h"
#include "playtask/wanted_loop.h"
#include "present/audio_play_thread.h"
#include "present/video_play_thread.h"
#include "runtime/atomic_shared_ptr.h"
#include "runtime/playback_options.h"
#include "runtime/worker.h"
#include "subtitle/subtitle_screen.h"
#include "subtitle/subtitle_tracks.h"

namespace kelp {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"  // of the observer interfaces
// Runs one playback: makes and ends its stages, stands between them as the only observer of all, and raises the events
// for the player. It keeps what the host asked for while those don't exist.
//
// Held by a shared pointer. `init` comes once, before all else; `loadFileAsync`, `play` and `stop` come from one
// thread at a time; the other commands from any. The observer operations come on the stages' threads. Every event goes
// through the callback of `init`, on the thread that raises it, possibly with a stage's queue mutex held: the callback
// only posts.
class PlayTask : public PlaybackStages, public std::enable_shared_from_this<PlayTask> {
public:
    using EventCallback = std::function<void(EventType, int, int, int)>;

    virtual ~PlayTask() = default;

    // Makes the parser and what goes with it. Deferred seeks run on `worker`. Throws std::bad_weak_ptr if the task
    // isn't held by a shared pointer.
    void init(EventCallback callback, std::shared_ptr<Worker> worker);

    // Opens `fileName` from `seekTime` milliseconds on, on a thread of its own. The outcome is an event, or nothing if
    // `stop` comes first. False if the name is empty. Not again before `stop`. std::system_error if there is no thread.
    bool loadFileAsync(const std::string& fileName, int seekTime);

    // Builds the stages for what was loaded and starts reading. A branch that fails is left out. std::system_error if a
    // thread can't be started.
    bool play();

    // Ends all threads and forgets the source. What the host has set stays. Always true. std::system_error on the
    // thread of the load.
    bool stop();

    // The same ahead of another load of this source: the last picture stands on the windows, and is served there, until
    // the next playback has one, or a `stop`.
    bool stopForRestart();

    bool pause();
    bool resume();

    // Goes to `seekTimeMs`, by the shortest way that there is; during a seek the request waits until that one has
    // ended, and only the last of those that wait is carried out. False only if the source can't seek.
    bool seek(int seekTimeMs);

    // While paused, shows the picture that lies so many behind the one shown, or before it if negative. False, and a
    // line in the log, if there is no pause, or no way back.
    bool stepFrame(int pictures);

    // Plays from `startMs` to right before `endMs` again and again, in the playbacks to come too. False, and a line in
    // the log, if that can't be.
    bool setLoop(int startMs, int endMs);
    // Plays on to the film's end.
    void clearLoop();

    void setSpeed(float speed);
    bool setVolume(float volume);
    // Silence, whatever the volume is, and back; also for the playbacks to come.
    void setMute(bool muted);
    bool isMuted() const { return isMuted_; }

    // The position in milliseconds; during a seek its target.
    int getCurrentTime();
    int getDuration() { return static_cast<int>(durationMs_); }
    PlayDetailInfo getPlayDetailInfo() { return detail_.read(durationMs_); }
    // From the end of the load to `stop`.
    std::vector<Track> getTracks();
    // A snapshot of what the stages count.
    Statistics getStatistics();
    // Plays another track of a kind that is played. False, and a line in the log says why, if that can't be.
    bool selectTrack(TrackKind kind, int number);

    // The windows survive `stop`.
    bool addWindow(WindowType type, void* handle, int width, int height);
    bool removeWindow(void* handle);
    void updateWindowSize(void* handle, int width, int height);
    bool pauseWindow(void* handle, bool pause);
    void clearScreen();
    // Writes the shown picture into a PNG file. False, with a line in the log, if there is none or that can't be done.
    bool takeSnapshot(const std::string& path);

    // For the next `play`.
    void enableHwDecoder(bool enable, HwDecodeMode mode);

    // A demuxer option, for the opens to come.
    void setOption(const char* key, const char* value);
    // Has `change` alter what the host wants in another way than the standard one; each field says when it is read. A
    // sound device is changed before this returns, or stays what it was if that can't be. One that is `Chosen` is tried
    // again also if the name stays: it may have been missing before.
    enum class SoundDevice { Left, Chosen };
    void changeOptions(const std::function<void(PlaybackOptions&)>& change, SoundDevice device = SoundDevice::Left);

    // The host's sink for what is read, or none; not owned. The one before isn't called any more once this returns, see
    // PacketOutlet. Any thread.
    void setPacketSink(ExternPacketSink* sink) { packets_->waitUntilUncalled(packets_->set(sink)); }

    // The host's sink for subtitles, or none; likewise.
    void setSubtitleSink(ExternSubtitleSink* sink) { subtitleScreen_->setSink(sink); }

    void setSyncMasterMode(SyncMasterMode mode);
    // The clock to follow in place of the master clock; none to return to that.
    void setExternSyncClock(std::shared_ptr<SyncObject> clock);

private:
    friend class PlayTaskPeer;  // lets tests look at the stages and the seek state

    // From the parser, on its thread.
    void onFirstPakcet(std::shared_ptr<MediaPacket> packet) override;
    int onVideoPacket(std::shared_ptr<VideoPacket> packet) override;
    void onSeekStart(int seekTimeMs) override;
    void onSeekCompleted() override;
    void onLoopChanged(int64_t lineMs) override;
    int64_t audibleTimeMs() override;
    int64_t shownTimeMs() override { return getCurrentTime(); }
    void onInputLength(int64_t lengthMs) override { inputLengthMs_ = lengthMs; }
    void onFileEnd(int64_t maxVideoPtsMs, int64_t maxAudioPtsMs) override;
    void onPlaybackCompleted() override;
    void onPlayFailed() override;
    bool isPictureAwaited() override { return videoPlayThread_.load() && (seekTurns_.isFrameAwaited() || hasStepped_); }

    // From the video decode thread; seeks without flush from the thread that runs `seek`.
    void onVideoDecoded(std::shared_ptr<VideoFrameInfo> frame) override;
    void onVideoDecodeFailed() override;
    std::optional<int64_t> onVideoDue() override;
    void onVideoDecodeNoMoreFrame() override;
    void onVideoDecodeSeek(int seekTimeMs, bool flush) override;

    // From the audio decode thread; likewise.
    void onAudioDecoded(std::shared_ptr<AudioFrameInfo> frame) override;
    void onAudioDecodeSeek(int seekTimeMs, bool flush) override;

    // From the play threads, at the very first frame and at the end of each seek, then with their queue mutex held.
    void onFirstVideoFrame(int64_t framePtsMs) override { firstVideoFrame(framePtsMs, SeekTurns::FrameOf::Seek); }
    void onFirstAudioFrame(int64_t framePtsMs) override { firstAudioFrame(framePtsMs, SeekTurns::FrameOf::Seek); }
    void onVeryFirstVideoFrame(int64_t framePtsMs) override { firstVideoFrame(framePtsMs, SeekTurns::FrameOf::Start); }
    void onVeryFirstAudioFrame(int64_t framePtsMs) override { firstAudioFrame(framePtsMs, SeekTurns::FrameOf::Start); }
    void firstVideoFrame(int64_t framePtsMs, SeekTurns::FrameOf of);
    void firstAudioFrame(int64_t framePtsMs, SeekTurns::FrameOf of);
    void onStepped(int64_t pts) override;
    void onStepSeek(int seekTimeMs) override;
    bool isSeekUnderWay() override { return !seekTurns_.isIdle(); }

    void raise(EventType type, int a, int b, int c);

    // The body of the load thread.
    void load(const std::string& fileName, int seekTime, const PlaybackOptions& options);

    // Why the track can't be selected; null if it can. seekRunMutex_ is held.
    const char* obstacleTo(TrackKind kind, int number);
    // Adds the tracks of a second file, and chooses the subtitles that the options ask for, if any.
    void chooseSubtitle(const PlaybackOptions& options, StreamInfo& streamInfo);
    // Shows track `number`, or none; seekRunMutex_ is held.
    void selectSubtitle(int number);

    // What the host wants by now.
    PlaybackOptions options();
    // The same, but what is in force from a load on as it was at this one, and a low delay for a live source alone.
    PlaybackOptions optionsToPlay();

    // Has the sound play on the wanted device, or want `before` again.
    void changeAudioDevice(const std::string& before);

    // Playback stands for a pause or for want of data. The host sees nothing of the latter but by its observer, and
    // its pause holds on behind it. pauseMutex_ is held in all of these but setStalled.
    bool resumeStages();
    bool setPaused(bool paused);
    void setStalled(bool stalled);
    void holdClock(bool held);
    void pauseSource(bool paused);
    void startStallWatch(const StreamInfo& streamInfo);
    DataLevel dataLevel();

    // The parts of `play`.
    void makeClock();
    bool takesOddStreams() const;
    void startAudio(const CodecInfo& codecInfo);
    std::shared_ptr<AudioDecodeThread> startAudioDecode(const CodecInfo& codecInfo);
    // Into the slots of the video, or of the cover.
    void startVideo(const StreamInfo& streamInfo, const CodecInfo& codecInfo);
    std::shared_ptr<VideoDecodeThread> startVideoDecode(const StreamInfo& streamInfo, const CodecInfo& codecInfo);

    // The body of both stops.
    bool end(WindowList::Leaving leaving);
    // The play thread of the video is the one that stands from here on.
    void standPicture();
    // Ends that one, if there is one. Any thread.
    void endStanding(WindowList::Leaving leaving);

    template <class DecodeThread>
    static void stopDecodeThread(AtomicSharedPtr<DecodeThread>& slot);
    template <class PlayThread>
    void stopPlayThread(AtomicSharedPtr<PlayThread>& slot);

    // Does `act` with it, and with the thread that stands.
    void withWindows(const std::function<void(VideoPlayThread&)>& act);

    // Queues the packet for display as it is, as a frame without size.
    void passThrough(const VideoPacket& packet);

    // The running seek, or a playback, has shown its first frame, `framePtsMs`.
    void finishSeek(int64_t framePtsMs, SeekTurns::FrameOf of);

    // The levels of a seek, from the nearest to the farthest place that holds the target; seekRunMutex_ is held.
    bool startSeek(int seekTimeMs);
    // The host is told of its own seeks alone.
    enum class SeekFor { Host, Step, Resume, Loop };
    // Those of Step and Loop are on the line of playback, which is ahead of the film by `shiftMs` there; the others
    // have it begin anew, as the film's time.
    bool startSeek(int seekTimeMs, SeekRule rule, SeekFor seekFor, int64_t shiftMs = 0);
    void logSeek(int seekTimeMs) const;
    int clampToDuration(int seekTimeMs) const;
    // Steps move the picture alone: whether the sound at that time has gone by, where the picture is still there.
    bool isSoundAway(int seekTimeMs) const;
    int clampToLoop(int seekTimeMs) const;

    // Why the loop can't be played, as far as that is known; null if it can.
    const char* obstacleTo(const Loop& loop);
    // seekRunMutex_ is held in both.
    void wantLoop(std::optional<Loop> loop);
    void startLoop();
    void postLoopSeek();
    // Where what was read isn't of the loop that was set: reads it anew, from the time that is shown.
    void seekIntoLoop();

    bool seekInFrameQueues(int seekTimeMs);
    bool seekInPacketQueues(int seekTimeMs);
    // The first two in one for an exact seek, which runs until its first frame as any other. Nothing that plays at the
    // target may be gone, and the sound is asked as well.
    bool seekInQueues(int seekTimeMs);

    // Goes on behind a step, unless that was given up.
    void seekForStep(int seekTimeMs);
    // Brings all to the picture that steps have led to, and goes on from there. False if it isn't on its way.
    bool seekBehindSteps();
    // A seek is over, and none is next.
    void resumeBehindSeek();
    void dropSteps();
    // No frame has ended the seek that went last: a step that waits for it is given up.
    void dropStepOfSeek();

    // Whether the host is told of the first packet and frames that come now.
    bool isHostSeek() const { return seekFor_ == SeekFor::Host; }
    // Of a first frame: also if the host awaits it since its own, and only a loop has gone back since.
    bool isFirstTold(std::atomic<bool>& owed);

    // At an end of the input: whether it is to be told. If not, what waits goes on.
    bool endSeeks(bool (SeekTurns::*ending)());

    // Starts the last request that has waited, on the worker.
    void postReplay(SeekTurns::Next next);
    void replaySeek(SeekTurns::Next next);

    // What the wanted mode comes to with the streams that there are. settingMutex_ is held.
    SyncMasterMode getSyncMasterMode();
    std::shared_ptr<SyncObject> getSyncMasterObject();
    // Gives the master to the play threads that follow it; settingMutex_ is held.
    void updateSyncObject();

    static constexpr const char* kTag = "PlayTask";
    static constexpr int kStepsBackMs = 250;  // how far steps go back at most among the pictures that are there

    // Set by `init`, for good.
    EventCallback eventCallback_;
    std::shared_ptr<Worker> worker_;  // runs deferred seeks

    std::string fileName_;

    std::shared_ptr<TimestampExtrapolator> timestampExtrapolator_;  // the next two hold its raw pointer
    std::shared_ptr<RenderTiming> renderTiming_;
    const std::shared_ptr<PacketOutlet> packets_ = std::make_shared<PacketOutlet>();
    const std::shared_ptr<SubtitleTracks> subtitles_ = std::make_shared<SubtitleTracks>();
    const std::shared_ptr<SubtitleScreen> subtitleScreen_ = std::make_shared<SubtitleScreen>(subtitles_);

    std::unique_ptr<std::thread> loadThread_;  // from `loadFileAsync` to `stop`
    std::mutex loadMutex_;                     // held until it is stored; the thread begins behind it

    // From the end of the load to `stop`.
    AtomicSharedPtr<StreamInfo> streamInfo_;
    AtomicSharedPtr<CodecInfo> codecInfo_;

    AudioOutputSpec audioOutputSpec_;  // what all sound is converted to

    std::atomic<bool> enableHwDecoder_{true};
    std::atomic<HwDecodeMode> hwDecodeMode_{HW_DECODE_ALL};
    float speed_ = 1.0f;                // guarded by settingMutex_
    std::atomic<bool> isMuted_{false};  // written with settingMutex_ held
    float nextVolume_ = 1.0F;  // of the next playback: one that is a restart goes on with it; the caller's of `play`
    PlaybackOptions options_;  // guarded by optionsMutex_
    std::mutex optionsMutex_;
    std::mutex audioDeviceMutex_;  // held through a change of the device, before optionsMutex_
    PlaybackOptions loadOptions_;  // as they were at the load; its caller's
    PlaybackOptions playOptions_;  // as they were when `play` began; its caller's
    int loadTimeMs_ = 0;           // where the load begins; its caller's

    // Of a playback that was stopped for a restart: without frames, until the next one takes its windows over.
    AtomicSharedPtr<VideoPlayThread> standingThread_;

    std::atomic<int64_t> durationMs_{0};  // as the source states it, then as its end shows it
    int64_t inputLengthMs_ = 0;           // the parser's thread's, and the load's before it
    std::atomic<bool> seekable_{false};
    std::atomic<int> lastFailure_{0};      // a KelpPlayerErrorType; 0 for none
    std::atomic<bool> anyDecoded_{false};  // a picture or a piece of sound has come since `play`
    PlayDetail detail_;

    HostWindows windows_;

    AtomicSharedPtr<MasterClock> masterClock_;  // a new one for each `play`
    AtomicSharedPtr<SyncObject> syncObject_;    // the master if it isn't a play thread
    bool hasHostClock_ = false;                 // that is a clock of the host; guarded by settingMutex_
    bool isLowDelay_ = false;                   // the pictures lead but for such a clock; guarded by settingMutex_
    std::atomic<SyncMasterMode> syncMasterMode_{SYNC_MASTER_CLOCK};
    // Held while the speed or the choice of a clock is stored and handed to the play threads, which come and go under
    // it, so that the last one asked for is the one in force. The stages' threads never take it.
    std::mutex settingMutex_;

    std::atomic<bool> isShowing_{false};      // the first frame has come, of the playback or behind its last seek
    std::unique_ptr<StallWatch> stallWatch_;  // where a source may run dry; from `play` to `stop`

    SeekTurns seekTurns_{SeekRule::Standard};
    // Held while the stages are paused or resumed, so that what was asked for last is in force.
    std::mutex pauseMutex_;
    bool isPaused_ = false;   // by the host; guarded by pauseMutex_, like the next
    bool isStalled_ = false;  // for want of data
    // Whether the end of a seek is that of the pause: one that has begun, or is about to begin and may end before.
    enum class Resume { None, Starting, Over, BehindSeek };
    Resume resume_ = Resume::None;                 // guarded by pauseMutex_
    std::mutex seekRunMutex_;                      // held through a seek on the control side: one at a time
    std::atomic<SeekFor> seekFor_{SeekFor::Host};  // the seek that went last; written under seekRunMutex_
    std::atomic<bool> isSoundApart_{false};        // a step was made, and no seek since has gone back in the input
    std::atomic<bool> isSoundOfStep_{false};       // what sounds next was sent after a step, and isn't told
    std::atomic<bool> isResumeParked_{false};      // what waits for the end of a seek goes on behind steps
    std::atomic<bool> hasBegun_{false};            // a first frame has come since `play`
    std::atomic<bool> isPictureOwed_{true};        // no first frame has come since `play` or the host's seek
    std::atomic<bool> isSoundOwed_{true};
    WantedLoop loop_;
    bool isRead_ = false;  // between `play` and `stop`; guarded by seekRunMutex_
    SelectedTracks selectedTracks_;
};
#pragma GCC diagnostic pop

}  // namespace kelp
