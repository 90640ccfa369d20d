# For test scripts to source, with the program and the folder of the media files as arguments: `scratch` is a folder of
# the script's own, which goes with it, as a screen that it has started does; `failures` counts what `fail` tells.
program=$1
media=$2
# shellcheck source=tests/support/start_xvfb.sh
. "$(dirname "${BASH_SOURCE[0]}")/start_xvfb.sh"
scratch=$(mktemp -d)
xvfb=
trap '[ -z "$xvfb" ] || kill "$xvfb" 2>/dev/null; rm -rf "$scratch"' EXIT
unset DISPLAY WAYLAND_DISPLAY
export SDL_AUDIODRIVER=dummy
failures=0

fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

# expect CODE ARGS...: runs the program; what it prints stands in $scratch/out and $scratch/err.
expect() {
    local code=$1 got
    shift
    timeout 100 "$program" "$@" >"$scratch/out" 2>"$scratch/err" </dev/null
    got=$?
    if [ "$got" != "$code" ]; then
        fail "$(basename "$program") $*: exit code $got, not $code"
        cat "$scratch/out" "$scratch/err"
    fi
}
