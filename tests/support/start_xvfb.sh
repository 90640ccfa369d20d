# For test scripts to source. start_xvfb FOLDER: starts an X server without hardware, with a screen of 1400x900; sets
# xvfb to its process, which the script is to end, and DISPLAY. FOLDER is the script's own, for a pipe.
#
# Two servers that look for a free display at the same time may each get a half of one: tests wait for each other, by the
# same lock as tests/support/xvfb_process.cpp.
start_xvfb() {
    local lock=/tmp/.kelp_test_xvfb.lock number=
    mkfifo "$1/display"
    [ -e "$lock" ] || (umask 0 && : >>"$lock") 2>/dev/null
    {
        flock 9
        setpriv --pdeathsig TERM Xvfb -displayfd 4 -screen 0 1400x900x24 -nolisten tcp -noreset \
            4>"$1/display" 9<&- >/dev/null 2>&1 &
        xvfb=$!
        read -r number <"$1/display"
    } 9<"$lock"
    export DISPLAY=:$number
}
