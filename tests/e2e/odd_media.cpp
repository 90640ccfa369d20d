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
// Two seconds of a tone, the first one encoded in another way than the second.
#define KELP_JOINED(format, first, second)                                                   \
    "ffmpeg " KELP_TONE("1") first "{tmp}/first." format " && ffmpeg " KELP_TONE("1") second \
        "{tmp}/second." format " && cat {tmp}/first." format " {tmp}/second." format " > {out}"

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
        {"odd_cover.flac", "FLAC with a cover of PNG",
         "ffmpeg " KELP_COVER("png") " && ffmpeg " KELP_TONE("2") "-i {tmp}/cover.png -map 0 -map 1 "
         "-c:a flac -c:v copy -disposition:v attached_pic {out}", 96, 64, 1, 2000, false, 440},
        // Streams that don't begin, or don't end, together.
        {"odd_one_picture.mp4", "one picture", "ffmpeg " KELP_PICTURES("0.04") KELP_H264 "{out}",
         160, 90, 1, 40, true, 0},
        {"odd_one_picture_sound.mp4", "one picture, and sound",
         "ffmpeg " KELP_PICTURES("0.04") KELP_TONE("2") KELP_H264 KELP_AAC "{out}", 160, 90, 1, 2000, true, 440},
        {"odd_late_sound.mkv", "the sound begins a second late",
         "ffmpeg " KELP_PICTURES("2") "-itsoffset 1 " KELP_TONE("1") KELP_H264 KELP_AAC "{out}",
         160, 90, 50, 2000, true, 440},
        {"odd_late_picture.mkv", "the picture begins a second late",
         "ffmpeg -itsoffset 1 " KELP_PICTURES("1") KELP_TONE("2") KELP_H264 KELP_AAC "{out}",
         160, 90, 25, 2000, true, 440},
        {"odd_short_sound.mkv", "the sound ends a second early",
         "ffmpeg " KELP_PICTURES("2") KELP_TONE("1") KELP_H264 KELP_AAC "{out}", 160, 90, 50, 2000, true, 440},
        {"odd_short_picture.mkv", "the picture ends a second early",
         "ffmpeg " KELP_PICTURES("1") KELP_TONE("2") KELP_H264 KELP_AAC "{out}", 160, 90, 25, 2000, true, 440},
        {"odd_sound_hole.mkv", "there is no sound for a second and a half",
         "ffmpeg " KELP_PICTURES("3") KELP_TONE("3") KELP_H264 "-af \"aselect='lt(t,1)+gt(t,2.5)'\" " KELP_AAC "{out}",
         160, 90, 75, 3000, true, 440},
        {"odd_channels.ts", "the sound goes from stereo to mono",
         KELP_JOINED("ts", KELP_AAC, "-c:a aac -ac 1 -output_ts_offset 1 "), 0, 0, 0, 2000, false, 440},
        {"odd_rates.ac3", "the sound goes from stereo and 48000 Hz to six channels and 32000 Hz",
         KELP_JOINED("ac3", "-ac 2 ", "-ac 6 -ar 32000 "), 0, 0, 0, 2000, false, 440},
        {"odd_bits.ts", "the sound goes from 16 to 24 bits",
         KELP_JOINED("ts", "-c:a s302m -strict -2 -ac 2 ",
                     "-c:a s302m -strict -2 -ac 2 -sample_fmt s32 -output_ts_offset 1 "), 0, 0, 0, 2000, false, 440},
        {"odd_photo.jpg", "a photograph", "ffmpeg " KELP_PICTURES("0.04") "{out}", 160, 90, 1, 40, false, 0},
        {"odd_beside.mkv", "subtitles before pictures and sound",
         "printf '1\\n00:00:00,200 --> 00:00:01,500\\nhello\\n' > {tmp}/beside.srt && ffmpeg " KELP_PICTURES("2")
         KELP_TONE("2") "-i {tmp}/beside.srt -map 2 -map 0 -map 1 " KELP_H264 KELP_AAC "-c:s srt {out}",
         160, 90, 50, 2000, true, 440},
        {"odd_beside.mov", "subtitles and a time code of data",
         "printf '1\\n00:00:00,200 --> 00:00:01,500\\nhello\\n' > {tmp}/beside.srt && ffmpeg " KELP_PICTURES("2")
         KELP_TONE("2") "-i {tmp}/beside.srt -map 2 -map 0 -map 1 " KELP_H264 KELP_AAC "-c:s mov_text "
         "-timecode 00:00:00:00 {out}", 160, 90, 50, 2000, true, 440},
        // Times.
        {"odd_plain.mkv", "nothing odd", "ffmpeg " KELP_PICTURES("2") KELP_TONE("2") KELP_H264 KELP_AAC "{out}",
         160, 90, 50, 2000, true, 440},
        {"odd_hours.mkv", "begins at 10 h, and counts its duration from 0",
         "ffmpeg -i {dir}/odd_plain.mkv -c copy -output_ts_offset 36000 {out}", 160, 90, 50, 2000, true, 440},
        {"odd_hours.ts", "begins at 10 h", "ffmpeg -i {dir}/odd_plain.mkv -c copy -output_ts_offset 36000 {out}",
         160, 90, 50, 2000, true, 440},
        {"odd_wrap.ts", "goes through the end of 33 bits in its middle",
         "ffmpeg -i {dir}/odd_plain.mkv -c copy -output_ts_offset 95441.3 {out}", 160, 90, 50, 2000, true, 440},
        {"odd_edit_list.mp4", "an edit list leaves out the begin of a group of pictures",
         "ffmpeg -ss 0.28 -i {dir}/odd_plain.mkv -c copy {out}", 160, 90, 43, 1720, true, 440},
        {"odd_fragmented.mp4", "fragments",
         "ffmpeg -i {dir}/odd_plain.mkv -c copy -movflags frag_keyframe+empty_moov+default_base_moof {out}",
         160, 90, 50, 2000, true, 440},
        {"odd_slow.mp4", "a picture a second",
         "ffmpeg -f lavfi -i testsrc2=size=160x90:rate=1:duration=3 " KELP_TONE("3") KELP_H264 KELP_AAC "{out}",
         160, 90, 3, 3000, true, 440},
        {"odd_slow_silent.mp4", "a picture a second, no sound",
         "ffmpeg -i {dir}/odd_slow.mp4 -c copy -an {out}", 160, 90, 3, 3000, true, 0},
        {"odd_fast.mkv", "1000 pictures a second",
         "ffmpeg -f lavfi -i testsrc2=size=160x90:rate=1000:duration=1 -c:v libx264 -preset ultrafast -g 250 "
         "-pix_fmt yuv420p {out}", 160, 90, 1000, 1000, true, 0},
        {"odd_uneven.mkv", "a rate that varies by the moment",
         "ffmpeg -f lavfi -i testsrc2=size=160x90:rate=50:duration=2 " KELP_TONE("2")
         "-vf \"select='not(mod(n,7))+lt(n,20)+between(n,60,70)'\" -fps_mode vfr " KELP_H264 KELP_AAC "{out}",
         160, 90, 41, 2000, true, 440},
        // Pictures.
        {"odd_no_key.avi", "no key frame is marked",
         "ffmpeg " KELP_PICTURES("2") KELP_TONE("2") "-c:v msmpeg4 -g 12 -q:v 4 -c:a libmp3lame {tmp}/keys.avi && "
         "perl -e 'binmode STDIN; binmode STDOUT; undef $/; $_ = <STDIN>; my $at = rindex($_, \"idx1\"); "
         "for my $i (0 .. unpack(\"V\", substr($_, $at + 4, 4)) / 16 - 1) { my $entry = $at + 8 + 16 * $i; "
         "substr($_, $entry + 4, 4) = pack(\"V\", 0) if substr($_, $entry, 4) eq \"00dc\"; } print' "
         "< {tmp}/keys.avi > {out}", 160, 90, 50, 2000, true, 440},
        {"odd_refresh.mp4", "one key frame, and parts of pictures that are refreshed",
         "ffmpeg " KELP_PICTURES("2") KELP_TONE("2") "-c:v libx264 -preset veryfast -bf 0 -pix_fmt yuv420p "
         "-x264-params intra-refresh=1:keyint=12 " KELP_AAC "-bsf:v filter_units=remove_types=6 {out}",
         160, 90, 50, 2000, true, 440},
        {"odd_refresh.ts", "cut behind its key frame, with parts of pictures that are refreshed",
         "ffmpeg " KELP_PICTURES("2") KELP_TONE("2") "-c:v libx264 -preset veryfast -bf 0 -pix_fmt yuv420p "
         "-x264-params intra-refresh=1:keyint=12 " KELP_AAC "{tmp}/refresh.ts && "
         "ffmpeg -i {tmp}/refresh.ts -c copy -bsf:v \"noise=drop=not(n)\" {out}", 160, 90, 30, 2000, true, 440},
        {"odd_turned.mp4", "turned by its stream",
         "ffmpeg -i {dir}/odd_plain.mkv -c copy -bsf:v h264_metadata=display_orientation=insert:rotate=90 {out}",
         160, 90, 50, 2000, true, 440},
        {"odd_mirrored.mp4", "mirrored by its stream",
         "ffmpeg -i {dir}/odd_plain.mkv -c copy -bsf:v h264_metadata=display_orientation=insert:flip=horizontal {out}",
         160, 90, 50, 2000, true, 440},
        {"odd_large.mp4", "8K",
         "ffmpeg -f lavfi -i color=c=blue:size=7680x4320:rate=5:duration=1 " KELP_TONE("1")
         "-c:v libx264 -preset ultrafast -g 5 -pix_fmt yuv420p " KELP_AAC "{out}", 7680, 4320, 5, 1000, true, 440},
        {"odd_dot.mov", "one pixel",
         "ffmpeg " KELP_PICTURES("1") "-vf scale=1:1 -c:v mjpeg -pix_fmt yuvj444p {out}", 1, 1, 25, 1000, false, 0},
        {"odd_dot.avi", "one pixel, and sound",
         "ffmpeg " KELP_PICTURES("1") KELP_TONE("1") "-vf format=yuv444p,scale=1:1,format=yuv420p -c:v mpeg4 "
         "-c:a libmp3lame {out}", 1, 1, 25, 1000, false, 440},
        {"odd_b_frames.avi", "AVI with B-frames of MPEG-4",
         "ffmpeg " KELP_PICTURES("2") KELP_TONE("2") "-c:v mpeg4 -bf 2 -g 12 -q:v 4 -c:a libmp3lame -ac 2 {out}",
         160, 90, 50, 2000, true, 440},
        {"odd_b_frames_h264.avi", "AVI with B-frames of H.264",
         "ffmpeg -i {dir}/odd_plain.mkv -c:v copy -bsf:v h264_mp4toannexb -c:a libmp3lame {out}", 160, 90, 50, 2000, true, 440},
        {"odd_b_frames.mxf", "MXF with B-frames of H.264, and the times of their decoding alone",
         "ffmpeg -i {dir}/odd_plain.mkv -c:v copy -bsf:v h264_mp4toannexb -c:a pcm_s16le -ac 2 {out}",
         160, 90, 50, 2000, true, 440},
        // Headers that are wrong, or missing.
        {"odd_unknown.mkv", "no duration and no index", "ffmpeg -i {dir}/odd_plain.mkv -c copy -live 1 -f matroska {out}",
         160, 90, 50, 2000, true, 440},
        {"odd_too_long.mkv", "the header promises a minute",
         "perl -e 'binmode STDIN; binmode STDOUT; undef $/; $_ = <STDIN>; "
         "s/\\x44\\x89\\x88.{8}/\"\\x44\\x89\\x88\" . pack(\"d>\", 60000)/se; print' < {dir}/odd_plain.mkv > {out}",
         160, 90, 50, 2000, true, 440},
        {"odd_too_short.mkv", "the header promises half a second",
         "perl -e 'binmode STDIN; binmode STDOUT; undef $/; $_ = <STDIN>; "
         "s/\\x44\\x89\\x88.{8}/\"\\x44\\x89\\x88\" . pack(\"d>\", 500)/se; print' < {dir}/odd_plain.mkv > {out}",
         160, 90, 50, 2000, true, 440},
        {"odd_raw.h264", "no header and no times", "ffmpeg -i {dir}/odd_plain.mkv -c copy -an -bsf:v h264_mp4toannexb {out}",
         160, 90, 50, 2000, true, 0},
        {"odd_raw.aac", "no header", "ffmpeg -i {dir}/odd_plain.mkv -c copy -vn {out}", 0, 0, 0, 2000, false, 440},
    };
    return table;
}
// clang-format on

}  // namespace kelp::test
