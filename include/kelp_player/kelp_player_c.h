#ifndef KELP_PLAYER_KELP_PLAYER_C_H
#define KELP_PLAYER_KELP_PLAYER_C_H

// The library for C, and for every language that calls C. docs/c.md shows it at work, docs/abi.md says what of it may
// change. What holds everywhere:
//
// - Handles are opaque. What a `_create` returns is the host's, until the `_destroy` of the same name; null where it
//   failed. Destroying null does nothing. No handle owns another one but a recorder its sink, and none may go while
//   another one uses it.
// - An int that nothing else is said of is 1 where the call did what it is for, and 0 where it didn't: then the text
//   of `kelp_last_error`, or of the handle's own `_last_error`, says why, in the words of the log if that has the
//   level "error". Every kind of handle has one that has a call that can fail, timers that of their player. Null for a
//   handle, a text, a struct, data or a function is such a failure, unless it says what a null means, and so is a
//   number that its enumeration doesn't have. A call without a result does nothing with a null.
// - Texts are UTF-8 and end with a zero. Those that a call is given are copied, those that a callback is given are
//   valid during the callback. Where a source's own texts aren't UTF-8, or a path in an error or in a line of the log,
//   each byte that isn't part of a character becomes U+FFFD. Paths by themselves are bytes, as the system has them.
// - A struct begins with its size, which who fills it sets: the host `sizeof` of it, before it hands the struct in
//   or has it filled; all else may be 0. So later versions can add fields at the end: those that a host's size leaves
//   out count as 0 and aren't written. A struct with size 0 is a failure.
// - Callbacks get the host's `user` first. They come from threads of the library, see docs/threads.md, and null ones
//   are left out. `user` and what it points at must live as long as the handle that calls, unless a `release` is
//   taken along with it: that is called once, on any thread, when the callback never comes again, also where the
//   call has failed. No exception and no longjmp may leave a callback.
// - Times are milliseconds and sizes of pictures are pixels, unless it says otherwise.
// - Numbers named in enumerations are passed as int and are the same as those of the C++ headers.

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#if defined(KELP_PLAYER_BUILD)
#define KELP_C_API __declspec(dllexport)
#else
#define KELP_C_API __declspec(dllimport)
#endif
#else
#define KELP_C_API __attribute__((visibility("default")))
#endif

struct AVCodecParameters;
struct AVPacket;

