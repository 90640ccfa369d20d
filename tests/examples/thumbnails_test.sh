#!/usr/bin/env bash
# Contact sheets against pictures that the ffmpeg command decodes. Arguments: the program and the folder of the media
# files.
set -u
# shellcheck source=tests/support/program_test.sh
. "$(dirname "$0")/../support/program_test.sh"

size_of() { ffprobe -v error -show_entries stream=codec_name,width,height -of csv=p=0 "$1" 2>&1; }

# tile FILE MS INDEX COLUMNS WIDTH HEIGHT: the sheet's tile shows the picture of FILE that is on at MS.
tile() {
    ffmpeg -v error -nostdin -y -i "$1" -vf "select='lte(t*1000\\,$2)',reverse" -frames:v 1 "$scratch/expected.png"
    # Nearest pixels here against interpolated chroma there cost a little; a neighbouring picture differs by more.
    psnr=$(ffmpeg -nostdin -i "$scratch/sheet.png" -i "$scratch/expected.png" -lavfi \
        "[0]crop=$5:$6:$(($3 % $4 * $5)):$(($3 / $4 * $6))[a];[a][1]psnr" -f null - 2>&1 |
        sed -n 's/.*average:\([0-9.inf]*\).*/\1/p')
    awk -v p="$psnr" 'BEGIN { exit !(p == "inf" || p > 35) }' || fail "tile $3 of $1 at $2 ms: PSNR $psnr"
    echo "tile $3 of $(basename "$1"): PSNR $psnr"
}

expect 0 "$media/small.mp4" 6 "$scratch/sheet.png"
grep -qh '^6 of 6 pictures$' "$scratch/out" "$scratch/err" || { fail "not six pictures"; cat "$scratch/out"; }
[ "$(size_of "$scratch/sheet.png")" = png,960,360 ] || fail "the sheet is $(size_of "$scratch/sheet.png")"
for n in 0 1 2 3 4 5; do
    tile "$media/small.mp4" $((3000 * (2 * n + 1) / 12)) "$n" 3 320 180
done

expect 0 "$media/rotated.mp4" 1 "$scratch/sheet.png"
[ "$(size_of "$scratch/sheet.png")" = png,180,320 ] || fail "the turned sheet is $(size_of "$scratch/sheet.png")"
tile "$media/rotated.mp4" 1500 0 1 180 320

expect 0 "$media/codecs/vp9_flac.mp4" 1 "$scratch/sheet.png"
tile "$media/codecs/vp9_flac.mp4" 500 0 1 64 48

expect 0 --option video_track=2 "$media/two_tracks.mp4" 1 "$scratch/sheet.png"
[ "$(size_of "$scratch/sheet.png")" = png,160,90 ] || fail "the second video's sheet is $(size_of "$scratch/sheet.png")"
expect 2 --option novalue "$media/short.mp4" 1 "$scratch/none.png"

expect 1 "$media/missing.mp4" 4 "$scratch/none.png"
grep -qh 'No such file or directory' "$scratch/out" "$scratch/err" || { fail "the log doesn't say why"; cat "$scratch/err"; }
expect 1 "$media/tone.mp3" 4 "$scratch/none.png"
expect 1 "$media/short.mp4" 2 "$scratch/no/such/folder.png"
expect 2 "$media/short.mp4" 0 "$scratch/none.png"
[ ! -e "$scratch/none.png" ] || fail "a file without a picture"

[ "$failures" = 0 ] && echo "all as expected"
exit $((failures > 0))
