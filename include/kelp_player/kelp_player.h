#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "kelp_player/export.h"
#include "kelp_player/frame_sink.h"
#include "kelp_player/statistics.h"
#include "kelp_player/sync_clock.h"
#include "kelp_player/tracks.h"
#include "kelp_player/types.h"

namespace kelp {

class ExternPacketSink;
class ExternSubtitleSink;
class ExternSyncWrapper;
class KelpPlayer;
class PlayTask;
class StallObserver;
class Worker;
class WorkerEnd;

// What went wrong, the first number of `onFailed`.
enum KelpPlayerErrorType : int32_t {
    ERROR_TYPE_STREAM = 1,        // opening the source, or reading it, failed
    ERROR_TYPE_VIDEO_DECODE = 2,  // the video decoder gave up
};

// What `KelpPlayer::getPlayDetailInfo` is asked for.
enum KelpPlayerInfoType : int32_t {
    INFO_DURATION = 0,  // in milliseconds
    INFO_WIDTH = 1,     // of the picture before it is turned, in pixels; 0 without video
    INFO_HEIGHT = 2,    // likewise
    INFO_ROTATE = 3,    // clockwise, in degrees from 0 to 359; 0 until the first decoded picture
    INFO_FPS = 4,       // whole pictures per second, 30 if not known; 0 without video
};

// Takes the events of players. The host implements it and owns the object, which must live until `release` of every
// player that it was given to has returned; where that is called on the worker thread, until another call has returned
// on another thread, or the player is gone.
//
// Every operation is called on the player's worker thread, one at a time and in the order in which the events arose; so
// are the host's callables of `runInWorker` and its timers. An observer that takes long delays what comes after it, a
// seek that waits for another one, a step back, and a loop that is set or taken back, but never the playback. It may
// call any operation of the player from here, `stop` and `play` included, but for `release` see there. The first
// argument is the player that the event is about, so that one observer can serve many; dropping the last reference to
// the player in here is allowed.
//
// Events can be under way while the host calls the player: an `onPrepared` may still come after `stop` has returned,
// and `play` then answers false.
//
// The order for one source: onVideoSizeUpdated, if there is video, and onPrepared, or onFailed. After `play`
// onFirstPacket, onFirstVideoFrame and onFirstAudioFrame, the last two in either order; onDurationUpdated, for nearly
// every file, when its end has been read, which is some seconds before it is played; and onCompleted when the last
// frame has been played. After a `seek` the three first-events come again, or none of them where the target was already
// decoded, or the frames' two where it was already read; with the option "seek" = "exact" the frames' two always.
class KelpPlayerObserver {
public:
    // The size of the pictures before they are turned, in pixels, and their clockwise rotation for display in degrees,
    // 0 to 359. At first the size that the source states, with rotation 0; then whenever a decoded picture differs.
    virtual void onVideoSizeUpdated(std::shared_ptr<KelpPlayer> player, int width, int height, int rotate) = 0;

    // The source of `loadFileAsync` is open and has these streams, also of codecs that aren't played; with the option
    // "codecs" = "all" those that are played. The time for `play`.
    virtual void onPrepared(std::shared_ptr<KelpPlayer> player, bool hasVideo, bool hasAudio) = 0;

    // `errorType` is a KelpPlayerErrorType; the log's last error line (by its tag) says more:
    //
    // ERROR_TYPE_STREAM, `extraData` 0: the source couldn't be opened.
    //   [StreamParser] "open input file NAME faield! ret:CODE, REASON, is stoped:0"   the system's or the server's
    //       REASON; mend the name, the rights or the network, then `stop` and `loadFileAsync`
    //   [StreamParser] "find stream info NAME failed!"   what came isn't media, or a live source sent nothing
    //   [StreamParser] "No avaliable stream have found"  there is neither picture nor sound that FFmpeg can decode
    // ERROR_TYPE_STREAM, `extraData` 1: it couldn't be read any further, after what was read has been played.
    //   [StreamParser] "Running... read failed, ret:CODE, REASON, ..."   the connection broke or the file is damaged;
    //       `stop` and `loadFileAsync`, for a live source after a second or two. The end of a file writes this line
    //       too, with "End of file" for the reason, but is no failure: `onCompleted` follows
    // Either kind, with the option "codecs" = "all": one more line, in words for a user.
    //   [StreamParser] or [PlayTask] "NAME can't be played: REASON"   also where packets are protected, or where the
    //       end came without a single picture or piece of sound
    // ERROR_TYPE_VIDEO_DECODE: with `extraData` 1 hardware decoding is enabled: `stop`,
    //   `enableHwDecoder(false, HW_DECODE_NONE)` and a new start are worth a try; with 0 the data is damaged.
    //   [FFVideoDecoder] "notify onVideoDecodeFailed"    the decoder has refused 101 packets in a row
    //   [FFVideoDecoder] "getHwFormat, Failed to get HW surface format."   the hardware can't do this stream
    //
    // Nothing is stopped by itself, and a decoder that keeps failing reports it again and again.
    virtual void onFailed(std::shared_ptr<KelpPlayer> player, int errorType, int extraData) = 0;