#ifdef __cplusplus
extern "C" {
#endif

// Plays one source, a file or a URL, into windows and frame sinks and onto the sound device.
typedef struct kelp_player kelp_player;
// All tracks of a source.
typedef struct kelp_tracks kelp_tracks;
// The names of the sound devices.
typedef struct kelp_audio_devices kelp_audio_devices;
// Takes pictures in place of a window.
typedef struct kelp_frame_sink kelp_frame_sink;
// Takes packets as they are read: the host's own, or a recorder's.
typedef struct kelp_packet_sink kelp_packet_sink;
// Takes subtitles, for a host that shows them itself.
typedef struct kelp_subtitle_sink kelp_subtitle_sink;
// A clock that players follow.
typedef struct kelp_clock kelp_clock;
// Writes what a player reads into files.
typedef struct kelp_recorder kelp_recorder;
// Writes encoded video to an RTSP or RTP destination or into an MP4 file.
typedef struct kelp_muxer kelp_muxer;
// Receives datagrams.
typedef struct kelp_udp_receiver kelp_udp_receiver;
// Sends datagrams.
typedef struct kelp_udp_sender kelp_udp_sender;

// A call that the host asks for, and what ends `user`, see the top.
typedef void (*kelp_call)(void* user);

// ---- The library ----

// The library's version, such as "0.1.0". Never null.
KELP_C_API const char* kelp_version(void);

// Why the last call of this thread that failed did so; empty if none has. Never null, and valid until this thread asks
// again for any last error.
KELP_C_API const char* kelp_last_error(void);

// ---- The log: one for the process ----

// How much is written: what is more than the level set isn't.
enum kelp_log_level {
    KELP_LOG_NONE = -1,    // nothing at all
    KELP_LOG_FATAL = 0,    // nothing that the library writes
    KELP_LOG_ERROR = 1,    // failures
    KELP_LOG_WARNING = 2,  // and what a host should look at
    KELP_LOG_INFO = 3,     // and what happens; the level at the start, which the first player sets
    KELP_LOG_DEBUG = 4     // and how
};

// Sends every line, its date, thread, level and tag in front, to `call`, of which null returns the output to the
// console. It runs on the thread that logs, one call at a time, and must call nothing of the library. Another thread's
// line may still go to the callback before when this has returned: `release` comes when no more will. Null for
// `release` is allowed.
KELP_C_API int kelp_log_set_callback(void (*call)(void* user, const char* line), void* user, kelp_call release);

// Sets the level, one of KELP_LOG. The option "log_level" of a player sets FFmpeg's as well.
KELP_C_API void kelp_log_set_level(int level);
// Gives the level.
KELP_C_API int kelp_log_get_level(void);

// Writes a line of the host's at a level from KELP_LOG_FATAL on; `text` brings its line feed.
KELP_C_API int kelp_log_write(int level, const char* tag, const char* text);

// ---- Players ----

// What went wrong, for `on_failed`.
enum kelp_failure {
    KELP_FAILURE_START = 0,        // playing could not be started
    KELP_FAILURE_STREAM = 1,       // opening the source, or reading it, failed
    KELP_FAILURE_VIDEO_DECODE = 2  // the video decoder gave up
};

// Whose clock the other streams follow.
enum kelp_sync_master {
    KELP_SYNC_MASTER_CLOCK = 0,  // the player's own, or the one of `kelp_player_set_clock`; at the start
    KELP_SYNC_MASTER_AUDIO = 1,  // the sound's
    KELP_SYNC_MASTER_VIDEO = 2   // the picture's
};

// Which kinds of hardware decoding are tried before software, as two bits.
enum kelp_hw_decode {
    KELP_HW_DECODE_NONE = 0,     // software only
    KELP_HW_DECODE_DECODER = 1,  // dedicated hardware decoders
    KELP_HW_DECODE_ACCEL = 2,    // hardware acceleration of the software decoder
    KELP_HW_DECODE_ALL = 3       // both; at the start
};

// What a window's handle is.
enum kelp_window_type {
    KELP_WINDOW_TYPE_QT_WINID = 1,  // a native window id, on X11 the XID, cast to a pointer
    KELP_WINDOW_TYPE_SDL = 2        // an SDL_Window*, best made with SDL_WINDOW_OPENGL
};

// What `kelp_player_get_info` is asked for.
enum kelp_info {
    KELP_INFO_DURATION = 0,  // on the host's clock
    KELP_INFO_WIDTH = 1,     // of the picture before it is turned
    KELP_INFO_HEIGHT = 2,    // likewise
    KELP_INFO_ROTATE = 3,    // clockwise, in degrees from 0 to 359
    KELP_INFO_FPS = 4        // whole pictures per second, 30 if not known
};

// What a track carries.
enum kelp_track_kind {
    KELP_TRACK_KIND_VIDEO = 0,     // pictures
    KELP_TRACK_KIND_AUDIO = 1,     // sound
    KELP_TRACK_KIND_SUBTITLE = 2,  // texts, or pictures of texts
    KELP_TRACK_KIND_OTHER = 3      // data, attached files and the like
};

// The events of a player. All come on its worker thread, one at a time and in order. Any function may be called from
// there, but `kelp_player_destroy`. Times have the offset of `kelp_player_set_data_source` added.
typedef struct kelp_player_events {
    size_t size;  // sizeof(kelp_player_events)
    void* user;   // handed to each

    // The size of the pictures before they are turned, and their clockwise rotation in degrees; at first and whenever
    // they change.
    void (*on_video_size)(void* user, kelp_player* player, int width, int height, int rotate);
    // The source is open and has these streams: the time for `kelp_player_start`.
    void (*on_prepared)(void* user, kelp_player* player, int has_video, int has_audio);
    // Playback began, after `kelp_player_start` or by itself after a failure.
    void (*on_started)(void* user, kelp_player* player);
    // The player has failed for good, with one of KELP_FAILURE; the log's last error line says why. On from here go
    // `kelp_player_stop` and `kelp_player_prepare_async`.
    void (*on_failed)(void* user, kelp_player* player, int failure);
    // The first picture, at the start and after a seek, with its time.
    void (*on_first_video_frame)(void* user, kelp_player* player, int pts_ms);
    // The first sound, at the start and after a seek, with its time.
    void (*on_first_audio_frame)(void* user, kelp_player* player, int pts_ms);
    // The source has been played to its end; a seek plays it again.
    void (*on_completed)(void* user, kelp_player* player);
    // The source has turned out to have another duration than it stated.
    void (*on_duration_updated)(void* user, kelp_player* player, int duration_ms);

    // Playback stands, as a source over a network doesn't come fast enough; see the option "rebuffer". It isn't paused,
    // and each is followed by one `on_stall_ended`. Never where the host's clock is followed.
    void (*on_stalled)(void* user, kelp_player* player);
    // Meanwhile: so much is read ahead of what is shown, and the same as a part of what is waited for, 0 to 100.
    void (*on_buffering)(void* user, kelp_player* player, int waiting_ms, int percent);
    // Playback goes on, or is stopped.
    void (*on_stall_ended)(void* user, kelp_player* player);
} kelp_player_events;

// Makes a player with nothing to play. `events` is copied; null for none. Null if SDL can't be started, or there is no
// memory or thread to be had. What a new program should ask for is
// `kelp_player_set_option(player, "preset", "recommended")`, see docs/options.md.
KELP_C_API kelp_player* kelp_player_create(const kelp_player_events* events);

// Ends a player, and stops what it plays. Behind it no callback comes, from its sinks and clock neither. Not to be
// called from a callback.
KELP_C_API void kelp_player_destroy(kelp_player* player);

// Why the last call with this player that failed did so, or what it has reported as a failure since; empty if none has.
// For null what `kelp_last_error` says; valid as long as that.
KELP_C_API const char* kelp_player_last_error(const kelp_player* player);

// Sets the source, a path or URL, on a new player or behind `kelp_player_reset`. `offset_ms` is where the stream's zero
// lies on the host's clock, mostly 0: it is added to every time that the player gives out and taken off every time that
// it takes. Below 0 the stream starts at that much after its beginning.
KELP_C_API int kelp_player_set_data_source(kelp_player* player, const char* url, int offset_ms);

// Opens the source; the answer is `on_prepared` or `on_failed`. 0 if no source is set, if it was opened and not stopped
// since, also where that has failed, and for an empty one, to which no answer comes.
KELP_C_API int kelp_player_prepare_async(kelp_player* player);

// Plays what is prepared; while it is being prepared the request is kept. 0 in any other state, and if playing can't be
// started.
KELP_C_API int kelp_player_start(kelp_player* player);

// Halts playback. Out of playback it is kept for the next start that was asked for too early.
KELP_C_API int kelp_player_pause(kelp_player* player);
// Lets playback go on, or takes such a request back.
KELP_C_API int kelp_player_resume(kelp_player* player);

// Goes to `time_ms` on the host's clock, in playback or behind its end. 0 in any other state, and if the source can't
// seek. It is done with the next `on_first_video_frame`, or `on_first_audio_frame` where there are no pictures.
KELP_C_API int kelp_player_seek(kelp_player* player, int time_ms);

// While paused, shows the picture that lies so many behind the one that is shown, or before it if negative: the last
// one, or the first, where there are fewer. It comes by itself, soon, and has no events. 0 where nothing that has
// pictures is paused, and for a step back in a source that can't seek.
KELP_C_API int kelp_player_step_frame(kelp_player* player, int pictures);

// Plays from `start_ms` to right before `end_ms` on the host's clock again and again, without a gap and without
// `on_completed`; 0 and INT_MAX for all of the film. In any state, and over a restart, a stop and a reset. 0, and
// nothing changes, where that can't be: the end isn't behind the start, or the source is live or can't seek, as far as
// it is known by then.
KELP_C_API int kelp_player_set_loop(kelp_player* player, int start_ms, int end_ms);
// Plays on to the film's end. 0 for a null player alone.
KELP_C_API int kelp_player_clear_loop(kelp_player* player);

// Ends playback and gives up a restart that is due; waits for the player's threads. 0 when there is nothing to stop.
KELP_C_API int kelp_player_stop(kelp_player* player);

// Forgets the source, behind a stop, so that another one can be set.
KELP_C_API int kelp_player_reset(kelp_player* player);

// The position on the host's clock; stopped, the offset. 0 for null, without a source, while it is being opened, and
// when it has failed.
KELP_C_API int kelp_player_get_current_time(kelp_player* player);

// The duration on the host's clock, ten hours for a source that states none; else as the position.
KELP_C_API int kelp_player_get_duration(kelp_player* player);

// One fact of the source, one of KELP_INFO; 0 for null and for what isn't known, the offset for such a duration.
KELP_C_API int64_t kelp_player_get_info(kelp_player* player, int info);

// The volume as a linear factor, 1.0 again after each start, and after a restart unless the option
// "closed_live_source" is "failed". 0 out of playback, without sound, and before its first moment, which takes the
// value all the same.
KELP_C_API int kelp_player_set_volume(kelp_player* player, float volume);

// How fast the sound is played, 1.0 being its own tempo; the pitch stays. 0 unless it is above 0.
KELP_C_API int kelp_player_set_speed(kelp_player* player, float speed);

// Silence, unless `muted` is 0, while the volume stays what it is; at any time, and for the playbacks to come.
KELP_C_API int kelp_player_set_mute(kelp_player* player, int muted);

// 1 while it is silent by that; 0 for null.
KELP_C_API int kelp_player_is_muted(kelp_player* player);

// The sound devices that there are by now, for the option "audio_device"; none before the first player and on a machine
// without one. Not from a sink: the sound system may be asked. The host frees them with `kelp_audio_devices_free`. Null
// without memory.
KELP_C_API kelp_audio_devices* kelp_get_audio_devices(void);

// Frees the names. Null is allowed.
KELP_C_API void kelp_audio_devices_free(kelp_audio_devices* devices);

// How many there are; 0 for null.
KELP_C_API size_t kelp_audio_devices_count(const kelp_audio_devices* devices);

// The name at `index`, from 0 on, valid as long as the names; null beyond them and for null.
KELP_C_API const char* kelp_audio_devices_name(const kelp_audio_devices* devices, size_t index);

// Why the last call with these names that failed did so; as `kelp_player_last_error`.
KELP_C_API const char* kelp_audio_devices_last_error(const kelp_audio_devices* devices);

// Whether hardware decoders are tried, and of which kinds, KELP_HW_DECODE; from the next start on.
KELP_C_API int kelp_player_enable_hw_decoder(kelp_player* player, int enable, int mode);

// Whose clock the streams follow, one of KELP_SYNC_MASTER.
KELP_C_API int kelp_player_set_sync_master(kelp_player* player, int master);

// Sets an option, see docs/options.md: 1 says that the player has the text. A value that an option of the player's
// doesn't have writes a warning to the log and changes nothing.
KELP_C_API int kelp_player_set_option(kelp_player* player, const char* key, const char* value);

// Calls `call` on the worker thread, behind the events that are queued by now. `kelp_player_destroy` waits for it;
// what is queued while that runs may never be called. Null for `release` is allowed.
KELP_C_API int kelp_player_run_in_worker(kelp_player* player, kelp_call call, void* user, kelp_call release);

// Calls `call` on the worker thread after `interval_ms`, 1 or more, and unless `one_shot` isn't 0 again and again. The
// timer's id, 1 or greater; 0 for a failure. Null for `release` is allowed.
KELP_C_API unsigned int kelp_player_add_timer(kelp_player* player, unsigned int interval_ms, int one_shot,
                                              kelp_call call, void* user, kelp_call release);

// Cancels a timer. Its calls that are queued already still come. An id that isn't there is ignored.
KELP_C_API int kelp_player_remove_timer(kelp_player* player, unsigned int timer_id);

// ---- Windows and frame sinks ----

// Shows the pictures in a window, one of any number. `type` is one of KELP_WINDOW_TYPE. The window stays the host's and
// must live until the player was stopped. A second call for a handle changes the size only, and one for a null handle
// does nothing.
KELP_C_API int kelp_player_add_window(kelp_player* player, void* handle, int type, int width, int height);

// Takes a window away, which the player lets go of right before the next drawing. One that isn't there, and a null
// handle, is ignored.
KELP_C_API int kelp_player_remove_window(kelp_player* player, void* handle);

// A window keeps its picture while `pause` isn't 0; for the running playback only. One that isn't there, and a null
// handle, is ignored.
KELP_C_API int kelp_player_pause_window(kelp_player* player, void* handle, int pause);

// Layout of a picture.
enum kelp_pix_fmt {
    KELP_PIX_FMT_NONE = -1,      // none
    KELP_PIX_FMT_YUV420P = 0,    // planar 4:2:0, 8 bits: the layout of every decoded picture
    KELP_PIX_FMT_YUYV422 = 1,    // packed 4:2:2, 8 bits
    KELP_PIX_FMT_YUV422P = 2,    // planar 4:2:2, 8 bits
    KELP_PIX_FMT_YUV420P10 = 3,  // planar 4:2:0, 10 bits in 16, little endian
    KELP_PIX_FMT_PACKET = 4      // bytes of a packet that went past the decoder
};

// One picture, valid during the callback. Nobody may write to it.
typedef struct kelp_frame {
    size_t size;             // as the library knows it
    int pix_format;          // KELP_PIX_FMT_YUV420P or KELP_PIX_FMT_PACKET
    int width;               // as told by `on_size` last; 0 for a packet
    int height;              // likewise
    int rotate;              // clockwise, for display, in degrees from 0 to 359
    int64_t pts_ms;          // its time on the stream's own time line
    int64_t frame_tag;       // of a packet: its time in the stream's own units
    const uint8_t* data[8];  // the planes Y, U and V, chroma of half the size rounded down; of a packet its bytes alone
    int line_size[8];        // bytes from row to row, more than a row has if the option "pictures" is "shared"; of a
                             // packet the number of its bytes
} kelp_frame;

// What a frame sink does. Both come on the player's video thread, which they hold up; all that may be called from there
// is `kelp_player_get_tracks`, `kelp_player_get_statistics`, `kelp_player_take_snapshot`, `kelp_player_run_in_worker`,
// `kelp_player_add_timer` and `kelp_player_remove_timer`.
typedef struct kelp_frame_sink_calls {
    size_t size;  // sizeof(kelp_frame_sink_calls)
    void* user;   // handed to each

    // The size of the pictures to come, and whole pictures per second.
    void (*on_size)(void* user, int width, int height, int fps);
    // One picture. The same one comes again on each repaint, see docs/frame-sink.md.
    void (*on_frame)(void* user, const kelp_frame* frame);
} kelp_frame_sink_calls;

// Makes a frame sink; `calls` is copied. Null without memory, and for null. Nothing that a sink is called with can fail
// but with a player, which keeps the error.
KELP_C_API kelp_frame_sink* kelp_frame_sink_create(const kelp_frame_sink_calls* calls);

// Ends a frame sink. Every player that it was given to was stopped, or has begun to draw anew since it was removed.
KELP_C_API void kelp_frame_sink_destroy(kelp_frame_sink* sink);

// Shows the pictures to `sink` too.
KELP_C_API int kelp_player_add_frame_sink(kelp_player* player, kelp_frame_sink* sink);

// Takes a frame sink away, which the player lets go of right before the next drawing.
KELP_C_API int kelp_player_remove_frame_sink(kelp_player* player, kelp_frame_sink* sink);

// A frame sink gets no picture while `pause` isn't 0; for the running playback only.
KELP_C_API int kelp_player_pause_frame_sink(kelp_player* player, kelp_frame_sink* sink, int pause);

// Writes the picture that is shown into a PNG file, in its own size, as it is seen; from any thread at any time, and
// from a sink. 0 where none has been shown since the start, and if the file can't be written.
KELP_C_API int kelp_player_take_snapshot(kelp_player* player, const char* path);

// ---- Tracks ----

// One track of a source.
typedef struct kelp_track {
    size_t size;              // sizeof(kelp_track)
    int number;               // what `kelp_player_select_track` and the options "video_track" and so on take
    int kind;                 // one of KELP_TRACK_KIND
    const char* codec;        // FFmpeg's short name, such as "h264"; the texts are valid as long as the tracks
    const char* language;     // mostly three letters; empty where the source doesn't say
    const char* title;        // for people to read; empty where there is none
    int is_default;           // the source asks for it where nobody chooses
    int is_attached_picture;  // a single picture that goes with the sound, such as a song's cover
    int is_playable;          // there is a decoder for it, and the options allow it
    int is_played;            // the player has taken it, or the host has selected it since
    int width;                // of a video track's picture before it is turned; 0 where it isn't known
    int height;               // likewise
    int sample_rate;          // of the sound, in Hz; 0 where it isn't known
    int channels;             // of the sound; 0 where it isn't known
    double frame_rate;        // pictures per second, on average; 0 where it isn't known
} kelp_track;

// All tracks of the source, also those that can't be played; none while nothing is prepared. The host frees them with
// `kelp_tracks_free`; they stay valid when the player is gone. Null for null and without memory.
KELP_C_API kelp_tracks* kelp_player_get_tracks(kelp_player* player);

// Frees tracks. Null is allowed.
KELP_C_API void kelp_tracks_free(kelp_tracks* tracks);

// How many there are; 0 for null.
KELP_C_API size_t kelp_tracks_count(const kelp_tracks* tracks);

// Fills `track`, whose size is set, with that at `index`, from 0 on.
KELP_C_API int kelp_tracks_get(const kelp_tracks* tracks, size_t index, kelp_track* track);

// Why the last call with these tracks that failed did so; as `kelp_player_last_error`.
KELP_C_API const char* kelp_tracks_last_error(const kelp_tracks* tracks);

// Plays another track, KELP_TRACK_KIND_VIDEO or KELP_TRACK_KIND_AUDIO, in place of the one of its kind, or shows those
// of KELP_TRACK_KIND_SUBTITLE, of which -1 is none; in playback only, and without a new load. 0 for a track that there
// isn't or that can't be played.
KELP_C_API int kelp_player_select_track(kelp_player* player, int kind, int number);

// ---- Statistics ----

// Where the sound goes.
enum kelp_sound_output {
    KELP_SOUND_OUTPUT_NONE = 0,    // no sound is played, it hasn't begun, or it waits for a device
    KELP_SOUND_OUTPUT_DEVICE = 1,  // to a sound device
    KELP_SOUND_OUTPUT_SILENCE = 2  // nowhere, for want of a device, at its pace all the same
};

// How a playback goes: a snapshot. Out of playback all is 0 and the tracks -1, but for what is said of the player, and,
// while a source is open, of its tracks; counts begin with the start of the playback.
typedef struct kelp_statistics {
    size_t size;  // sizeof(kelp_statistics)

    int restarts;                   // of the source, since the player was made
    int last_failure;               // KELP_FAILURE_STREAM or KELP_FAILURE_VIDEO_DECODE, also a mended one; 0 for none
    double live_delay_ms;           // of a live source: how late the last packet of video came; below 0 for early
    double live_jitter_ms;          // the mean of that distance over some 16 packets
    double packet_sink_ms;          // what the packet sink has taken
    double packet_sink_longest_ms;  // and at most for one call

    int video_track;                   // the number of the track; -1 where none is played
    char video_codec[32];              // FFmpeg's short name, cut to 31 bytes
    char video_decoder[32];            // the decoder's name, likewise; empty without one
    int video_is_hardware;             // hardware decodes it, or helps
    int64_t video_packets;             // read and handed on
    int64_t video_bytes;               // in these
    int64_t video_bit_rate;            // bits that were read in the last second
    int video_queue_count;             // packets that wait to be decoded
    int64_t video_queue_ms;            // from the first of them to the last
    int video_width;                   // of the pictures
    int video_height;                  // likewise
    double video_frame_rate;           // pictures per second, as the source states them; 0 where it doesn't
    int64_t video_decoded;             // pictures that left the decoder
    int64_t video_shown;               // of these, brought to the windows
    int64_t video_late;                // left out, as they came far behind the master; see kelp_player/statistics.h
    int64_t video_repeated;            // times that a picture was drawn again as the next one was far too early
    int video_pictures_count;          // pictures that wait to be shown
    int64_t video_pictures_ms;         // from the first of them to the last
    int64_t video_ahead_of_master_ms;  // by how much the picture runs ahead of what it follows, below 0 behind it

    int audio_track;                   // as for the video, down to the queue
    char audio_codec[32];              // likewise
    char audio_decoder[32];            // likewise
    int audio_is_hardware;             // likewise
    int64_t audio_packets;             // likewise
    int64_t audio_bytes;               // likewise
    int64_t audio_bit_rate;            // likewise
    int audio_queue_count;             // likewise
    int64_t audio_queue_ms;            // likewise
    int audio_sample_rate;             // of the stream, in Hz
    int audio_channels;                // likewise
    int64_t audio_decoded;             // pieces of sound that left the decoder
    int64_t audio_blocks;              // handed to the output
    int64_t audio_underruns;           // gaps: the device asked for sound, and got it later
    int audio_output;                  // one of KELP_SOUND_OUTPUT
    int audio_sound_count;             // pieces that wait to be played
    int64_t audio_sound_ms;            // from the first of them to the last
    int64_t audio_ahead_of_master_ms;  // as for the picture
} kelp_statistics;

// Fills `statistics`, whose size is set. From any thread at any time; waits for nobody.
KELP_C_API int kelp_player_get_statistics(kelp_player* player, kelp_statistics* statistics);

// ---- Packets ----

// In place of a packet's time that the source doesn't state.
#define KELP_NO_TIME INT64_MIN

// A stream whose packets a sink gets. Valid during the callback.
typedef struct kelp_packet_stream {
    size_t size;                   // as the library knows it; the host's for `kelp_packet_sink_put_streams`
    int track;                     // its number, by which packets name it
    int kind;                      // KELP_TRACK_KIND_VIDEO or KELP_TRACK_KIND_AUDIO
    const char* codec;             // FFmpeg's short name, such as "h264"
    int time_base_num;             // its times count in units of so many seconds, as a fraction
    int time_base_den;             // the denominator
    int width;                     // of a video, before it is turned
    int height;                    // likewise
    double frame_rate;             // pictures per second, as the source states them; 0 where it doesn't
    int sample_rate;               // of the sound, in Hz
    int channels;                  // of the sound
    const uint8_t* configuration;  // what the decoder needs beside the packets; null if there is nothing
    int configuration_size;        // in bytes

    // All of this and more, for hosts that link the libavcodec that this library runs with.
    const struct AVCodecParameters* parameters;
} kelp_packet_stream;

// One packet. Valid during the callback.
typedef struct kelp_packet {
    size_t size;          // as the library knows it; the host's for `kelp_packet_sink_put_packet`
    int track;            // of which stream
    int kind;             // KELP_TRACK_KIND_VIDEO or KELP_TRACK_KIND_AUDIO
    const uint8_t* data;  // H.264 and HEVC with start codes or with lengths, as the source has them
    int data_size;        // in bytes
    int is_key_frame;     // decoding can begin with it
    int64_t pts;          // when it is shown, in the stream's units and on the source's own time line; or KELP_NO_TIME
    int64_t dts;          // when it is decoded, likewise
    int64_t duration;     // likewise; 0 if it isn't known

    // The same for hosts that link the libavcodec that this library runs with.
    const struct AVPacket* packet;
} kelp_packet;

// What a packet sink does. All come on the thread that reads, one at a time, and hold it up. What may be called from
// there is what a frame sink may call, and `kelp_player_set_packet_sink`.
typedef struct kelp_packet_sink_calls {
    size_t size;  // sizeof(kelp_packet_sink_calls)
    void* user;   // handed to each

    // The `count` streams of the packets to come; before the first one, and whenever they are others.
    void (*on_streams)(void* user, const kelp_packet_stream* const* streams, size_t count);
    // The next packet.
    void (*on_packet)(void* user, const kelp_packet* packet);
    // What comes next doesn't go on from what came last.
    void (*on_gap)(void* user);
    // No packet comes behind this, unless `on_streams` does.
    void (*on_end)(void* user);
} kelp_packet_sink_calls;

// Makes a packet sink of the host's; `calls` is copied. Null without memory, and for null.
KELP_C_API kelp_packet_sink* kelp_packet_sink_create(const kelp_packet_sink_calls* calls);

// Ends a packet sink of the host's, not a recorder's. It was taken back from every player, or these were stopped and
// aren't played again.
KELP_C_API void kelp_packet_sink_destroy(kelp_packet_sink* sink);

// Why the last call with this sink that failed did so; as `kelp_player_last_error`.
KELP_C_API const char* kelp_packet_sink_last_error(const kelp_packet_sink* sink);

// Gives `sink` the packets of what is played, or with null nobody; at any time. When this has returned, the sink before
// isn't called any more; it waits for a call that is under way, for a second at most.
KELP_C_API int kelp_player_set_packet_sink(kelp_player* player, kelp_packet_sink* sink);

// Hands streams to a sink, mostly from a sink of the host's to that of a recorder; for one thread at a time, as the
// next three. What the streams point at is needed during the call only. Null for `streams` is allowed where `count` is
// 0.
KELP_C_API int kelp_packet_sink_put_streams(kelp_packet_sink* sink, const kelp_packet_stream* const* streams,
                                            size_t count);
// Hands a packet on; its data may be null. A recorder takes those that have an AVPacket, as all of a player's do.
KELP_C_API int kelp_packet_sink_put_packet(kelp_packet_sink* sink, const kelp_packet* packet);
// Hands a gap on.
KELP_C_API int kelp_packet_sink_put_gap(kelp_packet_sink* sink);
// Hands the end on.
KELP_C_API int kelp_packet_sink_put_end(kelp_packet_sink* sink);

// ---- Subtitles ----

// One subtitle of text. Valid during the callback.
typedef struct kelp_subtitle_line {
    size_t size;         // as the library knows it
    int64_t start_ms;    // on the stream's own time line
    int64_t end_ms;      // the first moment at which it is gone; -1 where only the next one tells
    const char* text;    // to be read, with "\n" between its lines
    const char* styled;  // the same with its styles: a line of a script of ASS
} kelp_subtitle_line;

// A drawn part of what is to be seen. Valid during the callback.
typedef struct kelp_subtitle_picture {
    size_t size;            // as the library knows it
    int x;                  // where it goes, on a screen of the size that `get_picture_size` has given
    int y;                  // likewise
    int width;              // likewise
    int height;             // likewise
    int pixel_width;        // its own size: that of above for text; for subtitles that are pictures their own, to be
    int pixel_height;       // scaled
    const uint8_t* pixels;  // rows without gaps, four bytes each: red, green, blue, and how much they cover, 0 to 255
} kelp_subtitle_picture;

// What is to be seen at a moment. Valid during the callback.
typedef struct kelp_subtitles {
    size_t size;                                   // as the library knows it
    int64_t time_ms;                               // of the film's picture that it goes with
    const char* script;                            // the head that the styled lines belong to
    const kelp_subtitle_line* const* lines;        // by their start; none for subtitles that are pictures
    size_t line_count;                             // of these
    const kelp_subtitle_picture* const* pictures;  // the first one lowest; none unless they are wanted
    size_t picture_count;                          // of these
} kelp_subtitles;

// What a subtitle sink does. Both come on the player's subtitle thread. What may be called from there is what a frame
// sink may call, and `kelp_player_set_subtitle_sink`.
typedef struct kelp_subtitle_sink_calls {
    size_t size;  // sizeof(kelp_subtitle_sink_calls)
    void* user;   // handed to each

    // What is to be seen has changed: it is all that stands now, nothing where all has gone.
    void (*on_subtitles)(void* user, const kelp_subtitles* subtitles);
    // How large the screen is that subtitles are to be drawn for, 0 by 0 at first, for which nothing is drawn; asked
    // before each drawing.
    void (*get_picture_size)(void* user, int* width, int* height);
} kelp_subtitle_sink_calls;

// Makes a subtitle sink, for a host that shows subtitles itself; `calls` is copied. Null without memory, and for null.
// Errors are kept as with a frame sink.
KELP_C_API kelp_subtitle_sink* kelp_subtitle_sink_create(const kelp_subtitle_sink_calls* calls);

// Ends a subtitle sink. It was taken back from every player, or these were stopped and aren't played again.
KELP_C_API void kelp_subtitle_sink_destroy(kelp_subtitle_sink* sink);

// Gives `sink` the subtitles that are shown, or with null nobody; at any time. When this has returned, the sink before
// isn't called any more; it waits for a call that is under way, for a second at most.
KELP_C_API int kelp_player_set_subtitle_sink(kelp_player* player, kelp_subtitle_sink* sink);

// ---- Recorders ----

// What a recorder tells, on a thread of its own. From there only `kelp_recorder_is_recording` may be called.
typedef struct kelp_recorder_events {
    size_t size;  // sizeof(kelp_recorder_events)
    void* user;   // handed to each

    // A file was created, or overwritten.
    void (*on_file_begun)(void* user, const char* path);
    // A file is complete and closed, and holds so much.
    void (*on_file_ended)(void* user, const char* path, int64_t duration_ms);
    // So many packets were left out, as the disk is slower than the source.
    void (*on_packets_lost)(void* user, int packets);
    // The recording has ended by itself; `reason` is for people to read. What was written before stays, and plays.
    void (*on_failed)(void* user, const char* path, const char* reason);
} kelp_recorder_events;

// When a recorder begins the next file, and what it may hold back. 0 in a field is what null for all means.
typedef struct kelp_recorder_limits {
    size_t size;            // sizeof(kelp_recorder_limits)
    int64_t file_ms;        // at the first key frame behind so much; 0 for no limit
    int64_t file_bytes;     // at the first key frame behind so many bytes; 0 for no limit
    int64_t waiting_bytes;  // what may wait in memory to be written; 0 for 64 MiB
} kelp_recorder_limits;

// Makes a recorder; `events` is copied, null for none. Null without memory.
KELP_C_API kelp_recorder* kelp_recorder_create(const kelp_recorder_events* events);

// Stops and ends a recorder, which no player has as its sink any more.
KELP_C_API void kelp_recorder_destroy(kelp_recorder* recorder);

// Why the last call with this recorder that failed did so, or why the recording has ended by itself since; as
// `kelp_player_last_error`.
KELP_C_API const char* kelp_recorder_last_error(const kelp_recorder* recorder);

// The recorder's sink, for `kelp_player_set_packet_sink`. It goes with the recorder. Null for null.
KELP_C_API kelp_packet_sink* kelp_recorder_get_sink(kelp_recorder* recorder);

// Records into `path`, which ends in ".mp4", ".mov", ".mkv" or ".ts", from the next key frame on; `limits` null for
// none. 0 with another ending, and until what was begun is stopped, also where that has failed. For one thread at a
// time, with the next.
KELP_C_API int kelp_recorder_start(kelp_recorder* recorder, const char* path, const kelp_recorder_limits* limits);

// Ends the recording: waits until what was read by now is written.
KELP_C_API int kelp_recorder_stop(kelp_recorder* recorder);

// 1 between start and stop, unless it has failed; 0 for null.
KELP_C_API int kelp_recorder_is_recording(const kelp_recorder* recorder);

// ---- Clocks ----

// A clock of the host's. All are called at every frame, on several threads at once, and must answer at once.
typedef struct kelp_clock_calls {
    size_t size;  // sizeof(kelp_clock_calls)
    void* user;   // handed to each

    // The reading on the time line of the host. Must not be null.
    int64_t (*get_time_ms)(void* user);
    // How far a stream may be away from this clock before it stops trying to follow; null for 10000, which is the
    // least.
    int64_t (*get_no_sync_threshold_ms)(void* user);
    // Not 0 for a clock that picture and sound wait for, however far they run ahead of it; null for 1.
    int (*is_force_sync)(void* user);
} kelp_clock_calls;

// Makes a clock that runs by the system's wall clock, which whoever sets the date moves, at speed 1, reads `start_ms`
// and is always obeyed. Streams that are `no_sync_threshold_ms` away, 10000 at least, don't try to follow. Null without
// memory.
KELP_C_API kelp_clock* kelp_clock_create(int64_t start_ms, int64_t no_sync_threshold_ms);

// Makes a clock of the host's own; `calls` is copied. Null without memory, for null, and without `get_time_ms`.
KELP_C_API kelp_clock* kelp_clock_create_own(const kelp_clock_calls* calls);

// Ends a clock, which was taken back from every player, or these are gone.
KELP_C_API void kelp_clock_destroy(kelp_clock* clock);

// Why the last call with this clock that failed did so; as `kelp_player_last_error`.
KELP_C_API const char* kelp_clock_last_error(const kelp_clock* clock);

// The reading; 0 for null.
KELP_C_API int64_t kelp_clock_get_time_ms(kelp_clock* clock);
// Stops the clock at its reading. 0 for a clock of the host's own, as with the next three.
KELP_C_API int kelp_clock_pause(kelp_clock* clock);
// Lets it go on from there.
KELP_C_API int kelp_clock_resume(kelp_clock* clock);
// Sets the reading. A paused clock stays paused.
KELP_C_API int kelp_clock_reset(kelp_clock* clock, int64_t time_ms);
// Changes its rate from now on, 1.0 being that of the system; below 0 it runs backwards. The tempo of players is a
// setting of their own.
KELP_C_API int kelp_clock_set_speed(kelp_clock* clock, double speed);

// Follows `clock` with KELP_SYNC_MASTER_CLOCK; null for the player's own. When this has returned, the clock before
// isn't read any more; it waits for an answer that is under way, for a second at most.
KELP_C_API int kelp_player_set_clock(kelp_player* player, kelp_clock* clock);

// Changes the offset of `kelp_player_set_data_source` during playback and seeks to where the clock is on the stream. 0
// if no clock is set, unless it is the offset already. For one thread at a time.
KELP_C_API int kelp_player_set_offset(kelp_player* player, int offset_ms);

// By how many percent the sound may be stretched to follow a clock where its tempo can't be changed otherwise, 0 to 99;
// 10 at the start, for the whole process. `kelp_clock_set_speed` sets it too.
KELP_C_API void kelp_set_sample_correction_percent_max(int percent);
// Gives it.
KELP_C_API int kelp_get_sample_correction_percent_max(void);

// ---- The muxer ----

// Video codecs that have a number.
enum kelp_video_codec {
    KELP_VIDEO_CODEC_NONE = -1,      // none
    KELP_VIDEO_CODEC_MSMPEG4V1 = 0,  // Microsoft's MPEG-4, version 1
    KELP_VIDEO_CODEC_MSMPEG4V2 = 1,  // version 2
    KELP_VIDEO_CODEC_MSMPEG4V3 = 2,  // version 3
    KELP_VIDEO_CODEC_H264 = 3,       // H.264
    KELP_VIDEO_CODEC_HEVC = 4,       // H.265
    KELP_VIDEO_CODEC_MPEG4 = 5,      // MPEG-4, part 2
    KELP_VIDEO_CODEC_MJPEG = 6,      // Motion JPEG
    KELP_VIDEO_CODEC_270 = 7,        // what FFmpeg 6.1 numbers 270: packets are whole pictures
    KELP_VIDEO_CODEC_OTHER = 8       // another one, which the codec parameters name
};

// The video that a muxer writes.
typedef struct kelp_muxer_video {
    size_t size;     // sizeof(kelp_muxer_video)
    int codec;       // one of KELP_VIDEO_CODEC
    int width;       // of the picture
    int height;      // likewise
    int pix_format;  // of the encoded picture, one of KELP_PIX_FMT

    // With KELP_VIDEO_CODEC_OTHER alone: the codec, and what a container has to know of it; copied. Null otherwise.
    const struct AVCodecParameters* parameters;
} kelp_muxer_video;

// Makes a muxer. It has no thread and no lock: one call at a time. Null without memory.
KELP_C_API kelp_muxer* kelp_muxer_create(void);

// Closes and ends a muxer. A file without `kelp_muxer_stop` before can't be played.
KELP_C_API void kelp_muxer_destroy(kelp_muxer* muxer);

// Why the last call with this muxer that failed did so; as `kelp_player_last_error`.
KELP_C_API const char* kelp_muxer_last_error(const kelp_muxer* muxer);

// Sets an option for the outputs that are opened from now on, as FFmpeg's muxers take them. For RTSP "timeout", in
// microseconds, should be set.
KELP_C_API int kelp_muxer_set_option(kelp_muxer* muxer, const char* key, const char* value);

// Opens `path`, which begins with "rtsp://" or "rtp://" or holds ".mp4", and writes the header. `time_base` is in ticks
// per second: 90000 for RTSP and RTP, 10000 or more for MP4. Blocks for as long as a server takes to answer.
KELP_C_API int kelp_muxer_open(kelp_muxer* muxer, const char* path, const kelp_muxer_video* video, int64_t time_base);

// Writes one frame, the `data_size` bytes at `data`, which stay the caller's; H.264 and HEVC with start codes, and the
// first frame a key frame with its parameter sets in front. Times are microseconds and increase.
KELP_C_API int kelp_muxer_output_frame(kelp_muxer* muxer, const uint8_t* data, unsigned int data_size, int64_t pts_us,
                                       int is_key_frame);

// Writes the end of the output. Nothing can be written then.
KELP_C_API int kelp_muxer_stop(kelp_muxer* muxer);

// Closes the output. Another one may be opened then.
KELP_C_API int kelp_muxer_close(kelp_muxer* muxer);

// ---- Datagrams ----

// Makes a receiver. `call` gets each datagram, of up to 2000 bytes, on the receiver's thread; it must not stop or
// destroy it. Null for `call` drops them. Null without memory.
KELP_C_API kelp_udp_receiver* kelp_udp_receiver_create(void (*call)(void* user, const uint8_t* data, int data_size),
                                                       void* user);

// Stops and ends a receiver.
KELP_C_API void kelp_udp_receiver_destroy(kelp_udp_receiver* receiver);

// Why the last call with this receiver that failed did so; as `kelp_player_last_error`.
KELP_C_API const char* kelp_udp_receiver_last_error(const kelp_udp_receiver* receiver);

// Opens an IPv4 port on all interfaces and starts the thread. 1 also if it runs already. This, stopping and destroying
// are for one thread at a time.
KELP_C_API int kelp_udp_receiver_start(kelp_udp_receiver* receiver, uint16_t port);

// Closes the port and waits for the thread.
KELP_C_API int kelp_udp_receiver_stop(kelp_udp_receiver* receiver);

// Makes a sender. It has no thread and no lock: one call at a time. Null without memory.
KELP_C_API kelp_udp_sender* kelp_udp_sender_create(void);

// Stops and ends a sender.
KELP_C_API void kelp_udp_sender_destroy(kelp_udp_sender* sender);

// Why the last call with this sender that failed did so; as `kelp_player_last_error`.
KELP_C_API const char* kelp_udp_sender_last_error(const kelp_udp_sender* sender);

// Opens a socket for sending to an IPv4 address, as dotted text, and port; a second start ends the first.
KELP_C_API int kelp_udp_sender_start(kelp_udp_sender* sender, const char* address, uint16_t port);

// Sends one datagram, waiting for room if need be. The number of bytes sent, or -1 for a failure.
KELP_C_API int kelp_udp_sender_send(kelp_udp_sender* sender, const uint8_t* data, int data_size);

// Closes the socket.
KELP_C_API int kelp_udp_sender_stop(kelp_udp_sender* sender);

#ifdef __cplusplus
}
#endif

#endif
