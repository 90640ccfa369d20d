#!/usr/bin/env bash
# Records what is shown, and looks at the record. Arguments: the program and the folder of the media files.
set -u
# shellcheck source=tests/support/program_test.sh
. "$(dirname "$0")/../support/program_test.sh"
export SDL_VIDEODRIVER=dummy

"$program" "$media/small.mp4" "$scratch/shown.mp4" >"$scratch/out" 2>&1 || { fail "no record"; cat "$scratch/out"; }
read -r pictures _ left _ < <(grep -oE '^[0-9]+ pictures, [0-9]+' "$scratch/out")
counted=$(ffprobe -v error -count_frames -select_streams v -show_entries stream=codec_name,width,height,nb_read_frames \
    -of csv=p=0 "$scratch/shown.mp4" 2>&1)
echo "$pictures pictures, $left left out, in the file $counted"
# The last picture has no duration, and ffprobe may leave it out.
[ "$counted" = "h264,320,180,$pictures" ] || [ "$counted" = "h264,320,180,$((pictures - 1))" ] || fail "it holds $counted"
[ "$pictures" -ge 10 ] || fail "hardly a picture"
# What is shown first is the file's first picture, but for what encoding costs.
psnr=$(ffmpeg -nostdin -i "$scratch/shown.mp4" -i "$media/small.mp4" -lavfi \
    '[0]trim=end_frame=1,setpts=0[a];[1]trim=end_frame=1,setpts=0[b];[a][b]psnr' -f null - 2>&1 |
    sed -n 's/.*average:\([0-9.inf]*\).*/\1/p')
awk -v p="$psnr" 'BEGIN { exit !(p == "inf" || p > 28) }' || fail "the first picture: PSNR $psnr"
# Its times rise.
ffprobe -v error -select_streams v -show_entries packet=pts -of csv=p=0 "$scratch/shown.mp4" | tr -d , |
    awk 'NR > 1 && $1 + 0 <= last + 0 { exit 1 } { last = $1 }' || fail "times that don't rise"

"$program" "$media/small.mp4" "$scratch/no/such/folder.mp4" >"$scratch/out" 2>&1 && fail "a record in no folder"
"$program" "$media/missing.mp4" "$scratch/none.mp4" >"$scratch/out" 2>&1 && fail "a record of nothing"
[ ! -e "$scratch/none.mp4" ] || fail "a file without a picture"
"$program" >"$scratch/out" 2>&1
[ $? = 2 ] || fail "no usage"

[ "$failures" = 0 ] && echo "all as expected"
exit $((failures > 0))