    // The first packet was read, at the start or after a seek. Its time on the stream's time line, in milliseconds.
    virtual void onFirstPacket(std::shared_ptr<KelpPlayer> player, int ptsMs) = 0;

    // The first picture is about to be shown, or the first block of sound to be played, at the start or after a seek.
    // Its time on the stream's time line, in milliseconds.
    virtual void onFirstVideoFrame(std::shared_ptr<KelpPlayer> player, int ptsMs) = 0;
    virtual void onFirstAudioFrame(std::shared_ptr<KelpPlayer> player, int ptsMs) = 0;

    // The source has been played to its end: no stage has a packet or frame waiting, though the last of the sound may
    // be heard a moment later. It stays open: `seek` starts it again, only `stop` ends it. For a live source it means
    // that the server closed the connection, unless the option "closed_live_source" is "failed".
    virtual void onCompleted(std::shared_ptr<KelpPlayer> player) = 0;

    // The end of the source was met, and its last packet has another time, in milliseconds, than was announced as the
    // duration: in most files a little less. It is the duration from here on. With the option "codecs" = "all" it is
    // where that packet ends, so that this comes only where what was announced is wrong.
    virtual void onDurationUpdated(std::shared_ptr<KelpPlayer> player, int durationMs) = 0;

protected:
    // Not virtual: players never destroy it.
    ~KelpPlayerObserver() = default;
};

// Plays one source, a file or a URL, into windows of the host and onto the sound device.
//
// The order of a player's life:
//
//     auto player = std::make_shared<KelpPlayer>();   // it must be held by a shared pointer
//     player->init(observer);                         // once
//     player->setOption("preset", "recommended");     // at any time from here on, and other options
//     player->addWindow(...);                         // the same
//     player->loadFileAsync("file.mp4", 0);           // returns at once
//     // onPrepared comes
//     player->play();
//     // pause, resume, seek, setSpeed, setVolume
//     player->stop();                                 // then perhaps loadFileAsync again
//     player->release();
//     player.reset();
//
// The player checks this order hardly at all: TarnPlayer does, for hosts that would rather not. What must be kept:
// one `init`, and nothing else if it failed; no second `loadFileAsync` and no second `play` without a `stop` between
// them; `stop`, returned, before `release` and before the last reference goes. A player that dies while it plays leaves
// its threads behind, which play on with nobody to stop them. It can hang as well: a thread that is just raising an
// event holds it for that moment, may turn out to hold it last, and then waits for itself.
//
// Calls run on the caller's thread and return when they are done, but for `loadFileAsync`, `seek`, `stepFrame`,
// `setLoop` and `selectTrack`, which go on by themselves. There is no lock over the whole: `play`, `stop` and
// `loadFileAsync` of one player are not to be called at the same time, all others may come from any thread at any time
// after `init`. Failures are a false here and a line in the log; what goes wrong later comes as `onFailed`. Times are
// milliseconds, from the start of the stream.
//
// An ExternFrameSink, a KelpSyncClock and a log callback run on threads of the player that must not wait for it. From
// the first two only these may be called: the `get` operations, `clearScreen`, `takeSnapshot`, `runInWorker`,
// `addTimer` and `removeTimer`; packet_sink.h and subtitle_sink.h have theirs. From a log callback nothing may be. What
// else is to be done there goes to the worker: `runInWorker([player] { player->stop(); })`.
class KELP_PLAYER_API KelpPlayer : public std::enable_shared_from_this<KelpPlayer> {
public:
    // Starts nothing.
    KelpPlayer();
    KelpPlayer(const KelpPlayer&) = delete;
    KelpPlayer& operator=(const KelpPlayer&) = delete;
    // Calls `release`. Playback must have been stopped.
    virtual ~KelpPlayer();

