#!/usr/bin/env bash
# Makes the pictures in docs/images anew: what the programs show on an X server without hardware. Wants the packages of
# `./dev setup`, and the fonts that it installs.
set -euo pipefail
cd "$(dirname "$0")/../.."
build=$PWD/build/release
images=$PWD/docs/images
cmake --build "$build" --target make_media e2e_windows_tests e2e_qt_player_tests kelp_play
"$build/tests/e2e/make_media"
scratch=$(mktemp -d)
xvfb=
player=
trap '[ -z "$player" ] || kill "$player" 2>/dev/null; [ -z "$xvfb" ] || kill "$xvfb" 2>/dev/null; rm -rf "$scratch"' EXIT
export SDL_AUDIODRIVER=dummy
make() { ffmpeg -nostdin -v error -y "$@"; }

# Four ratios in windows of three shapes; the tests start a screen of their own.
KELP_SCREENSHOT=$scratch/fit.ppm "$build/tests/e2e/e2e_windows_tests" --gtest_brief=1 --gtest_filter='*OfThreeShapesKeepFourRatios'
make -i "$scratch/fit.ppm" "$images/fit.png"

# The desktop player.
make -f lavfi -i testsrc2=size=1280x720:rate=30:duration=20 -f lavfi -i sine=frequency=440:sample_rate=48000:duration=20 \
    -c:v libx264 -preset veryfast -pix_fmt yuv420p -c:a aac -ac 2 "$scratch/sample.mp4"
"$build/tests/e2e/e2e_qt_player_tests" --pictures "$scratch/sample.mp4" "$images"

# Subtitles as text and as pictures, side by side.
make -f lavfi -i "gradients=size=640x360:rate=5:duration=60:c0=0x203050:c1=0x6080a0:x0=0:y0=0:x1=0:y1=90:speed=0.00001" \
    -c:v libx264 -preset veryfast -pix_fmt yuv420p "$scratch/film.mp4"
/usr/bin/python3 docs/screenshots/pgs.py 'Pictures of a Blu-ray disc (PGS)' "$scratch/disc.sup"
. tests/support/start_xvfb.sh
unset WAYLAND_DISPLAY
start_xvfb "$scratch"
for subtitles in docs/screenshots/script.ass "$scratch/disc.sup"; do
    "$build/examples/kelp_play/kelp_play" --subtitles "$subtitles" "$scratch/film.mp4" >"$scratch/out" 2>&1 </dev/null &
    player=$!
    sleep 6 # a line stands for as long as the film
    make -f x11grab -draw_mouse 0 -video_size 1280x720 -i "$DISPLAY+60,90" -frames:v 1 "$scratch/$(basename "$subtitles").png"
    kill "$player"
    wait "$player" || true
    player=
done
make -i "$scratch/script.ass.png" -i "$scratch/disc.sup.png" -filter_complex \
    '[0]scale=640:360,pad=648:360:color=white[left];[1]scale=640:360[right];[left][right]hstack' "$images/subtitles.png"
