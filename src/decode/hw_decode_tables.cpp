#include "decode/hw_decode_tables.h"

namespace kelp {

const HWDecoderInfo kHWDecoders[] = {
    {AV_CODEC_ID_H264, "h264_cuvid"}, {AV_CODEC_ID_HEVC, "hevc_cuvid"}, {AV_CODEC_ID_MJPEG, "mjpeg_cuvid"},
    {AV_CODEC_ID_VP9, "vp9_cuvid"},   {AV_CODEC_ID_AV1, "av1_cuvid"},   {AV_CODEC_ID_NONE, ""},
};

const HWAccelInfo kHWAccels[] = {
    {AV_CODEC_ID_H264, "cuda", "h264_nvdec"},
    {AV_CODEC_ID_H264, "dxva2", "h264_dxva2"},
    {AV_CODEC_ID_H264, "d3d11va", "h264_d3d11va"},
    {AV_CODEC_ID_H264, "vaapi", "h264_vaapi"},
    {AV_CODEC_ID_HEVC, "cuda", "h265_nvdec"},
    {AV_CODEC_ID_HEVC, "dxva2", "h265_dxva2"},
    {AV_CODEC_ID_HEVC, "d3d11va", "h265_d3d11va"},
    {AV_CODEC_ID_HEVC, "vaapi", "h264_vaapi"},
    // Not AV1: its software decoder knows no device, and the one that does decodes nothing without.
    {AV_CODEC_ID_VP9, "cuda", "vp9_nvdec"},
    {AV_CODEC_ID_VP9, "vaapi", "vp9_vaapi"},
    {AV_CODEC_ID_NONE, "", ""},
};

}  // namespace kelp