    // Starts the player's worker and sends all events to `observer`, from now until `release`; null drops them. The
    // first player of the process starts FFmpeg's network and SDL's audio and video, sets the log level to "info", and
    // may fail in that: false, and the player is of no use; the next `init` of any player tries again. Throws
    // std::bad_weak_ptr if the player isn't held by a shared pointer, std::system_error if the process has too many
    // threads.
    //
    // SIGINT and SIGTERM stay the host's: SDL makes no events of them, unless the host starts SDL itself before, or
    // sets SDL_HINT_NO_SIGNAL_HANDLERS, or its variable SDL_NO_SIGNAL_HANDLERS in the environment, to "0".
    //
    // False writes [KelpPlayer] "Could not initialize SDL - REASON": there is no screen or no sound system that SDL can
    // use. SDL's own variables help: SDL_VIDEODRIVER=dummy for a host that takes pictures with a frame sink only,
    // SDL_AUDIODRIVER=dummy for silence, see `play`. Without a DISPLAY SDL may also take a driver that shows nothing
    // ("offscreen"), without an error: SDL_VIDEODRIVER=x11 makes that a failure.
    bool init(KelpPlayerObserver* observer);

    // Waits, 10 ms at the least, until all queued events, callables and timers' calls have been started, with what
    // these queue in turn, and ends the worker with the last one: nothing is delivered after this returns. Calls of
    // timers that are armed or due since are not waited for, but a callable that queues itself again and again is, for
    // good. Does not stop playback. May be called more than once, and on several threads at once: each call waits for
    // that end.
    //
    // On the worker thread itself, that is in an observer, a callable or a timer, it doesn't wait: what is queued still
    // comes, and the worker ends soon after, which a call on another thread waits for. Where none comes, as the last
    // reference went there, the end of the process waits for it, for a second at most.
    void release();

    // Opens `fileName`, a path or whatever URL FFmpeg opens, at a key frame near `seekTime` milliseconds, mostly the
    // one before, or at the beginning for 0 and less; for an exact place `seek` after `play`. The outcome is
    // `onPrepared` or `onFailed`, or nothing if `stop` comes first. False if the name is empty or null, and nothing was
    // begun; the log shows [PlayTask] "LoadVideoFile, fileName:,", or [KelpPlayer] "loadFileAsync, no file name".
    // `std::system_error` if the process has too many threads.
    bool loadFileAsync(const char* fileName, int seekTime);

    // Starts playing what was loaded. True as soon as the source is being read; a stream whose decoder can't be opened
    // is left out, and only the log tells. False if nothing is loaded or nothing can be played: `stop` is next then.
    //
    //   [PlayTask] "play, no source is open"             `onPrepared` hasn't come, or a `stop` came since
    //   [PlayTask] "play, has no video and audio thread" no stream has a codec of VideoCodecType or AudioCodecType, or
    //       no decoder of it opens; lines of FFVideoDecoder and FFAudioDecoder above it say why
    //   [StreamParser] "start end, error, stop requested:..."   a `stop` is under way
    //
    // `std::system_error` if the process has too many threads; `stop` is next then as well.
    //
    // With the option "no_sound_device" set to "silence" the sound needs no device: it goes on in silence, at its pace,
    // where there is none, and takes one that comes. Without it a sound device that can't be had writes
    // [SDLAudioOutput] "SDL_OpenAudioDevice failed! REASON", and the playback comes to stand: its sound waits for the
    // device for good. Pictures are shown until 200 packets are queued, some seconds, and the last one stays;
    // `getCurrentTime` stays at its time, or without pictures at the sound's first moment. No event tells,
    // `onCompleted` doesn't come, `seek` plays the same few seconds from its target on, and only `stop` ends it. A
    // device that stops asking for sound does the same without a line. SDL_AUDIODRIVER=dummy, before the first player,
    // is a device that nobody hears, at about the right pace, for one player at a time.
    bool play();

    // Ends playback, or the opening of a source, waits for all its threads and closes the source. What was set stays,
    // but for the volume, paused windows and selected tracks. Always true, also when there is nothing to stop.
    bool stop();

