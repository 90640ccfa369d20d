#include "input/codec_tables.h"

#include <algorithm>
#include <iterator>

#include "runtime/ffmpeg_compat.h"

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavcodec/codec_par.h>
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

namespace kelp {
namespace {

// A pair of the library's value and FFmpeg's.
template <class Type>
struct Entry {
    Type own;
    int av;
};

constexpr Entry<VideoCodecType> kVideoCodecs[] = {
    {VIDEO_CODEC_MSMPEG4V1, AV_CODEC_ID_MSMPEG4V1}, {VIDEO_CODEC_MSMPEG4V2, AV_CODEC_ID_MSMPEG4V2},
    {VIDEO_CODEC_MSMPEG4V3, AV_CODEC_ID_MSMPEG4V3}, {VIDEO_CODEC_H264, AV_CODEC_ID_H264},
    {VIDEO_CODEC_HEVC, AV_CODEC_ID_HEVC},           {VIDEO_CODEC_MPEG4, AV_CODEC_ID_MPEG4},
    {VIDEO_CODEC_MJPEG, AV_CODEC_ID_MJPEG},         {VIDEO_CODEC_270, compat::kCodecId270},
};

constexpr Entry<AudioCodecType> kAudioCodecs[] = {
    {AUDIO_CODEC_MP3, AV_CODEC_ID_MP3},
    {AUDIO_CODEC_AAC, AV_CODEC_ID_AAC},
    {AUDIO_CODEC_VORBIS, AV_CODEC_ID_VORBIS},
    {AUDIO_CODEC_PCM_ALAW, AV_CODEC_ID_PCM_ALAW},
};

constexpr Entry<PixFormat> kPixFormats[] = {
    {PIX_FMT_YUV420P, AV_PIX_FMT_YUV420P},
    {PIX_FMT_YUYV422, AV_PIX_FMT_YUYV422},
    {PIX_FMT_YUV422P, AV_PIX_FMT_YUV422P},
    {PIX_FMT_YUV420P10, AV_PIX_FMT_YUV420P10LE},
};

constexpr Entry<int> kSampleFormats[] = {
    {0, AV_SAMPLE_FMT_U8},  {1, AV_SAMPLE_FMT_S16},  {2, AV_SAMPLE_FMT_S32},
    {3, AV_SAMPLE_FMT_FLT}, {4, AV_SAMPLE_FMT_FLTP},
};

template <class Type, int size>
Type findOwn(const Entry<Type> (&table)[size], int av, Type none) {
    const auto* entry = std::ranges::find(table, av, &Entry<Type>::av);
    return entry == std::end(table) ? none : entry->own;
}

template <class Type, int size>
int findAv(const Entry<Type> (&table)[size], Type own, int none) {
    const auto* entry = std::ranges::find(table, own, &Entry<Type>::own);
    return entry == std::end(table) ? none : entry->av;
}

}  // namespace

VideoCodecType videoCodecTypeFromId(int codecId) {
    return findOwn(kVideoCodecs, codecId, VIDEO_CODEC_NONE);
}

AudioCodecType audioCodecTypeFromId(int codecId) {
    return findOwn(kAudioCodecs, codecId, AUDIO_CODEC_NONE);
}

int codecIdFromType(VideoCodecType type) {
    return findAv(kVideoCodecs, type, AV_CODEC_ID_NONE);
}

int codecIdFromType(AudioCodecType type) {
    return findAv(kAudioCodecs, type, AV_CODEC_ID_NONE);
}

int codecIdFromType(VideoCodecType type, const AVCodecParameters* parameters) {
    return type == VIDEO_CODEC_OTHER && parameters ? int{parameters->codec_id} : codecIdFromType(type);
}

int codecIdFromType(AudioCodecType type, const AVCodecParameters* parameters) {
    return type == AUDIO_CODEC_OTHER && parameters ? int{parameters->codec_id} : codecIdFromType(type);
}

PixFormat pixFormatFromAv(int avPixelFormat) {
    return findOwn(kPixFormats, avPixelFormat, PIX_FMT_NONE);
}

int avPixelFormatFromPixFormat(PixFormat format) {
    return findAv(kPixFormats, format, AV_PIX_FMT_NONE);
}

int sampleFormatFromAv(int avSampleFormat) {
    return findOwn(kSampleFormats, avSampleFormat, -1);
}

int avSampleFormatFromSampleFormat(int sampleFormat) {
    return findAv(kSampleFormats, sampleFormat, AV_SAMPLE_FMT_NONE);
}

}  // namespace kelp
