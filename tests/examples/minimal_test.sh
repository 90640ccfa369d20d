#!/usr/bin/env bash
# The shortest host, on a screen of its own. Arguments: the program and the folder of the media files.
set -u
# shellcheck source=tests/support/program_test.sh
. "$(dirname "$0")/../support/program_test.sh"

start_xvfb "$scratch"

timeout 60 "$program" "$media/bars.mp4" >"$scratch/out" 2>&1 </dev/null &
player=$!
seen=
for _ in $(seq 150); do
    sleep 0.2
    # The second of seven bars is yellow. The window begins at 100, 100.
    pixel=$(ffmpeg -nostdin -v error -f x11grab -video_size 1400x900 -i "$DISPLAY" -frames:v 1 \
        -vf 'crop=1:1:374:300' -pix_fmt rgb24 -f rawvideo - 2>/dev/null | od -An -tu1 | tr -s ' ')
    read -r red green blue <<<"$pixel"
    if [ "${red:-0}" -gt 150 ] && [ "${green:-0}" -gt 150 ] && [ "${blue:-255}" -lt 60 ]; then
        seen=yes
        break
    fi
    kill -0 $player 2>/dev/null || break
done
[ -n "$seen" ] || fail "no yellow bar in the window, the last pixel was: $pixel"
wait $player || { fail "it didn't play to the end"; cat "$scratch/out"; }

timeout 60 "$program" "$media/missing.mp4" >"$scratch/out" 2>&1 </dev/null
[ $? = 1 ] || fail "no exit code 1 for a missing file"
grep -q 'No such file or directory' "$scratch/out" || { fail "the log doesn't say why"; cat "$scratch/out"; }
"$program" >"$scratch/out" 2>&1
[ $? = 2 ] && grep -q '^usage:' "$scratch/out" || fail "no usage"

[ "$failures" = 0 ] && echo "all as expected"
exit $((failures > 0))
