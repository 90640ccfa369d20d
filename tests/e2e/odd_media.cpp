#include "e2e/odd_media.h"

namespace kelp::test {

// Small pictures and a tone. `late` is what goes before an input, as "-itsoffset 1 ".
#define KELP_PICTURES(seconds) "-f lavfi -i testsrc2=size=160x90:rate=25:duration=" seconds " "
#define KELP_TONE(seconds) "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=" seconds " "
#define KELP_H264 "-c:v libx264 -preset veryfast -bf 2 -g 12 -pix_fmt yuv420p "
#define KELP_AAC "-c:a aac -ac 2 "
#define KELP_COVER(format) "-f lavfi -i testsrc2=size=96x64:rate=1:duration=1 -frames:v 1 {tmp}/cover." format
#define KELP_WITH_COVER(sound)                                                                         \
    "ffmpeg " KELP_COVER("jpg") " && ffmpeg " KELP_TONE("2") "-i {tmp}/cover.jpg -map 0 -map 1 " sound \
                                                             "-c:v copy -disposition:v attached_pic {out}"

// clang-format off
const std::vector<MediaFile>& oddMediaTable() {
    static const std::vector<MediaFile> table = {
        {"odd_cover.mp3", "MP3 with a cover", KELP_WITH_COVER("-ac 2 -c:a libmp3lame "), 96, 64, 1, 2000, false, 440},
        {"odd_cover.m4a", "M4A with a cover", KELP_WITH_COVER(KELP_AAC), 96, 64, 1, 2000, false, 440},
        {"odd_cover.mka", "Matroska with a cover",
         "ffmpeg " KELP_COVER("jpg") " && ffmpeg " KELP_TONE("2") KELP_AAC "-attach {tmp}/cover.jpg "
         "-metadata:s:t mimetype=image/jpeg -metadata:s:t filename=cover.jpg {out}", 96, 64, 1, 2000, false, 440},
        {"odd_cover_video.mp4", "MP4 with a cover beside its video",
         "ffmpeg " KELP_COVER("jpg") " && ffmpeg " KELP_PICTURES("2") KELP_TONE("2") "-i {tmp}/cover.jpg "
         "-map 2 -map 0 -map 1 " KELP_H264 KELP_AAC "-c:v:0 copy -disposition:v:0 attached_pic {out}",
         160, 90, 50, 2000, true, 440},
    };
    return table;
}
// clang-format on

}  // namespace kelp::test
