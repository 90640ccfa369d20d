#include "e2e/seek_media.h"

namespace kelp::test {

// As the numbered pictures of the large table, at another rate, with what follows on `filters`.
#define KELP_NUMBERED_AT(rate, seconds, filters)                          \
    "-f lavfi -i \"color=black:size=10x2:rate=" rate ":duration=" seconds \
    ",format=gray,geq=lum='255*mod(floor(N/pow(2,X))+Y,2)',scale=320:180:flags=neighbor" filters "\" "
#define KELP_RISING(seconds) "-f lavfi -i \"aevalsrc='0.5*sin(2*PI*(400*t+50*t*t))':s=48000:d=" seconds "\" -ac 2 "
#define KELP_X264 "-c:v libx264 -preset veryfast -sc_threshold 0 -pix_fmt yuv420p "
#define KELP_X265(parameters) \
    "-c:v libx265 -preset ultrafast -x265-params log-level=error:" parameters " -pix_fmt yuv420p "
// Ten of 60 pictures a second, then every seventh.
#define KELP_UNEVEN ",select='lt(mod(n,50),10)+not(mod(n,7))'"

// clang-format off
const std::vector<MediaFile>& seekMediaTable() {
    static const std::vector<MediaFile> table = {
        {"seek_slides.mp4", "a picture a second, with B-frames, and sound",
         "ffmpeg " KELP_NUMBERED_AT("1", "40", "") KELP_RISING("40") KELP_X264 "-bf 2 -g 10 -c:a aac {out}",
         320, 180, 40, 40000, true, 0},
        {"seek_slides_far.mkv", "a picture every 7 s, and sound",
         "ffmpeg " KELP_NUMBERED_AT("1/7", "70", "") KELP_RISING("70") KELP_X264 "-bf 2 -g 3 -c:a aac {out}",
         320, 180, 10, 70000, true, 0},
        {"seek_120.mp4", "120 pictures a second", "ffmpeg " KELP_NUMBERED_AT("120", "8", "") KELP_RISING("8") KELP_X264
         "-bf 3 -g 120 -c:a aac {out}", 320, 180, 960, 8000, true, 0},
        {"seek_uneven.mkv", "a variable rate of pictures",
         "ffmpeg " KELP_NUMBERED_AT("60", "16", KELP_UNEVEN) KELP_RISING("16") "-fps_mode vfr " KELP_X264
         "-bf 3 -g 40 -c:a aac {out}", 320, 180, 0, 16000, true, 0},
        {"seek_uneven.mp4", "the same in MP4, without sound",
         "ffmpeg " KELP_NUMBERED_AT("60", "16", KELP_UNEVEN) "-fps_mode vfr " KELP_X264 "-bf 3 -g 40 {out}",
         320, 180, 0, 16000, true, 0},
        {"seek_open.ts", "MPEG-TS, 29.97 pictures a second in open groups",
         "ffmpeg " KELP_NUMBERED_AT("30000/1001", "16", "") KELP_RISING("16") KELP_X264
         "-bf 3 -g 45 -x264-params open-gop=1 -c:a aac {out}", 320, 180, 480, 16000, true, 0},
        {"seek_film.mkv", "HEVC, 23.976 pictures a second in open groups",
         "ffmpeg " KELP_NUMBERED_AT("24000/1001", "16", "") KELP_RISING("16")
         KELP_X265("keyint=48:open-gop=1:bframes=4") "-c:a aac {out}", 320, 180, 384, 16000, true, 0},
        {"seek_hevc.ts", "MPEG-TS, HEVC, 50 pictures a second, one key frame in 4 s",
         "ffmpeg " KELP_NUMBERED_AT("50", "14", "") KELP_RISING("14") KELP_X265("keyint=200:bframes=3")
         "-c:a aac {out}", 320, 180, 700, 14000, true, 0},
        {"seek_mjpeg.mov", "key frames alone, 59.94 a second, no sound",
         "ffmpeg " KELP_NUMBERED_AT("60000/1001", "10", "") "-c:v mjpeg -q:v 3 -pix_fmt yuvj420p {out}",
         320, 180, 600, 10000, false, 0},
        {"seek_vp9.webm", "VP9 with pictures that are never shown",
         "ffmpeg " KELP_NUMBERED_AT("25", "12", "") KELP_RISING("12") "-c:v libvpx-vp9 -deadline realtime -cpu-used 8 "
         "-lag-in-frames 16 -auto-alt-ref 1 -g 60 -b:v 500k -c:a libopus {out}", 320, 180, 300, 12000, true, 0},
    };
    return table;
}
// clang-format on

}  // namespace kelp::test