    // Halt playback and let it go on: a file where it was, an RTSP source with what is live then, from the next key
    // frame on. An SDP source is read on while halted, up to 200 packets, which are played first. While halted the
    // windows are still repainted. Always true. They come in turn: a `resume` with no `pause` before it sets the
    // internal clock back, a second `pause` sets it on by the time since the first, unless the option "timing" is
    // "exact".
    bool pause();
    bool resume();

    // Goes on from `seekTimeMs`, cut to the range from 0 to the duration. True says that the request was taken: it is
    // done when the first frame from there comes, see KelpPlayerObserver. Of requests that come during a seek only the
    // last one is carried out, after it; one that comes at that very moment may go ahead of it, and the end of the film
    // drops it, so ask again if the position isn't the one asked for. With the option "seek" = "exact" neither is so:
    // the picture shown is the one that holds the target, the sound begins there, and each seek ends with one
    // onFirstVideoFrame, or onFirstAudioFrame where there are no pictures, unless a newer one takes its place or
    // nothing can be decoded from there on.
    //
    // False if the source can't seek: a live one, or none; the log's last line is [PlayTask] "seek, seekTimeMs:TIME,
    // seekable:0". A demuxer that fails at it later writes [StreamParser] "processSeekRequest, seek failed, ret:CODE",
    // and playback goes on from what is read next, or from the target if that is later.
    bool seek(int seekTimeMs);

    // While paused, shows the picture that lies `pictures` behind the one that is shown, or before it if negative: the
    // last one, or the first, where there are fewer. It comes by itself, soon: forward in the time of a decoding, back
    // in that of a seek at most. Calls that come meanwhile add up. `getCurrentTime` is the time of the picture that is
    // shown. A step has no events, nor has what goes on behind it: a `resume` plays on from the picture that is shown,
    // with the sound from there, and drops the steps that weren't made yet, as a `seek` does.
    //
    // False where nothing that has pictures is paused, and for a step back in a source that can't seek, with a Warn
    // line of PlayTask: "stepFrame, REASON".
    bool stepFrame(int pictures);

    // Plays the film from `startMs` to right before `endMs`, in milliseconds, again and again: by default all of it.
    // Behind the last picture comes the first in its time, and the sound goes on to the sample. There is no onCompleted
    // while it is on, and no other event at a turn. From a position before the loop's end playback comes into it by
    // itself; one at that end or behind it, also that of a `seek`, goes to the start. A start below 0 is 0, an end
    // behind the film's is that one. At any time from any thread, for this playback and those to come, in place of the
    // loop before. One that is set or taken back when its end was read already takes a short seek, of which no event
    // tells: a picture may be seen again, and the sound skip once. One in which nothing can be played is given up:
    // [StreamParser] "the loop is given up, there is nothing in it", at Warn.
    //
    // `getCurrentTime`, frame sinks and `seek` are by the film's time. The clocks go on: one of the host's that several
    // players follow runs through all turns, from the film's time at the load or the last `seek`.
    //
    // False, and nothing changes, with a Warn line of PlayTask, "setLoop, REASON": the end isn't behind the start, the
    // loop is shorter than a picture, begins behind the film's end, or the source is live or can't seek. What isn't
    // known before the source is loaded is found out by `play`, which writes that line and plays without the loop.
    bool setLoop(int startMs = 0, int endMs = std::numeric_limits<int>::max());
    // Ends that: playback goes on to the film's end, and completes.
    void clearLoop();

    // How fast the sound is played, 1.0 being its own tempo; the pitch stays. Above 0, in force from the next block of
    // sound on, and kept for the playbacks to come. Pictures follow if sound is the master or a host's clock that runs
    // at the same speed, see setAVSyncMode; with the option "timing" = "exact" with all but such a clock, and without
    // sound.
    void setSpeed(float speed);

    // The volume as a linear factor, 1.0 at the start of each `play`; what becomes too loud by it is clipped. In force
    // only from `play` to `stop`. False without sound, and before its first block, which takes the value all the same;
    // nothing is logged.
    //
    // With the option "timing" = "exact" a new value comes over 10 milliseconds, so that no step is heard.
    bool setVolume(float volume);

    // Silence while the volume stays what it is, and back; from the next block of sound on, within 10 milliseconds in
    // which it fades. At any time from any thread, for this playback and those to come. False at first.
    void setMute(bool muted);
    bool isMuted();

