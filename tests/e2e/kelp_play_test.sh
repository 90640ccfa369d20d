#!/usr/bin/env bash
# The player program as somebody at a terminal uses it. Arguments: the program and the folder of the media files.
set -u
# shellcheck source=tests/support/program_test.sh
. "$(dirname "$0")/../support/program_test.sh"

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

# Codecs that are played for a host that asks for more than the standard.
expect 0 --headless --snapshot 1 "$scratch/vp8" "$media/codecs/vp8_opus.webm"
size=$(ffprobe -v error -show_entries stream=width,height -of csv=p=0 "$scratch/vp8/snapshot-001.png" 2>&1)
[ "$size" = 64,48 ] || fail "the snapshot of VP8 is $size"
expect 1 --headless --option preset=standard "$media/codecs/vp8_opus.webm"

timeout -k 10 8 "$program" --headless --loop "$media/short.mp4" >"$scratch/out" 2>&1 </dev/null
[ $? = 124 ] || fail "kelp_play --loop ends with the film"

# A record of what is played: every picture, and nothing to complain about.
expect 0 --headless --record "$scratch/record.mkv" "$media/small.mp4"
pictures=$(ffprobe -v error -count_packets -select_streams v -show_entries stream=nb_read_packets -of csv=p=0 "$scratch/record.mkv")
[ "$pictures" = 75 ] || fail "the record holds $pictures pictures"
complaint=$(ffmpeg -v error -nostdin -i "$scratch/record.mkv" -f null - 2>&1)
[ -z "$complaint" ] || fail "the record: $complaint"
# A full disk ends the record, not the playback.
ln -s /dev/full "$scratch/full.mp4"
expect 1 --headless --record "$scratch/full.mp4" "$media/small.mp4"
grep -q '\] 00:02 / 00:03' "$scratch/out" || { fail "not played to the end"; cat "$scratch/out"; }
one_line_about 'full.mp4: No space left on device'
expect 1 --headless --record "$scratch/record.txt" "$media/small.mp4"
# A player that is killed leaves a record that plays.
timeout 60 "$program" --headless --record "$scratch/killed.mp4" "$media/long.mp4" >"$scratch/out" 2>&1 </dev/null &
player=$!
for _ in $(seq 100); do
    [ "$(stat -c %s "$scratch/killed.mp4" 2>/dev/null || echo 0)" -gt 20000 ] && break
    sleep 0.1
done
kill -9 "$(ps -o pid= --ppid $player)"
wait $player 2>/dev/null
pictures=$(ffprobe -v error -count_frames -select_streams v -show_entries stream=nb_read_frames -of csv=p=0 "$scratch/killed.mp4")
[ "${pictures:-0}" -ge 20 ] || fail "the killed player left $pictures pictures"

expect 0 --headless "$media/vorbis.ogg"
expect 0 --headless "$media/vfr.mkv"

expect 1 --headless "$media/missing.mp4"
one_line_about 'missing.mp4: no such file'
expect 1 --headless "$media"
one_line_about 'is a folder'
expect 1 --headless "$media/empty.mp4"
one_line_about 'the file is empty'
expect 1 --headless "$media/text.mp4"
one_line_about 'text.mp4: it is damaged or cut off'
expect 2 --nonsense "$media/short.mp4"
grep -q 'unknown option --nonsense' "$scratch/err" && grep -q '^usage:' "$scratch/err" || fail "no usage"
expect 2
expect 2 --snapshot 0 "$scratch" "$media/short.mp4"
expect 2 --snapshot 3
expect 2 "$media/short.mp4" "$media/short.mp4"
for mistake in "--master nobody" "--master" "--retry soon" "--retry -1" "--option novalue" "--option =x" "--log loud" "--record" "--subtitles"; do
    # shellcheck disable=SC2086
    expect 2 $mistake "$media/short.mp4"
done
expect 0 --help
grep -q '^usage:' "$scratch/out" || fail "no usage for --help"

