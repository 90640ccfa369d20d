#!/usr/bin/env bash
# The player program as somebody at a terminal uses it. Arguments: the program and the folder of the media files.
set -u
program=$1
media=$2
scratch=$(mktemp -d)
xvfb=
trap '[ -z "$xvfb" ] || kill "$xvfb" 2>/dev/null; rm -rf "$scratch"' EXIT
failures=0
unset DISPLAY WAYLAND_DISPLAY
export SDL_AUDIODRIVER=dummy

fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

# expect CODE ARGS...: runs the program; what it prints stands in $scratch/out and $scratch/err.
expect() {
    local code=$1 got
    shift
    timeout 60 "$program" "$@" >"$scratch/out" 2>"$scratch/err" </dev/null
    got=$?
    if [ "$got" != "$code" ]; then
        fail "kelp_play $*: exit code $got, not $code"
        cat "$scratch/out" "$scratch/err"
    fi
}

one_line_about() { # TEXT
    [ "$(wc -l <"$scratch/err")" = 1 ] && grep -q "$1" "$scratch/err" ||
        { fail "not one line about '$1' but:"; cat "$scratch/err"; }
}

# Without a display it plays all the same, to the end.
expect 0 "$media/short.mp4"
grep -qE '^\[#*\.*\] 00:00 / 00:00 +[0-9]+ fps +[0-9]+ frames' "$scratch/out" || { fail "no progress line"; cat "$scratch/out"; }

expect 0 --headless --snapshot 3 "$scratch/pictures" "$media/small.mp4"
for n in 1 2 3; do
    picture=$scratch/pictures/snapshot-00$n.png
    size=$(ffprobe -v error -show_entries stream=codec_name,width,height -of csv=p=0 "$picture" 2>&1)
    [ "$size" = png,320,180 ] || fail "snapshot $n is $size"
    # The picture is the file's at (2n - 1) / 6 of its 3 seconds.
    # A conversion to RGB and back costs little; the picture 80 ms away differs by far more.
    ffmpeg -v error -y -ss "$(echo "$n" | awk '{print ($1 * 2 - 1) * 3 / 6 - 0.001}')" -i "$media/small.mp4" \
        -frames:v 1 "$scratch/expected.png" </dev/null
    psnr=$(ffmpeg -nostdin -i "$picture" -i "$scratch/expected.png" -lavfi psnr -f null - 2>&1 |
        sed -n 's/.*average:\([0-9.inf]*\).*/\1/p')
    awk -v p="$psnr" 'BEGIN { exit !(p == "inf" || p > 35) }' || fail "snapshot $n: PSNR $psnr"
done
[ ! -e "$scratch/pictures/snapshot-004.png" ] || fail "a snapshot too many"

expect 0 --headless --snapshot 1 "$scratch/turned" "$media/rotated.mp4"
size=$(ffprobe -v error -show_entries stream=width,height -of csv=p=0 "$scratch/turned/snapshot-001.png" 2>&1)
[ "$size" = 180,320 ] || fail "the turned snapshot is $size"

expect 0 --headless "$media/vorbis.ogg"
expect 0 --headless "$media/vfr.mkv"

expect 1 --headless "$media/missing.mp4"
one_line_about 'missing.mp4: no such file'
expect 1 --headless "$media"
one_line_about 'is a folder'
expect 1 --headless "$media/empty.mp4"
one_line_about 'the file is empty'
expect 1 --headless "$media/text.mp4"
one_line_about 'text.mp4: .*Invalid data'
expect 2 --nonsense "$media/short.mp4"
grep -q 'unknown option --nonsense' "$scratch/err" && grep -q '^usage:' "$scratch/err" || fail "no usage"
expect 2
expect 2 --snapshot 0 "$scratch" "$media/short.mp4"
expect 2 --snapshot 3
expect 2 "$media/short.mp4" "$media/short.mp4"
expect 0 --help
grep -q '^usage:' "$scratch/out" || fail "no usage for --help"

# With a display it opens a window of that name, shows the bars, and ends by itself.
mkfifo "$scratch/display"
Xvfb -displayfd 4 -screen 0 1400x900x24 -nolisten tcp 4>"$scratch/display" >/dev/null 2>&1 &
xvfb=$!
read -r display <"$scratch/display"
DISPLAY=:$display timeout 60 "$program" "$media/bars.mp4" >"$scratch/out" 2>"$scratch/err" </dev/null &
player=$!
seen=
for _ in $(seq 100); do
    sleep 0.2
    # The left bar of the picture is grey, the one beside it yellow, and around the window all is black.
    pixels=$(ffmpeg -nostdin -v error -f x11grab -video_size 1400x900 -i ":$display" -frames:v 1 \
        -vf 'crop=1:1:200:300' -pix_fmt rgb24 -f rawvideo - 2>/dev/null | od -An -tu1 | tr -s ' ')
    case "$pixels" in
        *" 0 0 0"*) ;;
        ?*) seen=$pixels; break ;;
    esac
done
[ -n "$seen" ] || fail "nothing to be seen in the window"
wait $player || { fail "the player with a window failed"; cat "$scratch/err"; }

[ "$failures" = 0 ] && echo "all as expected"
exit $((failures > 0))