    // The names of the sound devices that there are by now, in UTF-8, for the option "audio_device". The same for all
    // players; empty before the first `init` and on a machine without one. Not from a sink, a clock or a log callback:
    // the sound system may be asked. From any thread else. Two devices of the same name are one to choose.
    static std::vector<std::string> getAudioDevices();

    // The time of the picture that is shown, or without pictures of the sound that is heard, in milliseconds; the
    // target while a seek is under way, and behind an exact one until the next picture; 0 before the first frame and
    // out of playback. With the option "codecs" = "all" it goes on with the sound where pictures are missing.
    int getCurrentTime();

    // In milliseconds. 0 before `onPrepared` and after `stop`, ten hours for a source that states none; corrected when
    // the end is met, see onDurationUpdated.
    int getDuration();

    // One fact about the source; 0 for what isn't known, and for a selector that doesn't exist.
    int64_t getPlayDetailInfo(KelpPlayerInfoType type);

    // All tracks of the source, also those that can't be played, in the order of their numbers. From `onPrepared` on;
    // empty before and after `stop`. It is what the opening found: a live source may gain tracks later.
    std::vector<Track> getTracks();

    // How the playback goes: a snapshot of what its threads count, see statistics.h. From any thread at any time; it
    // waits for none of them, and takes less than a microsecond.
    Statistics getStatistics();

    // Writes the picture that is shown into the file at `path`, as PNG: in its own size, the pixels square and turned
    // as it is seen, in the colours that its range and matrix stand for. It is the last one that was brought to all
    // windows and sinks, or would have been without any; also while halted. A screen that was cleared is black.
    //
    // On the caller's thread, which takes some tenths of a second for a large picture; playback isn't held up. From any
    // thread at any time. False, and a line in the log says why, where no picture has been shown since `play`, behind
    // `stop`, and if the file can't be written. Where a sink writes into pictures that it was given before, the file
    // may have a part of that.
    bool takeSnapshot(const char* path);

    // Plays another track of the source in place of the one of this kind, TRACK_KIND_VIDEO or TRACK_KIND_AUDIO, that is
    // played, or shows subtitles, TRACK_KIND_SUBTITLE, also where none were shown, or with -1 none any more; from
    // `play` to `stop`, also while halted. Nothing is loaded anew, and no event comes but onVideoSizeUpdated. True says
    // that the request was taken, and `getTracks` calls the track played from here on; only the last request for a kind
    // counts.
    //
    // Sound of a file changes within 200 ms, without a gap: the file is read once more from what is heard, which takes
    // longer over a network. A video changes at the first key frame of the new one that is read from now on: some
    // seconds are read ahead. Where a source can't go back, as a live one, and in a loop, sound as well changes behind
    // what is read. After the end of the source the track is for the next seek. Subtitles change at once; those of a
    // file that began up to ten seconds ago are there as well.
    //
    // False, and [PlayTask] "selectTrack, kind:KIND, number:NUMBER, REASON" at Error, where nothing is played, or no
    // track of this kind, and for a track that there isn't, that can't be played, or that is an attached picture. A
    // decoder that can't be opened after all leaves the kind out from there on: silence, or the last picture, until
    // another one is selected; the log's line is [AudioDecodeThread] "play, failed open audio decoder" or
    // [VideoDecodeThread] "changeTrack, failed open video decoder". It is for this playback alone, see `setOption`.
    bool selectTrack(TrackKind kind, int number);

    // Show the pictures in a window, one of any number. `type` says what `handle` is: a native window id, an
    // SDL_Window*, or an ExternFrameSink*, all of which stay the host's; the size is in pixels. Windows stay from one
    // playback to the next. A second call for a handle changes its size only. A removed window is let go of right
    // before the next drawing, mostly within 50 ms while a playback runs, but later where a seek skips frames: don't
    // destroy it before. Always true. Null handles are never drawn on.
    //
    // Pictures that change their size in mid-stream, see onVideoSizeUpdated, are drawn in the frame of the first ones,
    // cut off or with a rest of the last one beside them, until the size of the window changes; with the option "fit" =
    // "keep" each in its own ratio.
    //
    // What goes wrong with a window shows when it is first drawn on, and only there: the others go on. It writes
    // [SDLRender] "Failed to create window: REASON" (the handle is no window of this screen) or "Failed to create
    // window or renderer: REASON".
    bool addWindow(WindowType type, void* handle, int width, int height);
    bool removeWindow(void* handle);