# Whoever the master is, and in software.
for master in clock audio video host; do
    expect 0 --headless --no-hw --master $master "$media/short.mp4"
done

# The log goes to standard error, options to the demuxer; both only if asked for.
expect 0 --headless --log debug --option max_delay=70000 --option no_such_option=x "$media/short.mp4"
grep -q 'key:max_delay, value:70000' "$scratch/err" && grep -q 'key:no_such_option, value:x' "$scratch/err" ||
    { fail "the options don't reach the demuxer"; cat "$scratch/err"; }
! grep -q 'StreamParser' "$scratch/out" || fail "the log is on standard output"
expect 0 --headless --log none "$media/short.mp4"
! grep -q . "$scratch/err" || { fail "a log that nobody asked for"; cat "$scratch/err"; }

# Subtitles of a second file, and one that isn't there.
printf '1\n00:00:00,000 --> 00:00:09,000\nbeside\n\n' >"$scratch/beside.srt"
expect 0 --headless --log error --subtitles "$scratch/beside.srt" "$media/short.mp4"
! grep -q 'SubtitleFile' "$scratch/err" || fail "the subtitles aren't read"
expect 0 --headless --log error --subtitles "$scratch/missing.srt" "$media/short.mp4"
grep -q "missing.srt can't be read" "$scratch/err" || fail "no word about missing subtitles"

# A source that isn't there yet is tried again, until it is, or the user has enough.
timeout 60 "$program" --headless --retry 200 "$scratch/later.mp4" >"$scratch/out" 2>"$scratch/err" </dev/null &
player=$!
sleep 1
cp "$media/short.mp4" "$scratch/part" && mv "$scratch/part" "$scratch/later.mp4"
wait $player || { fail "the source came too late"; cat "$scratch/err"; }
timeout 60 "$program" --headless --retry 200 "$scratch/never.mp4" >"$scratch/out" 2>"$scratch/err" </dev/null &
player=$!
# Whether the program, which `timeout` runs, has a handler for the signal by now: bit 14 of the mask.
catches_sigterm() {
    local process mask
    process=$(ps -o pid= --ppid $player | tr -d ' ')
    mask=$(sed -n 's/^SigCgt:[[:space:]]*//p' "/proc/$process/status" 2>/dev/null)
    [ -n "$mask" ] && [ $((0x$mask >> 14 & 1)) = 1 ] && [ "$(cat "/proc/$process/comm")" = "$(basename "$program")" ]
}
for _ in $(seq 100); do
    catches_sigterm && break
    sleep 0.1
done
sleep 0.5
kill -TERM "$(ps -o pid= --ppid $player)"
wait $player || { fail "no end to the retries"; cat "$scratch/err"; }

# By what the progress line says.
last_line() { tail -n 1 "$scratch/out"; }
now_ms() { date +%s%3N; }
position() { last_line | sed -n 's/.*] \([0-9]*\):\([0-9]*\) .*/\1 \2/p' | awk '{print $1 * 60 + $2}'; }
# wait_for WHAT COMMAND...: until the command succeeds.
wait_for() {
    local what=$1
    shift
    for _ in $(seq 300); do
        "$@" && return
        sleep 0.1
    done
    fail "$what; the last line is $(last_line)"
    cat "$scratch/err"
}
shows() { last_line | grep -qE "$1"; }

# A server that gives half of the film and waits: the program says so, and plays the rest when it comes.
cat >"$scratch/half.py" <<'END'
import http.server, os, sys, time
film, ready, port = sys.argv[1:]
data = open(film, "rb").read()

