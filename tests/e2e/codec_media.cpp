#include "e2e/codec_media.h"

#include <array>
#include <string_view>

namespace kelp::test {

// clang-format off
const std::vector<CodecFile>& codecTable() {
    static const std::vector<CodecFile> table = {
        {"vp8_opus.webm", "libvpx -deadline realtime -cpu-used 8", "libopus"},
        {"vp9_opus.webm", "libvpx-vp9 -deadline realtime -cpu-used 8", "libopus"},
        {"av1_opus.webm", "libaom-av1 -cpu-used 8 -usage realtime", "libopus"},
        {"vp8_pcm.avi", "libvpx -deadline realtime -cpu-used 8", "pcm_s16le"},
        {"vp9_flac.mp4", "libvpx-vp9 -deadline realtime -cpu-used 8", "flac -strict -2"},
        {"av1_opus.mp4", "libsvtav1 -s 64x64 -preset 12", "libopus"},
        {"av1_eac3.mkv", "libaom-av1 -cpu-used 8 -usage realtime", "eac3"},
        {"vp8_flac.ogg", "libvpx -deadline realtime -cpu-used 8", "flac"},
        {"theora_vorbis.ogg", "libtheora -q:v 8", "libvorbis"},
        {"theora_speex.ogg", "libtheora -q:v 8", "libspeex -ar 8000 -ac 1"},
        {"mpeg1_mp2.mpg", "mpeg1video -q:v 3", "mp2"},
        {"mpeg2_ac3.mpg", "mpeg2video -q:v 3", "ac3"},
        {"mpeg2_mp2.ts", "mpeg2video -q:v 3 -bf 2", "mp2"},
        {"mpeg1_mp3.avi", "mpeg1video -q:v 3", "libmp3lame"},
        {"mpeg2_pcm.mxf", "mpeg2video -q:v 3", "pcm_s16le"},
        {"mpeg2_dts.mkv", "mpeg2video -q:v 3", "dca -strict -2"},
        {"mpeg2_dvd_pcm.vob", "mpeg2video -q:v 3", "pcm_dvd"},
        {"mpeg2_422_s302m.ts", "mpeg2video -q:v 3 -pix_fmt yuv422p", "s302m -strict -2"},
        {"h263_gsm.avi", "h263 -s 128x96 -q:v 3", "libgsm_ms -ar 8000 -ac 1"},
        {"h263_aac.3gp", "h263 -s 128x96 -q:v 3", "aac"},
        {"h263p_pcm.mov", "h263p -q:v 3", "pcm_s16be"},
        {"h261_adpcm.avi", "h261 -s 176x144 -q:v 3", "adpcm_ms"},
        {"flv1_mp3.flv", "flv -q:v 3", "libmp3lame -ar 44100"},
        {"flv1_adpcm.flv", "flv -q:v 3", "adpcm_swf -ar 44100"},
        {"flashsv_nelly.flv", "flashsv", "nellymoser -ar 22050 -ac 1"},
        {"flashsv2_speex.flv", "flashsv2", "libspeex -ar 16000 -ac 1"},
        {"h264_pcm.flv", "libx264 -preset veryfast", "pcm_s16le -ar 44100"},
        {"wmv1_wma1.wmv", "wmv1 -q:v 3", "wmav1"},
        {"wmv2_wma2.asf", "wmv2 -q:v 3", "wmav2"},
        {"mpeg4_wma2.wmv", "mpeg4 -q:v 3", "wmav2"},
        {"msmpeg4v2_ima.avi", "msmpeg4v2 -q:v 3", "adpcm_ima_wav"},
        {"msmpeg4v3_u8.avi", "msmpeg4 -q:v 3", "pcm_u8"},
        {"mpeg4_ac3.mp4", "mpeg4 -q:v 3", "ac3"},
        {"h264_alac.mp4", "libx264 -preset veryfast", "alac"},
        {"h264_opus.mp4", "libx264 -preset veryfast", "libopus"},
        {"h264_flac.mkv", "libx264 -preset veryfast", "flac"},
        {"h264_ac3.ts", "libx264 -preset veryfast", "ac3"},
        {"h264_eac3.ts", "libx264 -preset veryfast", "eac3"},
        {"h264_dts.ts", "libx264 -preset veryfast", "dca -strict -2"},
        {"h264_truehd.mkv", "libx264 -preset veryfast", "truehd -strict -2"},
        {"h264_opus.ts", "libx264 -preset veryfast", "libopus"},
        {"h264_pcm.mxf", "libx264 -preset veryfast -bf 0", "pcm_s24le"},
        {"hevc_ac3.mp4", "libx265 -preset ultrafast -x265-params log-level=error", "ac3"},
        {"hevc_wavpack.mkv", "libx265 -preset ultrafast -x265-params log-level=error", "wavpack"},
        {"mjpeg_pcm.avi", "mjpeg -q:v 2 -pix_fmt yuvj422p", "pcm_s16le"},
        {"prores_pcm.mov", "prores_ks -pix_fmt yuv422p10le", "pcm_s24le"},
        {"prores_alac.mkv", "prores -pix_fmt yuv422p10le", "alac"},
        {"prores_4444_pcm.mov", "prores_ks -profile:v 4 -pix_fmt yuva444p10le", "pcm_f32le"},
        {"dnxhd_pcm.mov", "dnxhd -s 256x144 -profile:v dnxhr_sq -pix_fmt yuv422p", "pcm_s16be"},
        {"dnxhd_pcm.mxf", "dnxhd -s 256x144 -profile:v dnxhr_sq -pix_fmt yuv422p", "pcm_s16le"},
        {"dv_pcm.avi", "dvvideo -s 720x576 -pix_fmt yuv420p", "pcm_s16le"},
        {"dv.dv", "dvvideo -s 720x576 -pix_fmt yuv420p", "pcm_s16le"},
        {"png_pcm.mov", "png", "pcm_s32le"},
        {"png_flac.mkv", "png", "flac"},
        {"huffyuv_pcm.avi", "huffyuv -pix_fmt yuv422p", "pcm_s24le"},
        {"ffv1_flac.mkv", "ffv1", "flac"},
        {"ffv1_pcm.avi", "ffv1 -pix_fmt yuv444p", "pcm_f64le"},
        {"utvideo_pcm.avi", "utvideo", "pcm_s16le"},
        {"magicyuv_pcm.avi", "magicyuv -pix_fmt yuv420p", "adpcm_yamaha"},
        {"v210_pcm.mov", "v210", "pcm_s16le"},
        {"r210_pcm.mov", "r210", "pcm_f32be"},
        {"cinepak_pcm.avi", "cinepak", "pcm_s16le"},
        {"svq1_ima.mov", "svq1", "adpcm_ima_qt"},
        {"qtrle_mulaw.mov", "qtrle", "pcm_mulaw"},
        {"smc_pcm.mov", "smc", "pcm_u8"},
        {"raw_palette_pcm.avi", "rawvideo -pix_fmt pal8", "pcm_s16le"},
        {"qtrle_palette_pcm.mov", "qtrle -pix_fmt pal8", "pcm_s16le"},
        {"jpeg2000_pcm.mov", "jpeg2000", "pcm_s16be"},
        {"jpeg2000_pcm.mxf", "jpeg2000", "pcm_s16le"},
        {"cfhd_pcm.mov", "cfhd -s 128x96", "pcm_f64be"},
        {"hap_pcm.mov", "hap", "pcm_s16le"},
        {"snow_pcm.avi", "snow -strict -2", "pcm_s16le"},
        {"dirac_pcm.mkv", "vc2", "pcm_s16le"},
        {"msvideo1_pcm.avi", "msvideo1", "pcm_s16le"},
        {"rv10_ac3.rm", "rv10 -q:v 3", "ac3"},
        {"raw_pcm.avi", "rawvideo -pix_fmt yuv420p", "pcm_s16le"},
        {"raw_422_pcm.mov", "rawvideo -pix_fmt uyvy422", "pcm_s16le"},
        {"raw_pcm.nut", "rawvideo -pix_fmt yuv420p", "pcm_u16le"},
        {"raw_pcm.mkv", "rawvideo -pix_fmt yuv420p", "pcm_s32le"},
        {"ffv1_pcm.nut", "ffv1", "pcm_s16be_planar"},
        {"vp9_pcm.nut", "libvpx-vp9 -deadline realtime -cpu-used 8", "pcm_s8"},
        {"gif.gif", "gif -pix_fmt bgr8", ""},
        {"apng.apng", "apng", ""},
        {"vp8.ivf", "libvpx -deadline realtime -cpu-used 8", ""},
        {"vp9_444.mkv", "libvpx-vp9 -deadline realtime -cpu-used 8 -pix_fmt yuv444p", ""},
        {"av1_10_bit.mkv", "libaom-av1 -cpu-used 8 -usage realtime -pix_fmt yuv420p10le", ""},
        {"av1.obu", "libaom-av1 -cpu-used 8 -usage realtime", ""},
        {"mpeg1.m1v", "mpeg1video -q:v 3", ""},
        {"mpeg2.m2v", "mpeg2video -q:v 3", ""},
        {"mpeg4.m4v", "mpeg4 -q:v 3", ""},
        {"mjpeg.mjpeg", "mjpeg -q:v 2", ""},
        {"s8.aiff", "", "pcm_s8"},
        {"s16be.aiff", "", "pcm_s16be"},
        {"f32be.aiff", "", "pcm_f32be"},
        {"ima.aiff", "", "adpcm_ima_qt"},
        {"u8.wav", "", "pcm_u8"},
        {"s16.wav", "", "pcm_s16le"},
        {"s32.wav", "", "pcm_s32le"},
        {"f32.wav", "", "pcm_f32le"},
        {"f64.wav", "", "pcm_f64le"},
        {"mulaw.wav", "", "pcm_mulaw"},
        {"adpcm_ms.wav", "", "adpcm_ms"},
        {"adpcm_ima.wav", "", "adpcm_ima_wav"},
        {"adpcm_yamaha.wav", "", "adpcm_yamaha"},
        {"g722.wav", "", "g722 -ar 16000 -ac 1"},
        {"g726.wav", "", "g726 -ar 8000 -ac 1"},
        {"g723.wav", "", "g723_1 -ar 8000 -ac 1 -b:a 6300"},
        {"dts.wav", "", "dca -strict -2"},
        {"mp2.wav", "", "mp2"},
        {"wma2.wav", "", "wmav2"},
        {"s16.au", "", "pcm_s16be"},
        {"mulaw.au", "", "pcm_mulaw"},
        {"f64.au", "", "pcm_f64be"},
        {"s16.caf", "", "pcm_s16le"},
        {"alac.caf", "", "alac"},
        {"opus.caf", "", "libopus"},
        {"s64.nut", "", "pcm_s64le"},
        {"u32.nut", "", "pcm_u32be"},
        {"s24p.nut", "", "pcm_s24le_planar"},
        {"opus.ogg", "", "libopus"},
        {"flac.ogg", "", "flac"},
        // Of more than 8 kHz, in this container, FFmpeg 7.1 makes twice the length.
        {"speex.ogg", "", "libspeex -ar 8000"},
        {"flac.flac", "", "flac"},
        {"alac.m4a", "", "alac"},
        {"ac3.ac3", "", "ac3"},
        {"eac3.eac3", "", "eac3"},
        {"dts.dts", "", "dca -strict -2"},
        {"mp2.mp2", "", "mp2"},
        {"mlp.mlp", "", "mlp -strict -2"},
        {"truehd.thd", "", "truehd -strict -2 -f truehd"},
        {"tta.tta", "", "tta"},
        {"tta.mkv", "", "tta"},
        {"wavpack.wv", "", "wavpack"},
        {"wma1.asf", "", "wmav1"},
        {"wma2.wma", "", "wmav2"},
        {"gsm.gsm", "", "libgsm -ar 8000 -ac 1"},
        {"aptx.aptx", "", "aptx"},
        {"sbc.sbc", "", "sbc -b:a 320k"},
        {"adx.adx", "", "adpcm_adx"},
        {"s16.w64", "", "pcm_s16le"},
        {"s16.voc", "", "pcm_s16le"},
        {"dfpwm.wav", "", "dfpwm"},
        // Other rates and more channels than all of those above have.
        {"eight_khz.wav", "", "pcm_u8 -ar 8000 -ac 1"},
        {"four.wav", "", "pcm_f32le -ar 96000 -ac 4"},
        {"surround.ac3", "", "ac3 -ac 6"},
        {"surround.m4a", "", "alac -ar 88200 -ac 6"},
        {"eight.flac", "", "flac -ar 192000 -ac 8"},
        {"eight.mka", "", "libopus -ac 8"},
    };
    return table;
}
// clang-format on

std::string makeCommand(const CodecFile& file) {
    const std::string video = file.video;
    const std::string audio = file.audio;
    std::string command = "ffmpeg";
    if (!video.empty()) {
        command += " -f lavfi -i testsrc2=size=64x48:rate=25:duration=1,scroll=h=0.04";
    }
    if (!audio.empty()) {
        command += " -f lavfi -i \"aevalsrc='0.4*sin(2*PI*440*t)':s=48000:d=1\" -ac 2 -c:a " + audio;
    }
    return command + (video.empty() ? "" : " -c:v " + video) + " {out}";
}

bool isOnShortList(const std::string& encoder) {
    static constexpr std::array<std::string_view, 10> kEncoders = {
        "libx264", "libx265", "mpeg4", "msmpeg4", "msmpeg4v2", "mjpeg", "aac", "libmp3lame", "libvorbis", "pcm_alaw"};
    const std::string_view name = std::string_view(encoder).substr(0, encoder.find(' '));
    for (const auto& known : kEncoders) {
        if (name == known) {
            return true;
        }
    }
    return false;
}

}  // namespace kelp::test
