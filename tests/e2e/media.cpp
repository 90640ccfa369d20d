#include "e2e/media.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "e2e/odd_media.h"
#include "e2e/seek_media.h"

namespace kelp::test {

// A picture that carries its own number: ten blocks, white for a 1, the lowest bit on the left, and below them the
// same in reverse. Beside it a tone that rises by 100 Hz a second from 400 Hz, so that its pitch tells the time.
#define KELP_NUMBERED(seconds)                                                              \
    "-f lavfi -i \"color=black:size=10x2:rate=25:duration=" seconds                         \
    ",format=gray,geq=lum='255*mod(floor(N/pow(2,X))+Y,2)',scale=320:180:flags=neighbor\" " \
    "-f lavfi -i \"aevalsrc='0.5*sin(2*PI*(400*t+50*t*t))':s=48000:d=" seconds "\" -ac 2 "

std::vector<MediaFile> with(const std::vector<MediaFile>& more, std::vector<MediaFile> files) {
    files.insert(files.end(), more.begin(), more.end());
    return files;
}

// clang-format off
const std::vector<MediaFile>& mediaTable() {
    static const std::vector<MediaFile> table = with(oddMediaTable(), with(seekMediaTable(), {
        {"everyday.mp4", "the everyday case: H.264 with B-frames, AAC",
         "ffmpeg -f lavfi -i testsrc2=size=1920x1080:rate=30:duration=4 "
         "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=4 -ac 2 "
         "-c:v libx264 -preset veryfast -bf 2 -g 60 -pix_fmt yuv420p -c:a aac -b:a 128k {out}",
         1920, 1080, 120, 4000, true, 440},
        {"small.mp4", "the everyday case in small, for tests of everything but the picture's size",
         "ffmpeg -f lavfi -i testsrc2=size=320x180:rate=25:duration=3 "
         "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=3 -ac 2 "
         "-c:v libx264 -preset veryfast -bf 2 -g 25 -pix_fmt yuv420p -c:a aac -b:a 128k {out}",
         320, 180, 75, 3000, true, 440},
        {"short.mp4", "half a second, for tests that play many times",
         "ffmpeg -f lavfi -i testsrc2=size=160x90:rate=25:duration=0.52 "
         "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=0.5 -ac 2 "
         "-c:v libx264 -preset veryfast -bf 2 -g 25 -pix_fmt yuv420p -c:a aac -b:a 128k {out}",
         160, 90, 13, 520, true, 440},
        {"hevc.ts", "MPEG-TS that starts at 11.4 s, HEVC, AAC",
         "ffmpeg -f lavfi -i testsrc2=size=640x360:rate=25:duration=3 "
         "-f lavfi -i sine=frequency=500:sample_rate=48000:duration=3 -ac 2 -output_ts_offset 10 "
         "-c:v libx265 -preset ultrafast -x265-params log-level=error:keyint=25 -pix_fmt yuv420p -c:a aac {out}",
         640, 360, 75, 3000, true, 500},
        {"hevc_size_change.ts", "MPEG-TS, HEVC, AAC; the picture grows from 320x180 to 640x360 after 1.52 s",
         "for part in 0:320x180 1:640x360; do n=${part%%:*}; size=${part##*:}; "
         "ffmpeg -f lavfi -i testsrc2=size=$size:rate=25:duration=1.52 "
         "-f lavfi -i sine=frequency=500:sample_rate=48000:duration=1.52 -ac 2 -output_ts_offset $(echo $n | sed 's/1/1.52/') "
         "-c:v libx265 -preset ultrafast -x265-params log-level=error:keyint=25:bframes=0 -pix_fmt yuv420p -c:a aac "
         "{tmp}/part$n.ts || exit 1; done; cat {tmp}/part0.ts {tmp}/part1.ts > {out}",
         320, 180, 76, 3040, true, 500},
        {"mpeg4.avi", "AVI, MPEG-4, MP3",
         "ffmpeg -f lavfi -i testsrc2=size=320x240:rate=25:duration=3 "
         "-f lavfi -i sine=frequency=600:sample_rate=44100:duration=3 -ac 2 "
         "-c:v mpeg4 -q:v 3 -g 25 -pix_fmt yuv420p -c:a libmp3lame {out}",
         320, 240, 75, 3000, true, 600},
        {"msmpeg4v3.avi", "AVI, MS-MPEG-4 version 3, MP3",
         "ffmpeg -f lavfi -i testsrc2=size=320x240:rate=25:duration=3 "
         "-f lavfi -i sine=frequency=600:sample_rate=44100:duration=3 -ac 2 "
         "-c:v msmpeg4 -q:v 3 -g 25 -pix_fmt yuv420p -c:a libmp3lame {out}",
         320, 240, 75, 3000, true, 600},
        {"mjpeg_alaw.mov", "MOV, MJPEG in full range, PCM A-law",
         "ffmpeg -f lavfi -i testsrc2=size=320x240:rate=25:duration=3 "
         "-f lavfi -i sine=frequency=400:sample_rate=8000:duration=3 -ac 1 "
         "-c:v mjpeg -q:v 2 -pix_fmt yuvj420p -c:a pcm_alaw {out}",
         320, 240, 75, 3000, false, 400},
        {"vfr.mkv", "Matroska, H.264 with a variable frame rate, no sound",
         "ffmpeg -f lavfi -i testsrc2=size=320x180:rate=30:duration=4 "
         "-vf \"select='lt(n\\,30)+not(mod(n\\,3))'\" -fps_mode vfr "
         "-c:v libx264 -preset veryfast -bf 2 -g 30 -pix_fmt yuv420p {out}",
         320, 180, 60, 4000, true, 0},
        {"vorbis.ogg", "Ogg Vorbis, sound only, mono at 22050 Hz",
         "ffmpeg -f lavfi -i sine=frequency=440:sample_rate=22050:duration=3 -ac 1 -c:a libvorbis {out}",
         0, 0, 0, 3000, false, 440},
        {"tone.mp3", "MP3, sound only, stereo at 44100 Hz",
         "ffmpeg -f lavfi -i sine=frequency=440:sample_rate=44100:duration=3 -ac 2 -c:a libmp3lame {out}",
         0, 0, 0, 3000, false, 440},
        {"sound_change.ts", "MPEG-TS, AAC, sound only; it goes from stereo at 48000 Hz to mono at 32000 Hz in its middle",
         "ffmpeg -f lavfi -i sine=frequency=440:sample_rate=48000:duration=1.5 -ac 2 -c:a aac {tmp}/stereo.ts && "
         "ffmpeg -f lavfi -i sine=frequency=440:sample_rate=32000:duration=1.5 -ac 1 -c:a aac -output_ts_offset 1.5 "
         "{tmp}/mono.ts && cat {tmp}/stereo.ts {tmp}/mono.ts > {out}",
         0, 0, 0, 3000, false, 440},
        {"rotated.mp4", "MP4, H.264 with a display matrix of 90 degrees",
         "turn {dir}/small.mp4 {out}",
         320, 180, 75, 3000, true, 440},
        {"hevc10.mkv", "Matroska, HEVC with 10 bits, AAC",
         "ffmpeg -f lavfi -i testsrc2=size=320x180:rate=25:duration=2 "
         "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 -ac 2 "
         "-c:v libx265 -preset ultrafast -x265-params log-level=error:keyint=25 -pix_fmt yuv420p10le -c:a aac {out}",
         320, 180, 50, 2000, false, 440},
        {"h264_422.mkv", "Matroska, H.264 in 4:2:2, AAC",
         "ffmpeg -f lavfi -i testsrc2=size=320x180:rate=25:duration=2 "
         "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 -ac 2 "
         "-c:v libx264 -preset veryfast -profile:v high422 -pix_fmt yuv422p -c:a aac {out}",
         320, 180, 50, 2000, false, 440},
        {"odd_width.avi", "AVI, MPEG-4 of odd width and height, no sound",
         "ffmpeg -f lavfi -i testsrc=size=353x241:rate=25:duration=2 -c:v mpeg4 -q:v 2 -pix_fmt yuv420p {out}",
         353, 241, 50, 2000, false, 0},
        {"vp9_aac.mkv", "Matroska, VP9 that isn't played, with AAC that is",
         "ffmpeg -f lavfi -i testsrc2=size=320x180:rate=25:duration=2 "
         "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 -ac 2 "
         "-c:v libvpx-vp9 -deadline realtime -cpu-used 8 -c:a aac {out}",
         320, 180, 0, 2000, false, 440},
        {"h264_ac3.mp4", "MP4, H.264 with AC-3 that isn't played",
         "ffmpeg -f lavfi -i testsrc2=size=320x180:rate=25:duration=2 "
         "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 -ac 2 "
         "-c:v libx264 -preset veryfast -pix_fmt yuv420p -c:a ac3 {out}",
         320, 180, 50, 2000, true, 0},
        {"bars.mp4", "colour bars that stand still, H.264, no sound; wide",
         "ffmpeg -f lavfi -i smptebars=size=640x360:rate=25:duration=4 "
         "-c:v libx264 -preset veryfast -qp 4 -pix_fmt yuv420p "
         "-color_range tv -colorspace smpte170m -color_primaries smpte170m -color_trc smpte170m {out}",
         640, 360, 100, 4000, true, 0},
        {"bars_rotated.mp4", "the same with a display matrix of 90 degrees",
         "turn {dir}/bars.mp4 {out}",
         640, 360, 100, 4000, true, 0},
        {"bars_narrow.mp4", "the same with pixels that are seen half as wide as high",
         "ffmpeg -i {dir}/bars.mp4 -c copy -aspect 8:9 {out}",
         640, 360, 100, 4000, true, 0},
        {"bars_wide.mp4", "the same with pixels that are seen wider than high",
         "ffmpeg -i {dir}/bars.mp4 -c copy -aspect 47:20 {out}",
         640, 360, 100, 4000, true, 0},
        {"cut.avi", "AVI cut behind two thirds of its data",
         "size=$(stat -c %s {dir}/mpeg4.avi); head -c $((size * 2 / 3)) {dir}/mpeg4.avi > {out}",
         320, 240, 0, 2000, false, 600},
        {"empty.mp4", "an empty file", ": > {out}", 0, 0, 0, 0, false, 0},
        {"text.mp4", "text named like a film", "seq 1 5000 > {out}", 0, 0, 0, 0, false, 0},
        {"cut.mp4", "an MP4 without its second half, where its index lies",
         "size=$(stat -c %s {dir}/small.mp4); head -c $((size / 2)) {dir}/small.mp4 > {out}", 0, 0, 0, 0, false, 0},
        {"cut_faststart.mp4", "an MP4 without its second half, with its index in front, which promises 3 s",
         "ffmpeg -i {dir}/small.mp4 -c copy -movflags +faststart {tmp}/fast.mp4 && "
         "size=$(stat -c %s {tmp}/fast.mp4); head -c $((size / 2)) {tmp}/fast.mp4 > {out}", 320, 180, 0, 0, false, 0},
        {"faststart.mp4", "the everyday case in small, with its index in front, as servers have it",
         "ffmpeg -i {dir}/small.mp4 -c copy -movflags +faststart {out}", 320, 180, 75, 3000, true, 440},
        // Their segments of a second each lie beside them, under names that begin like theirs.
        {"hls_ts.m3u8", "HLS with segments in MPEG-TS",
         "ffmpeg -i {dir}/small.mp4 -c copy -f hls -hls_time 1 -hls_playlist_type vod "
         "-hls_segment_filename {dir}/hls_ts_%d.ts {out}", 320, 180, 75, 3000, true, 440},
        {"hls_fmp4.m3u8", "HLS with segments in fragmented MP4",
         "ffmpeg -i {dir}/small.mp4 -c copy -f hls -hls_time 1 -hls_playlist_type vod -hls_segment_type fmp4 "
         "-hls_fmp4_init_filename hls_fmp4_init.mp4 -hls_segment_filename {dir}/hls_fmp4_%d.m4s {out}",
         320, 180, 75, 3000, true, 440},
        {"hls_apart.m3u8", "the same, picture and sound in files of their own, their segments parts of these",
         "ffmpeg -i {dir}/small.mp4 -map 0:v -map 0:a -c copy -f hls -hls_time 1 -hls_playlist_type vod "
         "-hls_segment_type fmp4 -hls_flags single_file -var_stream_map 'v:0,agroup:sound a:0,agroup:sound' "
         "-master_pl_name hls_apart_all.m3u8 {dir}/hls_apart_%v.m3u8 && "
         "sed 's,/hls_,hls_,' {dir}/hls_apart_all.m3u8 > {out}",
         320, 180, 75, 3000, true, 440},
        {"dash.mpd", "DASH, picture and sound in segments of their own",
         "ffmpeg -i {dir}/small.mp4 -c copy -f dash -seg_duration 1 -init_seg_name 'dash_$RepresentationID$_init.mp4' "
         "-media_seg_name 'dash_$RepresentationID$_$Number$.m4s' {out}", 320, 180, 75, 3000, true, 440},
        {"flipped.mp4", "an MP4 with 1% of its bytes changed",
         "perl -e 'binmode STDIN; binmode STDOUT; undef $/; $_ = <STDIN>; srand(7); "
         "for my $i (1 .. length($_) / 100) { substr($_, int(rand(length $_)), 1) = chr(int(rand(256))); } print' "
         "< {dir}/small.mp4 > {out}", 0, 0, 0, 0, false, 0},
        {"flipped.ts", "an MPEG-TS with 1% of its bytes changed",
         "perl -e 'binmode STDIN; binmode STDOUT; undef $/; $_ = <STDIN>; srand(7); "
         "for my $i (1 .. length($_) / 100) { substr($_, int(rand(length $_)), 1) = chr(int(rand(256))); } print' "
         "< {dir}/hevc.ts > {out}", 0, 0, 0, 0, false, 0},
        // Numbered pictures with key frames 2 s apart, see KELP_NUMBERED.
        {"numbers.mp4", "MP4, H.264 with B-frames, AAC",
         "ffmpeg " KELP_NUMBERED("20") "-c:v libx264 -preset veryfast -bf 2 -g 50 -sc_threshold 0 -pix_fmt yuv420p "
         "-c:a aac -b:a 128k {out}", 320, 180, 500, 20000, true, 0},
        {"numbers.mkv", "the same in Matroska", "ffmpeg -i {dir}/numbers.mp4 -c copy {out}",
         320, 180, 500, 20000, true, 0},
        {"numbers.ts", "the same in MPEG-TS", "ffmpeg -i {dir}/numbers.mp4 -c copy {out}",
         320, 180, 500, 20000, true, 0},
        {"numbers.avi", "AVI, MPEG-4, MP3",
         "ffmpeg " KELP_NUMBERED("20") "-c:v mpeg4 -q:v 4 -g 50 -bf 0 -sc_threshold 1000000000 -pix_fmt yuv420p "
         "-c:a libmp3lame -b:a 128k -avoid_negative_ts disabled {out}", 320, 180, 500, 20000, true, 0},
        {"numbers_video.mp4", "no sound", "ffmpeg -i {dir}/numbers.mp4 -t 12 -c copy -an {out}",
         320, 180, 302, 12000, true, 0},
        {"numbers_sound.m4a", "no pictures", "ffmpeg -i {dir}/numbers.mp4 -t 12 -c copy -vn {out}",
         0, 0, 0, 12000, false, 0},
        {"numbers_sound_short.mp4", "the sound ends 5 s before the picture",
         "ffmpeg -t 12 -i {dir}/numbers.mp4 -t 7 -i {dir}/numbers.mp4 -map 0:v -map 1:a -c copy {out}",
         320, 180, 302, 12000, true, 0},
        {"numbers_picture_short.mp4", "the picture ends 5 s before the sound",
         "ffmpeg -t 7 -i {dir}/numbers.mp4 -t 12 -i {dir}/numbers.mp4 -map 0:v -map 1:a -c copy {out}",
         320, 180, 177, 12000, true, 0},
        {"numbers_half.mp4", "half a second",
         "ffmpeg " KELP_NUMBERED("0.5") "-c:v libx264 -preset veryfast -bf 2 -g 50 -pix_fmt yuv420p "
         "-c:a aac -b:a 128k {out}", 320, 180, 13, 520, true, 0},
        {"numbers_one_key.mp4", "one key frame only",
         "ffmpeg " KELP_NUMBERED("12") "-c:v libx264 -preset veryfast -bf 2 -g 9999 -sc_threshold 0 "
         "-pix_fmt yuv420p -c:a aac -b:a 128k {out}", 320, 180, 300, 12000, true, 0},
        {"numbers_open_gop.mp4", "open groups of pictures: those before a key frame need the group before it",
         "ffmpeg " KELP_NUMBERED("12") "-c:v libx264 -preset veryfast -bf 3 -g 50 -sc_threshold 0 "
         "-x264-params open-gop=1 -pix_fmt yuv420p -c:a aac -b:a 128k {out}", 320, 180, 300, 12000, true, 0},
        {"numbers_unknown.mkv", "Matroska as it is streamed: without a duration and without an index",
         "ffmpeg -i {dir}/numbers.mp4 -t 8 -c copy -live 1 -f matroska {out}", 320, 180, 200, 8000, true, 0},
        // The tone of the second sound tells the time and 30 s more.
        {"two_tracks.mp4", "two videos, 320x180 and 160x90, with the same numbers, and two sounds",
         "ffmpeg " KELP_NUMBERED("20")
         "-f lavfi -i \"aevalsrc='0.5*sin(2*PI*(3400*t+50*t*t))':s=48000:d=20\" "
         "-map 0 -map 1 -map 0 -map 2 -filter:v:1 scale=160:90:flags=neighbor "
         "-c:v libx264 -preset veryfast -bf 2 -g 25 -sc_threshold 0 -pix_fmt yuv420p -c:a aac -b:a 128k {out}",
         320, 180, 500, 20000, true, 0},
        {"two_tracks.mkv", "the same in Matroska", "ffmpeg -i {dir}/two_tracks.mp4 -map 0 -c copy {out}",
         320, 180, 500, 20000, true, 0},
        {"two_tracks.ts", "the same in MPEG-TS", "ffmpeg -i {dir}/two_tracks.mp4 -map 0 -c copy {out}",
         320, 180, 500, 20000, true, 0},
        {"subtitles.mkv", "numbers with two subtitles: plain text, and a script that moves",
         "printf '1\\n00:00:00,000 --> 00:00:02,000\\nfirst\\n\\n2\\n00:00:02,500 --> 00:00:19,000\\nsecond\\n' "
         "> {tmp}/plain.srt && printf '[Script Info]\\nScriptType: v4.00+\\nPlayResX: 320\\nPlayResY: 180\\n\\n"
         "[V4+ Styles]\\nFormat: Name, Fontname, Fontsize, PrimaryColour\\nStyle: Default,Sans,20,&H00FFFFFF\\n\\n"
         "[Events]\\nFormat: Layer, Start, End, Style, Name, MarginL, MarginR, MarginV, Effect, Text\\n"
         "Dialogue: 0,0:00:00.00,0:00:19.00,Default,,0,0,0,,{\\\\move(10,10,200,100)}moves\\n' > {tmp}/moving.ass && "
         "ffmpeg -i {dir}/numbers.mp4 -i {tmp}/plain.srt -i {tmp}/moving.ass -map 0 -map 1 -map 2 -c copy {out}",
         320, 180, 500, 20000, true, 0},
        // A decoder that fails: the slices of 150 pictures in a row have an unknown type.
        {"broken.avi", "AVI, H.264; pictures 10 to 159 of 235 are refused by the decoder",
         "ffmpeg -f lavfi -i testsrc2=size=160x90:rate=25:duration=9.4 "
         "-c:v libx264 -preset veryfast -bf 0 -g 20 -pix_fmt yuv420p {tmp}/whole.avi && "
         "perl -e 'binmode STDIN; binmode STDOUT; undef $/; $_ = <STDIN>; my ($at, $n) = (index($_, \"movi\") + 4, 0); "
         "while ($at + 8 <= length $_ && substr($_, $at, 4) ne \"idx1\") { "
         "my $size = unpack(\"V\", substr($_, $at + 4, 4)); "
         "if (substr($_, $at, 4) eq \"00dc\" && $n++ >= 10 && $n <= 160) { my $data = substr($_, $at + 8, $size); "
         "$data =~ s/(\\x00\\x00\\x01)(.)/my $type = ord($2) & 31; $1 . ($type == 1 || $type == 5 ? chr(ord($2) | 31) : $2)/gse; "
         "substr($_, $at + 8, $size) = $data; } $at += 8 + $size + $size % 2; } print' < {tmp}/whole.avi > {out}",
         160, 90, 0, 9400, false, 0},
        // Three minutes for the keys of the player program, and a wall's four films.
        {"long.mp4", "three minutes in small",
         "ffmpeg -f lavfi -i testsrc2=size=160x90:rate=10:duration=180 "
         "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=180 -ac 2 "
         "-c:v libx264 -preset ultrafast -g 20 -pix_fmt yuv420p -c:a aac -b:a 64k {out}",
         160, 90, 1800, 180000, true, 440},
        {"wall0.mp4", "a red half minute with a bright bar that moves, and a tone",
         "ffmpeg -f lavfi -i color=c=0xc00000:size=640x360:rate=25:duration=30 "
         "-f lavfi -i color=c=white:size=16x40:rate=25:duration=30 "
         "-f lavfi -i sine=frequency=300:sample_rate=48000:duration=30 -filter_complex overlay=x=n:y=310 -ac 2 "
         "-c:v libx264 -preset ultrafast -bf 2 -g 25 -pix_fmt yuv420p -c:a aac -b:a 64k {out}",
         640, 360, 750, 30000, true, 300},
        {"wall1.mp4", "the same in green, without sound",
         "ffmpeg -f lavfi -i color=c=0x00a000:size=640x360:rate=25:duration=30 "
         "-f lavfi -i color=c=white:size=16x40:rate=25:duration=30 -filter_complex overlay=x=n:y=310 "
         "-c:v libx264 -preset ultrafast -bf 2 -g 50 -pix_fmt yuv420p {out}",
         640, 360, 750, 30000, true, 0},
        {"wall2.ts", "the same in blue, MPEG-TS with a tone",
         "ffmpeg -f lavfi -i color=c=0x0000c0:size=640x360:rate=25:duration=30 "
         "-f lavfi -i color=c=white:size=16x40:rate=25:duration=30 "
         "-f lavfi -i sine=frequency=600:sample_rate=48000:duration=30 -filter_complex overlay=x=n:y=310 -ac 2 "
         "-c:v libx264 -preset ultrafast -bf 2 -g 25 -pix_fmt yuv420p -c:a aac -b:a 64k {out}",
         640, 360, 750, 30000, true, 600},
        {"wall3.avi", "the same in yellow, MPEG-4 in AVI, without sound",
         "ffmpeg -f lavfi -i color=c=0xc0c000:size=640x360:rate=25:duration=30 "
         "-f lavfi -i color=c=white:size=16x40:rate=25:duration=30 -filter_complex overlay=x=n:y=310 "
         "-c:v mpeg4 -q:v 4 -g 25 -pix_fmt yuv420p {out}",
         640, 360, 750, 30000, true, 0},
        // Long enough for somebody to click around in it.
        {"clicks.mp4", "40 s of H.264 and AAC with pictures that change all the time",
         "ffmpeg -f lavfi -i testsrc2=size=640x360:rate=25:duration=40 "
         "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=40 -ac 2 -filter:a volume=4 "
         "-c:v libx264 -preset ultrafast -g 25 -pix_fmt yuv420p -c:a aac -b:a 64k {out}",
         640, 360, 1000, 40000, true, 440},
    }));
    return table;
}
// clang-format on

const MediaFile& mediaFile(std::string_view name) {
    for (const auto& file : mediaTable()) {
        if (name == file.name) {
            return file;
        }
    }
    std::fprintf(stderr, "no row %s in the table of media files\n", std::string(name).c_str());
    std::abort();
}

std::string mediaPath(const std::string& name) {
    return (std::filesystem::path(KELP_TEST_MEDIA_DIR) / name).string();
}

}  // namespace kelp::test