class Half(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        self.send_response(200)
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data[:len(data) // 2])
        while not os.path.exists(ready):
            time.sleep(0.05)
        self.wfile.write(data[len(data) // 2:])

server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Half)
open(port + ".part", "w").write(str(server.server_port))
os.rename(port + ".part", port)
server.serve_forever()
END
python3 "$scratch/half.py" "$media/faststart.mp4" "$scratch/ready" "$scratch/port" 2>"$scratch/server" &
server=$!
wait_for "no server" test -s "$scratch/port"
timeout 120 "$program" --headless "http://127.0.0.1:$(cat "$scratch/port")/film.mp4" >"$scratch/out" 2>"$scratch/err" </dev/null &
player=$!
wait_for "nothing said of the stall" shows 'frames  waits for data, [0-9]+%$'
touch "$scratch/ready"
wait $player || { fail "a film that comes in two halves"; cat "$scratch/err"; }
shows 'frames$' || fail "still waits: $(last_line)"
kill $server

# With a display it opens a window of that name, shows the bars, and ends by itself.
start_xvfb "$scratch"
timeout 60 "$program" "$media/bars.mp4" >"$scratch/out" 2>"$scratch/err" </dev/null &
player=$!
seen=
for _ in $(seq 100); do
    sleep 0.2
    # The left bar of the picture is grey, the one beside it yellow, and around the window all is black.
    pixels=$(ffmpeg -nostdin -v error -f x11grab -video_size 1400x900 -i "$DISPLAY" -frames:v 1 \
        -vf 'crop=1:1:200:300' -pix_fmt rgb24 -f rawvideo - 2>/dev/null | od -An -tu1 | tr -s ' ')
    case "$pixels" in
        *" 0 0 0"*) ;;
        ?*) seen=$pixels; break ;;
    esac
done
[ -n "$seen" ] || fail "nothing to be seen in the window"
wait $player || { fail "the player with a window failed"; cat "$scratch/err"; }

# The keys.
between() { local at; at=$(position); [ "${at:-0}" -ge "$1" ] && [ "$at" -le "$2" ]; }
# Nobody manages the windows of this screen: keys go to the one that has been given the focus. It bears the file's name
# from when it is not made anew any more.
film=long.mp4
start() { # ARGS...
    (cd "$scratch" && exec timeout 180 "$program" "$@" "$media/$film") >"$scratch/out" 2>"$scratch/err" </dev/null &
    player=$!
    xdotool mousemove 700 450
    wait_for "$* doesn't start" between 1 20
    timeout 30 xdotool search --sync --onlyvisible --name "^$film" windowfocus --sync >"$scratch/focus" 2>&1 ||
        { fail "no window that takes the keys"; cat "$scratch/focus"; xdotool search --name . ; }
}
quit() {
    xdotool key q
    wait $player || { fail "exit code at q"; cat "$scratch/err"; }
}
start
xdotool key period
wait_for "a step doesn't pause" shows 'paused$'
xdotool key space
wait_for "doesn't go on behind a step" shows 'frames$'
xdotool key space
wait_for "no pause" shows 'paused$'
stood=$(position)
xdotool key Up
wait_for "one minute on while paused" between $((stood + 58)) $((stood + 61))
xdotool key Right
wait_for "5 s on" between $((stood + 63)) $((stood + 66))
xdotool key Left Left
wait_for "10 s back" between $((stood + 53)) $((stood + 56))
xdotool key shift+Right
wait_for "one minute on with shift" between $((stood + 113)) $((stood + 116))
xdotool key Down
wait_for "one minute back" between $((stood + 53)) $((stood + 56))
xdotool mousemove 700 450 click 1
wait_for "a click in the middle" between 89 91
xdotool mousemove 380 450 mousedown 1 mousemove 400 450 mousemove 1020 450 mouseup 1
wait_for "a drag to three quarters" between 133 137
xdotool key Home
wait_for "the start" between 0 1
shows 'paused$' || fail "seeks ended the pause"
xdotool key --repeat 20 period
wait_for "20 pictures on" between 2 2
xdotool key --repeat 20 comma
wait_for "20 pictures back" between 0 0
xdotool key shift+l
wait_for "the beginning of a part" shows '  from [01]\.[0-9] s  paused$'
xdotool key Right
wait_for "5 s on" between 5 6
xdotool key shift+l
wait_for "a part in a loop" shows 'frames  again and again  paused$'
xdotool key shift+l
wait_for "no loop any more" shows 'frames  paused$'
xdotool key l
wait_for "the film in a loop" shows 'frames  again and again  paused$'
xdotool key l
wait_for "no loop" shows 'frames  paused$'
xdotool key z
wait_for "the window filled" shows 'frames  window filled  paused$'
xdotool key z
wait_for "the picture's shape" shows 'frames  paused$'
xdotool key 0 0
wait_for "volume up" shows 'volume 120%'
xdotool key 9 9 9
wait_for "volume down" shows 'volume 90%'
xdotool key m
wait_for "mute" shows 'volume 90%  muted  paused$'
xdotool key m
wait_for "no mute" shows 'volume 90%  paused$'
xdotool key bracketright bracketright bracketright bracketright bracketright bracketright bracketright
wait_for "the highest speed" shows 'x4.00'
xdotool key BackSpace
wait_for "the usual speed" shows '[^x]*90%  paused$'
xdotool key bracketright bracketright bracketright bracketright bracketright bracketright bracketright
wait_for "the highest speed again" shows 'x4.00'
xdotool key space
wait_for "goes on" shows '90%$'
# 24 s of the film take 6 s, and 12 s at half that speed. A machine may be busy for a while, but not at all times.
fast=
for _ in 1 2 3; do
    at=$(now_ms)
    from=$(position)
    wait_for "plays at speed 4" between $((from + 24)) 175
    took=$(($(now_ms) - at))
    echo "speed 4: $(($(position) - from)) s in $took ms"
    [ $took -gt 11500 ] || { fast=yes; break; }
done
[ -n "$fast" ] || fail "speed 4 is too slow"
xdotool key Home bracketleft bracketleft bracketleft bracketleft bracketleft bracketleft bracketleft bracketleft
wait_for "the lowest speed" shows 'x0.50'
xdotool key End
wait_for "three seconds before the end" between 176 178
statistics() { grep -qE '^video 0: h264 by h264, [0-9]+x[0-9]+, ' "$scratch/out" && grep -q '^sound 1: aac by aac, ' "$scratch/out"; }
xdotool key i
wait_for "no statistics" statistics
# It stands where the program was started.
xdotool key s
saved() { [ "$(cd "$scratch" && ffprobe -v error -show_entries stream=codec_name -of csv=p=0 long-*.png 2>/dev/null)" = png ]; }
wait_for "no picture was saved" saved
quit

# With the other masters the program takes a clock of its own that keeps the speed.
for master in clock host; do
    start --master $master
    xdotool key bracketright bracketright bracketright
    wait_for "speed 2" shows 'x2.00'
    at=$(date +%s)
    from=$(position)
    wait_for "plays at speed 2 with $master" between $((from + 8)) 175
    echo "speed 2 with $master: $(($(position) - from)) s in $(($(date +%s) - at)) s"
    xdotool key space
    wait_for "no pause with $master" shows 'paused$'
    xdotool key Up
    wait_for "one minute on with $master" between 68 110
    xdotool key space
    stood=$(position)
    wait_for "goes on with $master" between $((stood + 2)) 175
    quit
done

# The tracks, by the statistics.
film=two_tracks.mp4
plays() { xdotool key i; grep "^$1 " "$scratch/out" | tail -n 1 | grep -q "^$1 $2: "; }
start --option audio_track=1 --option video_track=0
wait_for "the first sound" plays sound 1
xdotool key a
wait_for "the other sound" plays sound 3
xdotool key v
wait_for "the other video" plays video 2
xdotool key a
wait_for "the first sound again" plays sound 1
quit

film=long.mp4
SDL_AUDIODRIVER=dummy start
xdotool key d
wait_for "another sound device" shows 'frames  to .'
xdotool key d
wait_for "the default sound device" shows 'frames$'
quit

[ "$failures" = 0 ] && echo "all as expected"
exit $((failures > 0))
