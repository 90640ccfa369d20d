#pragma once

#include <cstdint>

// Plain values that cross the library's interface. The numbers are fixed: hosts may store them.
namespace kelp {

// Whose clock the other streams follow.
enum SyncMasterMode : int32_t {
    SYNC_MASTER_CLOCK = 0,  // the player's internal clock, or the host's own if one was handed in; the default
    SYNC_MASTER_AUDIO = 1,  // the sound; falls back to SYNC_MASTER_CLOCK where there is none
    SYNC_MASTER_VIDEO = 2,  // the picture; falls back to SYNC_MASTER_AUDIO where there is none
};

// Which kinds of hardware decoding are tried before software, as two bits.
enum HwDecodeMode : int32_t {
    HW_DECODE_NONE = 0,     // software only
    HW_DECODE_DECODER = 1,  // dedicated hardware decoders
    HW_DECODE_ACCEL = 2,    // hardware acceleration of the software decoder
    HW_DECODE_ALL = 3,      // both, dedicated decoders first; the default
};

// What a window handle is.
enum WindowType : int32_t {
    WINDOW_TYPE_QT_WINID = 1,  // a native window id as a UI toolkit hands it out (on X11 the window's XID)
    // An SDL_Window* of the host, which stays the host's and is never destroyed here. The player makes a renderer for
    // it on a thread of its own: a window that was not made with SDL_WINDOW_OPENGL is made anew by SDL at that moment,
    // and a host that waits in SDL_WaitEvent may then be woken through the old one. Make the window with that flag,
    // and poll.
    WINDOW_TYPE_SDL = 2,
    WINDOW_TYPE_EXTERN = 3,  // an ExternFrameSink* of the host
};

// Layout of a picture.
enum PixFormat : int32_t {
    PIX_FMT_NONE = -1,
    PIX_FMT_YUV420P = 0,    // planar 4:2:0, 8 bits: the layout of every decoded picture
    PIX_FMT_YUYV422 = 1,    // packed 4:2:2, 8 bits
    PIX_FMT_YUV422P = 2,    // planar 4:2:2, 8 bits
    PIX_FMT_YUV420P10 = 3,  // planar 4:2:0, 10 bits in 16, little endian
    PIX_FMT_PACKET = 4,     // undecoded bytes of a packet that went past the decoder
};

// Video codecs that the library handles. Any other codec is VIDEO_CODEC_NONE and isn't played, unless all are wanted.
enum VideoCodecType : int32_t {
    VIDEO_CODEC_NONE = -1,
    VIDEO_CODEC_MSMPEG4V1 = 0,
    VIDEO_CODEC_MSMPEG4V2 = 1,
    VIDEO_CODEC_MSMPEG4V3 = 2,
    VIDEO_CODEC_H264 = 3,
    VIDEO_CODEC_HEVC = 4,
    VIDEO_CODEC_MPEG4 = 5,
    VIDEO_CODEC_MJPEG = 6,
    // What FFmpeg 6.1 numbers 270, and 5.1 doesn't know: packets are whole pictures and reach the host's frame sink
    // undecoded.
    VIDEO_CODEC_270 = 7,
    // Another one, which the codec parameters name. With the option "codecs" = "all" alone.
    VIDEO_CODEC_OTHER = 8,
};

// Audio codecs that the library handles. Any other codec is AUDIO_CODEC_NONE and isn't played, unless all are wanted.
enum AudioCodecType : int32_t {
    AUDIO_CODEC_NONE = -1,
    AUDIO_CODEC_MP3 = 0,
    AUDIO_CODEC_AAC = 1,
    AUDIO_CODEC_VORBIS = 2,
    AUDIO_CODEC_PCM_ALAW = 3,
    AUDIO_CODEC_OTHER = 4,  // another one, which the codec parameters name; with the option "codecs" = "all" alone
};

}  // namespace kelp