    // While paused a window keeps its picture. For the running playback only, and without effect out of one. Always
    // true.
    bool pauseWindow(void* handle, bool pause);

    // Tells the new size of a window, in pixels.
    void updateWindowSize(void* handle, int width, int height);

    // Makes the present picture black on all windows, at the next drawing.
    void clearScreen();

    // Whether `play` tries hardware decoders, and which kinds. At the start true and HW_DECODE_ALL. What can't be had
    // falls back to software. In force from the next `play`.
    void enableHwDecoder(bool enable, HwDecodeMode mode);

    // Whose clock sound and picture follow. SYNC_MASTER_CLOCK at the start. In force at once; but a stream that becomes
    // the master in mid-playback goes on following what it followed before.
    //
    // The internal clock, that is SYNC_MASTER_CLOCK, or what falls back to it, without a clock of the host's, is for
    // the first playback of a player. Later ones, a second `play` after `stop` and a restart of a TarnPlayer alike, go
    // on following the clock of the first one, which has run on: their pictures are hurried or held back. A player that
    // is used again takes another master, gets a clock, or calls setExternSyncClock(nullptr, 0) right behind each
    // `play` and follows the clock of that playback then. With the option "timing" = "exact" each `play` has its own.
    void setAVSyncMode(SyncMasterMode mode);

    // With SYNC_MASTER_CLOCK, follow `clock` instead of the internal one; its reading less `offsetMs` is the time on
    // the stream. Null returns to the internal clock of the running playback. In force at once, and for the playbacks
    // to come. The clock stays the host's and must live until it was replaced, by null or another one, or the player is
    // gone: one that was stopped reads it again when it plays.
    //
    // A clock that was replaced isn't read any more once this has returned: it waits for the answers that play threads
    // are just waiting for. For a second at most, as such an answer may wait for a lock that the caller holds: then it
    // writes [ExternSyncWrapper] "setExternSyncClock, the host's clock is still being read after 1000 ms, ...", and the
    // clock must live until those answers have come.
    void setExternSyncClock(KelpSyncClock* clock, int offsetMs);

    // Gives `sink` the packets of what is played, as they are read, or with null to nobody; at any time, from the next
    // packet on, and for the playbacks to come. See packet_sink.h. The sink stays the host's and must live until it was
    // replaced, by null or another one, or the player was stopped and isn't played again.
    //
    // A sink that was replaced isn't called any more once this has returned: it waits for a call that is under way,
    // unless it comes from within that call. For a second at most, as such a call may wait for a lock that the caller
    // holds: then it writes [PacketOutlet] "setPacketSink, the host's packet sink is still being called after 1000 ms,
    // ...", and the sink must live until that call has returned.
    void setPacketSink(ExternPacketSink* sink);

    // Who hears when playback stands for want of data, or with null nobody; at any time, from the next such event on,
    // and for the playbacks to come. See stall_observer.h. The observer stays the host's: one that was replaced may
    // still be in a call, and must live until a callable has run that went to `runInWorker` behind this; the last one
    // as long as the observer of `init`.
    void setStallObserver(StallObserver* observer);

    // Gives `sink` the subtitles that are shown, or with null nobody; at any time, and for the playbacks to come. See
    // subtitle_sink.h. The sink stays the host's, and is let go of as a packet sink is, with a line of [SubtitleScreen]
    // where that takes longer than a second.
    void setSubtitleSink(ExternSubtitleSink* sink);

