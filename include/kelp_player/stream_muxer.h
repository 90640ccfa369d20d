#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "kelp_player/export.h"

struct AVFormatContext;
struct AVOutputFormat;
struct AVStream;

namespace kelp {

class CodecInfo;

// Writes one encoded video stream to an RTSP or RTP destination or into an MP4 file. It takes frames that are encoded
// already; there is no sound.
//
// Order of use: setOption as needed, open, outputFrame any number of times, stop, close. There is no thread and
// no lock behind it: a call does its work, network included, before it returns, and the host makes one call at a time.
// A failure is a false and an error line in the log.
//
// What the frames must hold. `open` tells the output nothing but codec, size and pixel format: parameters of the codec
// that stand outside the frames, as an MP4 file or a session description has them, are not copied, but for those of
// VIDEO_CODEC_OTHER. So H.264 and HEVC frames must come with start codes (Annex B), one whole access unit each, and
// bring their parameter sets (SPS and PPS, for HEVC also VPS) with them:
// - MP4: the first frame that is written must be a key frame with its parameter sets in front. The file's header is
//   made from that frame alone; otherwise the file is written without an error, but no player can open it.
// - RTSP and RTP: every key frame should have them in front, as a receiver can start at such a frame only. An encoder
//   often has a switch for this ("repeat headers").
// An MPEG-4 stream should likewise begin with its stream headers.
//
// An MP4 file holds every frame that was given, but players leave out frames whose time is below 0, as its edit list
// says, and many leave out the last one: every frame is written without a duration, so that one has none. With the
// option "use_editlist" set to "0" all are shown, and the first one's time becomes 0.
class KELP_PLAYER_API StreamMuxer {
public:
    StreamMuxer();
    StreamMuxer(const StreamMuxer&) = delete;
    StreamMuxer& operator=(const StreamMuxer&) = delete;
    // Stops and closes.
    virtual ~StreamMuxer();

    // Sets an option for the outputs that are opened from now on, as FFmpeg's muxers take them; both texts are copied.
    // A key that the output doesn't know has no effect; a null key or value is an error line and nothing more.
    //
    // "rtsp_transport" is "tcp" unless set otherwise: RTP packets run inside the RTSP connection. For RTSP a host
    // should set "timeout", in microseconds: it bounds every wait for the server, and without it a silent server holds
    // up `open` and `outputFrame` for good. A server that stops reading in mid-stream holds up every packet by that
    // time, and what doesn't get through is lost without an error; one that closes the connection makes `outputFrame`
    // fail. "stimeout", preset to "500000", was that key in FFmpeg releases before 5.0; later ones don't know it.
    void setOption(const char* key, const char* value);

    // Opens the output and writes its header. Blocks for as long as a server takes to answer.
    //
    // `filePath` begins with "rtsp://" or "rtp://", or holds ".mp4" and is a file that is created or overwritten;
    // "rtp://" takes an address and a port; the next port gets the control packets. Of `codecInfo` the video codec,
    // size and pixel format are read, during the call only; where the codec is VIDEO_CODEC_OTHER, `videoParameters` has
    // its number, and what a container has to know of it. For "rtp://" no session description is made: the receiver
    // needs one from the host, with payload type 96, or 26 for MJPEG.
    //
    // `timeBase` is the number of ticks per second that the output counts in. RTSP and RTP take 90000 and MP4 any
    // number from 10000 on; with another one they run at a wrong speed. Less than 1, or more than an int holds, fails.
    //
    // False on failure; `close` clears up then, and another `open` may follow. An output that is still open is closed
    // first. The log's last error line, by [StreamMuxer]:
    //
    //   "open, error filePath NAME"                  neither "rtsp://" nor "rtp://" nor ".mp4" in it
    //   "open, error codecInfo or timeBase N"        no CodecInfo, or a time base out of range
    //   "open, broken parameter sets"                in `videoParameters`, for an MP4 file
    //   "open, Could not open output URL 'NAME'"     the file can't be created, or the address can't be had
    //   "open, Error occurred when opening output"   the server refused or didn't answer, or the output doesn't take
    //       the codec or the size; FFmpeg's own lines on standard error say which
    bool open(const std::string& filePath, std::shared_ptr<CodecInfo> codecInfo, int64_t timeBase);

    // Does nothing and returns false, which is no failure.
    bool start();

    // Writes one frame: the `size` bytes at `data`, which stay the caller's. `ptsUs` is its time in microseconds, and
    // `keyFrame` says that decoding can start with it.
    //
    // Frames are written in the order in which they come, with a decoding time equal to `ptsUs`, so a stream with
    // reordered frames (B frames) can't be written. Times strictly increase: a frame whose time isn't later than the
    // one before it is written one tick after that one, and this goes on over a second `open` of the same object.
    //
    // False if the output isn't open, if there is no data, or if the write failed; the next frame may be tried. A write
    // can fail late: what goes into a file is collected, so a full disk may show itself some frames later or in `stop`,
    // as an error line in the log.
    // That line is "outputFrame, av_interleaved_write_frame failed, ret:CODE, REASON", or "outputFrame, not open", or
    // "outputFrame, error data, size:N", or "outputFrame, broken parameter sets": the description of an MP4 file is
    // made of the first frame, which then isn't taken. A full disk and a lost server need a new `open`.
    bool outputFrame(unsigned char* data, unsigned int size, int64_t ptsUs, bool keyFrame);

    // Writes the end of the output; without it an MP4 file can't be played. Nothing more can be written then. Does
    // nothing if no output is open.
    void stop();

    // Closes the output and frees it. Without a `stop` before, a stream is ended now, but a file never.
    void close();

private:
    // Ends the output, if it was begun and not ended yet.
    void writeEnd();

    AVFormatContext* formatContext_ = nullptr;      // owned; null while closed
    const AVOutputFormat* outputFormat_ = nullptr;  // the context's
    AVStream* stream_ = nullptr;                    // the context's only one
    int64_t timeBase_ = 90000;                      // ticks per second
    int64_t lastPts_ = -1;                          // last time stamp written, in ticks; -1 for none
    std::map<std::string, std::string> options_;    // for the muxer
    bool headerWritten_ = false;                    // frames may be written, and the end is yet to come
};

}  // namespace kelp
