#!/usr/bin/env bash
# The video wall: what its window shows, and its keys. Arguments: the program and the folder of the media files.
set -u
# shellcheck source=tests/support/program_test.sh
. "$(dirname "$0")/../support/program_test.sh"

expect 0 --help
grep -q '^usage:' "$scratch/out" || fail "no usage for --help"
expect 2
expect 2 --tiles many "$media/short.mp4"
expect 2 --tiles 65 "$media/short.mp4"
expect 2 --nonsense "$media/short.mp4"
expect 2 --option novalue "$media/short.mp4"
expect 1 "$media/short.mp4" "$media/missing.mp4"
grep -q 'missing.mp4: no such file' "$scratch/err" || fail "no word of the missing file"

# One file many times, to the end; a film that can't be played doesn't hold the others up.
expect 0 --headless --tiles 4 --sound 0 "$media/short.mp4"
grep -qE '^\[#*\.*\] 00:0. / 00:00  [0-9]+ pictures' "$scratch/out" || { fail "no progress line"; cat "$scratch/out"; }
expect 0 --headless --option video_track=none "$media/short.mp4"
tail -n 1 "$scratch/out" | grep -q '  0 pictures' || { fail "pictures in spite of the option"; cat "$scratch/out"; }
expect 1 --headless "$media/short.mp4" "$media/text.mp4"
grep -q 'text.mp4: can.t be played' "$scratch/err" || fail "no word of the film that isn't one"

# Four films in a window of 1280x720 in the middle of the screen.
start_xvfb "$scratch"
timeout 120 "$program" "$media/wall0.mp4" "$media/wall1.mp4" "$media/wall2.ts" "$media/wall3.avi" \
    >"$scratch/out" 2>"$scratch/err" </dev/null &
player=$!

# wait_for WHAT COMMAND...: until the command succeeds.
wait_for() {
    local what=$1
    shift
    for _ in $(seq 100); do
        "$@" && return
        sleep 0.2
    done
    fail "$what; the last line is $(tail -n 1 "$scratch/out")"
    cat "$scratch/err"
}
shows() { tail -n 1 "$scratch/out" | grep -qE "$1"; }
grab() {
    ffmpeg -nostdin -v error -y -f x11grab -draw_mouse 0 -video_size 1400x900 -i "$DISPLAY" -frames:v 1 -pix_fmt rgb24 -f rawvideo \
        "$scratch/screen" 2>/dev/null
}
pixel() { # X Y
    od -An -tu1 -v -j $((($2 * 1400 + $1) * 3)) -N 3 "$scratch/screen" | tr -s ' '
}
# Whether the pixel of the last grab has nearly this colour: X Y R G B.
looks_like() {
    pixel "$1" "$2" | awk -v r="$3" -v g="$4" -v b="$5" \
        'function near(x, y) { return x - y < 25 && y - x < 25 } { exit !(near($1, r) && near($2, g) && near($3, b)) }'
}
# The tiles in their colours, each to its edges, on a black screen.
tiles_stand() {
    grab || return 1
    local x y
    for x in 64 380 690; do
        for y in 94 270 440; do
            looks_like $x $y 192 0 0 && looks_like $((x + 640)) $y 0 160 0 &&
                looks_like $x $((y + 360)) 0 0 192 && looks_like $((x + 640)) $((y + 360)) 192 192 0 || return 1
        done
    done
    looks_like 50 450 0 0 0 && looks_like 700 80 0 0 0
}
# Where the bright bar is in the tile at X Y; it moves by a pixel a picture.
bar() {
    od -An -tu1 -v -w3 -j $(((($2 + 330) * 1400 + $1) * 3)) -N $((640 * 3)) "$scratch/screen" |
        awk '$1 > 225 && $2 > 225 && $3 > 225 { print NR - 1; exit }'
}

wait_for "the tiles don't stand" tiles_stand
xdotool mousemove 700 20 # off the window, but the keys go where the pointer is
xdotool mousemove 690 430

# Paused and sent to the same time they show the same picture, or nearly: they don't begin at the same fraction of one,
# and a seek may end at a picture before its target.
wait_for "doesn't play" shows '00:0[2-9] / 00:30'
xdotool key space
wait_for "no pause" shows 'paused$'
sleep 1
xdotool key Right
bars_close() {
    grab || return 1
    local bars least most
    bars="$(bar 60 90) $(bar 700 90) $(bar 60 450) $(bar 700 450)"
    set -- $bars
    [ $# = 4 ] || return 1
    least=$(printf '%s\n' "$@" | sort -n | head -1)
    most=$(printf '%s\n' "$@" | sort -n | tail -1)
    [ "$least" -gt 150 ] && [ $((most - least)) -le 4 ]
}
wait_for "the films aren't at the same picture" bars_close
echo "the films' pictures: $(bar 60 90) $(bar 700 90) $(bar 60 450) $(bar 700 450)"
held=$(bar 60 90)
sleep 1
grab && [ "$(bar 60 90)" = "$held" ] || fail "a film goes on while all are paused"
xdotool key bracketright bracketright bracketright
wait_for "no speed" shows 'x2.00  paused$'
xdotool key space
wait_for "doesn't go on" shows '00:(1[4-9]|2.) / 00:30 .*x2.00$'
xdotool key Home
wait_for "doesn't go back" shows '00:0[0-4] / 00:30'
xdotool key q
wait $player || { fail "exit code at q"; cat "$scratch/err"; }

[ "$failures" = 0 ] && echo "all as expected"
exit $((failures > 0))