    // Sets a string option. A null key or value is ignored.
    //
    // "log_level" sets the log of the whole process, the library's own and FFmpeg's, at once:
    //
    //     value       FFmpeg          Log
    //     "trace"     AV_LOG_TRACE    4 debug
    //     "debug"     AV_LOG_DEBUG    4 debug
    //     "info"      AV_LOG_INFO     3 info
    //     "warning"   AV_LOG_WARNING  2 warning
    //     "error"     AV_LOG_ERROR    1 error
    //     "none"      AV_LOG_QUIET    -1 nothing at all
    //
    // Another value changes nothing.
    //
    // These change how the player works, from the moment on that is given; docs/options.md says what each does. They
    // count before `init` too, and stay over a `stop`. Another value changes nothing and writes [KelpPlayer]
    // "setOption, KEY can't be "VALUE", there is: VALUES" at Warn. "preset" = "recommended" sets most of them.
    //
    //     key                   values, the first one holds unless set    from
    //     "preset"              "standard", "recommended"                 at once
    //     "codecs"              "standard", "all"                         the next load
    //     "timing"              "standard", "exact"                       the next `play`
    //     "seek"                "standard", "exact"                       the next seek
    //     "no_sound_device"     "wait", "silence"                         the next `play`
    //     "closed_live_source"  "completed", "failed"                     the next load
    //     "live_delay"          "standard", "low"                         the next load
    //     "rtsp_fallback"       "none", "udp"                             the next load
    //     "read_ahead"          "standard", or milliseconds               the next load
    //     "rebuffer"            "0", or milliseconds                      the next `play`
    //     "max_pixels"          "0", or a number                          the next load
    //     "pictures"            "packed", "shared"                        the next `play`
    //     "fit"                 "fill", "keep"                            at once
    //     "video_track", "audio_track", "subtitle_track"                  the next load
    //                           "auto", "none", or a number of `getTracks`
    //     "subtitle_file"       "none", or a path or URL                  the next load
    //     "audio_device"        "default", or a name of `getAudioDevices` at once
    //
    // Any other key is an option of FFmpeg's demuxers and protocols and goes to the opens to come, unread; unknown ones
    // are ignored there. Before `init` it has no effect. These are set from the start:
    //
    //     "max_delay"           "1000000"   microseconds of reordering
    //     "rtsp_transport"      "tcp"
    //     "stimeout"            "500000"    microseconds; FFmpeg 5 and later don't know it any more
    //     "reorder_queue_size"  "1200"      packets
    //     "buffer_size"         "-1"        bytes; the system's own
    //
    // With FFmpeg 5 and later, "timeout" (microseconds) is what bounds an RTSP source's waits on the network, over TCP
    // and UDP; without it a server that doesn't answer, or falls silent, is waited for until `stop`. An SDP source's
    // waits are bounded by "listen_timeout" (seconds, 10 unless set). Opening fails after one such wait, reading after
    // six in a row, or after one with "closed_live_source" = "failed": `onFailed`. For "rtsp://" and paths with ".sdp"
    // in them "fflags" is "nobuffer", and for the latter "protocol_whitelist" is "file,udp,rtp", unless set here. Both
    // stay for the sources that follow in the same player, so that behind an SDP file it opens nothing over TCP until
    // that list is set. With "codecs" as "all" or "live_delay" as "low" nothing stays, and what isn't itself an SDP
    // file gets no list.
    void setOption(const char* key, const char* value);

    // Runs `function` on the worker thread, after the events that are queued by now; what comes before `init` waits for
    // it, what comes after `release` never runs. It must not be empty and must not throw.
    void runInWorker(std::function<void()> function);

    // Calls `function` on the worker thread, once or again and again. A timer is due `intervalMs`, 1 or more, after
    // this call, and again that long after each time that it was seen to be due. So a period is longer than asked for
    // by what the system is late, which is never made up for. The call is then queued for the worker; calls that a slow
    // function can't keep up with pile up there. The wall clock counts. Returns an id, 1 or greater, that is free for
    // another timer when this one is gone: a one-shot timer from the moment it is due.
    unsigned int addTimer(unsigned int intervalMs, bool oneShot, std::function<void()> function);

    // Cancels a timer. Its calls that are queued already still come. An unknown id is ignored.
    void removeTimer(unsigned int timerId);

private:
    friend class KelpPlayerPeer;  // lets tests look at the parts below
    friend class TarnPlayer;      // changes the clock under its lock and waits without it

    void setLogLevel(const char* level);
    // The two halves of setExternSyncClock. The first one returns the clock to wait for, or null.
    KelpSyncClock* replaceExternSyncClock(KelpSyncClock* clock, int offsetMs);
    void waitUntilUnread(KelpSyncClock* clock);
    // A `stop` that leaves the last picture on the windows, where it stands until the next playback has one.
    bool stopForRestart();

    KelpPlayerObserver* observer_ = nullptr;              // not owned; set by init
    std::atomic<StallObserver*> stallObserver_{nullptr};  // not owned
    std::shared_ptr<PlayTask> playTask_;
    std::shared_ptr<Worker> worker_;
    std::shared_ptr<ExternSyncWrapper> externSyncWrapper_;  // the one for all clocks of the host
    std::atomic<bool> workerStarted_{false};
    std::shared_ptr<WorkerEnd> workerEnd_;  // for every `release`
};

}  // namespace kelp
