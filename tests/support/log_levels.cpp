#include "support/log_levels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>

namespace kelp::test {

namespace {

constexpr int kError = 1;
constexpr int kWarn = 2;
constexpr int kInfo = 3;
constexpr int kDebug = 4;

// Of the tests' own lines.
constexpr std::string_view kTestTags[] = {"Low", "Other", "Tag"};

// A line with this piece of text.
struct Due {
    int level;
    std::string_view tag;
    std::string_view piece;
};

// The lines that are not due at Debug.
constexpr Due kDue[] = {
    {kInfo, "KelpPlayer", "ffmpeg config:"},
    {kError, "KelpPlayer", "Could not initialize SDL - "},
    {kError, "KelpPlayer", "(Did you set the DISPLAY variable?)"},
    {kError, "KelpPlayer", "loadFileAsync, no file name"},
    {kWarn, "KelpPlayer", "setOption, "},
    {kError, "KelpPlayer", "takeSnapshot, no path"},

    {kError, "ExternSyncWrapper", "setExternSyncClock, the host's clock is still being read after "},

    {kError, "PacketOutlet", "setPacketSink, the host's packet sink is still being called after "},

    {kError, "TarnPlayer", "create, the engine can't be started"},
    {kError, "TarnPlayer", "setDataSource, no url"},
    {kError, "TarnPlayer", ", error state:"},
    {kInfo, "TarnPlayer", "onVideoSizeUpdated, width:"},
    {kInfo, "TarnPlayer", "onPrepared, hasVideo:"},
    {kInfo, "TarnPlayer", "onFailed, errorType:"},
    {kInfo, "TarnPlayer", "onFailed, add retry timer, retryTimerId_:"},
    {kInfo, "TarnPlayer", "onFirstPacket, ptsMs:"},
    {kInfo, "TarnPlayer", "onFirstVideoFrame, ptsMs:"},
    {kInfo, "TarnPlayer", "onFirstAudioFrame, ptsMs:"},
    {kInfo, "TarnPlayer", "onCompleted"},
    {kInfo, "TarnPlayer", "onDurationUpdated, durationMs:"},

    {kInfo, "PlayTask", "LoadVideoFile, fileName:"},
    {kInfo, "PlayTask", "play, streamInfo:"},
    {kError, "PlayTask", "play, no source is open"},
    {kError, "PlayTask", "play, failed open audio decoder"},
    {kError, "PlayTask", "play, failed start audio decode thread"},
    {kError, "PlayTask", "play, start audio play thread failed"},
    {kError, "PlayTask", "play, failed open video decode thread"},
    {kError, "PlayTask", "play, failed start video decode thread"},
    {kError, "PlayTask", "play, start video play thread failed"},
    {kError, "PlayTask", "play, has no video and audio thread"},
    {kInfo, "PlayTask", "stop begin"},
    {kInfo, "PlayTask", "stop end"},
    {kInfo, "PlayTask", "onFirstPakcet, packet.info: "},
    {kInfo, "PlayTask", "onFirstVideoFrame, framePtsMs:"},
    {kInfo, "PlayTask", "onFirstAudioFrame, framePtsMs:"},
    {kInfo, "PlayTask", ", seekable:"},

    {kInfo, "StreamParser", "start begin\n"},
    {kInfo, "StreamParser", "start end, succeed\n"},
    {kError, "StreamParser", "start end, error, stop requested:"},
    {kInfo, "StreamParser", "stop\n"},
    {kInfo, "StreamParser", "close\n"},
    {kInfo, "StreamParser", "open filePath:"},
    {kError, "StreamParser", "Could not allocate context."},
    {kError, "StreamParser", "open input file "},
    {kError, "StreamParser", "find stream info "},
    {kInfo, "StreamParser", "Start time of this file is "},
    {kWarn, "StreamParser", ": could not seek to position "},
    {kWarn, "StreamParser", " is none that can be played, taking auto"},
    {kInfo, "StreamParser", " is the sound now"},
    {kInfo, "StreamParser", " is the subtitles now"},
    {kInfo, "StreamParser", "no subtitles are read now"},
    {kInfo, "StreamParser", " is the video now"},
    {kError, "PlayTask", "selectTrack, kind:"},
    {kWarn, "PlayTask", " is none that can be played, taking auto"},
    {kWarn, "PlayTask", "takeSnapshot, there is no picture"},
    {kWarn, "PlayTask", "stepFrame, "},
    {kWarn, "PlayTask", "setLoop, "},
    {kWarn, "StreamParser", "the loop is given up, there is nothing in it\n"},
    {kError, "VideoDecodeThread", "changeTrack, failed open video decoder"},
    {kError, "StreamParser", "No avaliable stream have found"},
    {kWarn, "StreamParser", " isn't played: "},
    {kError, "StreamParser", " can't be played: "},
    {kError, "StreamParser", " is left out: "},
    {kError, "PlayTask", "nothing of it could be decoded"},
    {kError, "StreamParser", "Could not copy codec params"},
    {kError, "StreamParser", "No codec could be found with id "},
    {kError, "StreamParser", "found not h264_mp4toannexb or hevc_mp4toannexb"},
    {kError, "StreamParser", "Running... read failed, ret:"},
    {kInfo, "StreamParser", "Running... end of file, foundKeyFrame_:"},
    {kWarn, "StreamParser", "not key frame, this_pts:"},
    {kInfo, "StreamParser", "found first key frame, pts:"},
    {kError, "StreamParser", "dispatch packet: unknown stream id:"},
    {kError, "StreamParser", "h264_mp4toannexb filter failed to "},
    {kError, "StreamParser", "processSeekRequest, seek failed, ret:"},

    {kInfo, "FFVideoDecoder", "open, codecType:"},
    {kError, "FFVideoDecoder", "open, unknown codec type:"},
    {kInfo, "FFVideoDecoder", "open, pix fmt: "},
    {kError, "FFVideoDecoder", "open, could not find video codec, "},
    {kInfo, "FFVideoDecoder", "open, found video codec by name:"},
    {kError, "FFVideoDecoder", "open, try to open hw codec, alloc ctx failed"},
    {kInfo, "FFVideoDecoder", "open, open hw codec "},
    {kWarn, "FFVideoDecoder", "open, have no hw decoder for "},
    {kInfo, "FFVideoDecoder", "open, use sw codec..."},
    {kError, "FFVideoDecoder", "open, could not alloc codec context, type:"},
    {kError, "FFVideoDecoder", "open, empty device name"},
    {kInfo, "FFVideoDecoder", "open, try hw accel, name:"},
    {kError, "FFVideoDecoder", "open, Device type "},
    {kError, "FFVideoDecoder", " does not support device type "},
    {kError, "FFVideoDecoder", "can't found support pix"},
    {kError, "FFVideoDecoder", "can't create device context"},
    {kError, "FFVideoDecoder", "Failed to create specified HW device."},
    {kInfo, "FFVideoDecoder", "open, open hw accel "},
    {kWarn, "FFVideoDecoder", "open, have no hw accel for "},
    {kError, "FFVideoDecoder", "open, count not open video codec, type:"},
    {kError, "FFVideoDecoder", "open, count not alloc output frame"},
    {kInfo, "FFVideoDecoder", "open succeed, codecType:"},
    {kWarn, "FFVideoDecoder", "getHwFormat, no surfaces for this stream"},
    {kError, "FFVideoDecoder", "getHwFormat, Failed to get HW surface format."},
    {kError, "FFVideoDecoder", "Error transferring the data to system memory"},
    {kError, "FFVideoDecoder", "notify onVideoDecodeFailed"},
    {kError, "FFVideoDecoder", "DeliverVideoFrame, get swscale context failed"},
    {kError, "FFVideoDecoder", "DeliverVideoFrame, picture size not supported, "},
    {kError, "FFVideoDecoder", "DeliverVideoFrame, no memory for a picture of "},
    {kWarn, "ToneMapper", "map, can't map the colours of "},

    {kInfo, "FFAudioDecoder", "open, codecType:"},
    {kError, "FFAudioDecoder", "open, could not find audio codec"},
    {kError, "FFAudioDecoder", "open, could not alloc codec context, type:"},
    {kError, "FFAudioDecoder", "open, count not open audio codec type:"},
    {kError, "FFAudioDecoder", "open, count not alloc output frame"},
    {kInfo, "FFAudioDecoder", "open succeed, codecType:"},
    {kInfo, "FFAudioDecoder", "setOutputSpec, channels:"},
    {kError, "FFAudioDecoder", "setOutputSpec, not supported sample format "},
    {kError, "FFAudioDecoder", "insertPacket, avcodec_send_packet failed, ret:"},
    {kInfo, "FFAudioDecoder", "deliverAudioFrame, ("},
    {kError, "FFAudioDecoder", "deliverAudioFrame swr_init() failed, swrContext_:"},
    {kError, "FFAudioDecoder", "deliverAudioFrame av_samples_get_buffer_size() failed"},
    {kError, "FFAudioDecoder", "swr_set_compensation() failed"},
    {kError, "FFAudioDecoder", "deliverAudioFrame, swr_convert() failed"},
    {kWarn, "FFAudioDecoder", "deliverAudioFrame, audio buffer is probably too small"},
    {kError, "FFAudioDecoder", "deliverAudioFrame, drop bad frame, channels:"},
    {kError, "FFAudioDecoder", "deliverAudioFrame, drop frame that the resampler wasn't made for, "},

    {kError, "AudioDecodeThread", "play, failed open audio decoder"},

    {kInfo, "BasePlayThread", "Run, finish skip frame, skip count:"},
    {kInfo, "BasePlayThread", " found\n"},

    {kInfo, "SDLAudioOutput", "init, ch:"},
    {kInfo, "SDLAudioOutput", "going on with the sound device "},
    {kWarn, "SDLAudioOutput", "the sound device "},
    {kError, "SDLAudioOutput", "Invalid sample rate or channel count!"},
    {kError, "SDLAudioOutput", "Invalid sample format!"},
    {kError, "SDLAudioOutput", "SDL_OpenAudioDevice failed! "},
    {kError, "SDLAudioOutput", "SDL advised audio format "},
    {kInfo, "SDLAudioOutput", "wanted spec:("},

    {kWarn, "SteadyAudioOutput", ", going on "},

    {kInfo, "SDLRender", "window type is QT winid, "},
    {kError, "SDLRender", "Failed to create window: "},
    {kInfo, "SDLRender", "unknown window type: "},
    {kWarn, "SDLRender", "Failed to initialize a hardware accelerated renderer: "},
    {kInfo, "SDLRender", "Initialized "},
    {kError, "SDLRender", "Failed to create window or renderer: "},
    {kError, "SDLRender", "SDL_UpdateYUVTexture failed"},
    {kError, "SDLRender", "SDL_RenderCopyEx faield"},

    {kError, "Snapshot", "writeSnapshot, "},

    {kError, "AssLibrary", " isn't there: subtitles of text aren't drawn"},
    {kError, "SubtitleDecoder", "open, no decoder for "},
    {kWarn, "SubtitleDecoder", " is left out: "},
    {kWarn, "SubtitleDecoder", "there is no charset "},
    {kInfo, "SubtitleDecoder", "the text isn't UTF-8 and is taken for "},
    {kError, "SubtitleFile", " is no file"},
    {kError, "SubtitleFile", " can't be read: "},
    {kError, "SubtitleFile", " has no subtitles"},
    {kWarn, "SubtitleFile", " is read in part"},
    {kWarn, "SubtitleFonts", "the film's fonts are too large, some are left out"},
    {kError, "SubtitleScreen", "there is no thread for subtitles: "},
    {kError, "SubtitleScreen", "the host's subtitle sink is still being called after "},
    {kWarn, "TextDrawer", " lines at once are too many and aren't drawn"},

    {kError, "Recorder", "start, "},
    {kInfo, "Recorder", ", begun\n"},
    {kInfo, "Recorder", ", ended, "},
    {kWarn, "Recorder", " packets were left out: "},
    {kWarn, "Recorder", " doesn't go into it and is left out"},
    {kError, "Recorder", ", the recording has ended: "},

    {kError, "StreamMuxer", "setOption, no key or value"},
    {kError, "StreamMuxer", "open, error filePath "},
    {kError, "StreamMuxer", "open, error codecInfo or timeBase "},
    {kError, "StreamMuxer", "open, broken parameter sets"},
    {kError, "StreamMuxer", "open, Could not create output context"},
    {kError, "StreamMuxer", "open, Could not allocate stream"},
    {kInfo, "StreamMuxer", ", codec_id:"},
    {kError, "StreamMuxer", "open, Could not open output URL '"},
    {kError, "StreamMuxer", "open, Error occurred when opening output"},
    {kInfo, "StreamMuxer", ", succeed!\n"},
    {kError, "StreamMuxer", "outputFrame, not open"},
    {kError, "StreamMuxer", "outputFrame, broken parameter sets"},
    {kError, "StreamMuxer", "outputFrame, error data, size:"},
    {kError, "StreamMuxer", "outputFrame, av_interleaved_write_frame failed, ret:"},
    {kError, "StreamMuxer", "stop, av_write_trailer failed, ret:"},
};

}  // namespace

void expectDueLevel(int level, std::string_view tag, std::string_view message) {
    if (std::ranges::find(kTestTags, tag) != std::end(kTestTags)) {
        return;
    }
    const auto* due = std::ranges::find_if(
        kDue, [&](const Due& line) { return line.tag == tag && message.find(line.piece) != std::string_view::npos; });
    const int dueLevel = due == std::end(kDue) ? kDebug : due->level;
    if (level != dueLevel) {
        ADD_FAILURE() << "a line of level " << level << " that is due at level " << dueLevel << ": [" << tag
                      << "]: " << message;
    }
}

}  // namespace kelp::test
