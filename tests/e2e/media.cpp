#include "e2e/media.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace kelp::test {

namespace {

namespace fs = std::filesystem;

std::string replaced(std::string text, const std::string& what, const std::string& by) {
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size())) {
        text.replace(at, what.size(), by);
    }
    return text;
}

std::string readAll(const fs::path& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace

// clang-format off
const std::vector<MediaFile>& mediaTable() {
    static const std::vector<MediaFile> table = {
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
        {"rotated.mp4", "MP4, H.264 with a display matrix of 90 degrees",
         "ffmpeg -i {dir}/small.mp4 -c copy -metadata:s:v:0 rotate=270 {out}",
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
         "ffmpeg -i {dir}/bars.mp4 -c copy -metadata:s:v:0 rotate=270 {out}",
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
        {"flipped.mp4", "an MP4 with 1% of its bytes changed",
         "perl -e 'binmode STDIN; binmode STDOUT; undef $/; $_ = <STDIN>; srand(7); "
         "for my $i (1 .. length($_) / 100) { substr($_, int(rand(length $_)), 1) = chr(int(rand(256))); } print' "
         "< {dir}/small.mp4 > {out}", 0, 0, 0, 0, false, 0},
        {"flipped.ts", "an MPEG-TS with 1% of its bytes changed",
         "perl -e 'binmode STDIN; binmode STDOUT; undef $/; $_ = <STDIN>; srand(7); "
         "for my $i (1 .. length($_) / 100) { substr($_, int(rand(length $_)), 1) = chr(int(rand(256))); } print' "
         "< {dir}/hevc.ts > {out}", 0, 0, 0, 0, false, 0},
        // Long enough for somebody to click around in it.
        {"long.mp4", "40 s of H.264 and AAC with pictures that change all the time",
         "ffmpeg -f lavfi -i testsrc2=size=640x360:rate=25:duration=40 "
         "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=40 -ac 2 -filter:a volume=4 "
         "-c:v libx264 -preset ultrafast -g 25 -pix_fmt yuv420p -c:a aac -b:a 64k {out}",
         640, 360, 1000, 40000, true, 440},
    };
    return table;
}
// clang-format on

const MediaFile& mediaFile(const std::string& name) {
    for (const auto& file : mediaTable()) {
        if (name == file.name) {
            return file;
        }
    }
    std::fprintf(stderr, "no row %s in the table of media files\n", name.c_str());
    std::abort();
}

std::string mediaPath(const std::string& name) {
    return (fs::path(KELP_TEST_MEDIA_DIR) / name).string();
}

bool makeMedia() {
    const fs::path folder(KELP_TEST_MEDIA_DIR);
    const fs::path scratch = folder / "scratch";
    fs::create_directories(scratch);
    bool rebuilt = false;
    for (const auto& file : mediaTable()) {
        const fs::path target = folder / file.name;
        const fs::path stamp = folder / (std::string(file.name) + ".command");
        // A row made from another one is made again with it.
        const bool derived = std::string(file.make).find("{dir}") != std::string::npos;
        if (fs::exists(target) && readAll(stamp) == file.make && !(derived && rebuilt)) {
            continue;
        }
        rebuilt = true;
        fs::remove(target);
        std::string command = replaced(file.make, "{out}", "'" + target.string() + "'");
        command = replaced(command, "{tmp}", "'" + scratch.string() + "'");
        command = replaced(command, "{dir}", "'" + folder.string() + "'");
        command = "ffmpeg() { command ffmpeg -nostdin -v error -y -bitexact \"$@\"; }; " + command;
        std::printf("%s\n", file.name);
        if (std::system(command.c_str()) != 0 || !fs::exists(target)) {
            std::fprintf(stderr, "can't make %s: %s\n", file.name, command.c_str());
            fs::remove(target);
            return false;
        }
        std::ofstream(stamp) << file.make;
    }
    fs::remove_all(scratch);
    return true;
}

}  // namespace kelp::test
