#!/bin/sh
# Fails when a header is included against the order of the rooms, or when a public header includes anything but the
# standard library and its neighbours. Run in the project's root.
set -u
bad=$(
    allowed() { # ROOM: the rooms that it may include
        case $1 in
            control) echo "control playtask present subtitle decode input clock runtime" ;;
            playtask) echo "playtask present subtitle decode input clock runtime" ;;
            present) echo "present subtitle decode input clock runtime" ;;
            decode) echo "decode input clock runtime" ;;
            subtitle) echo "subtitle input clock runtime" ;;
            input) echo "input clock runtime" ;;
            output) echo "output input clock runtime" ;;
            clock) echo "clock runtime" ;;
            runtime) echo "runtime" ;;
            c) echo "c runtime" ;;
        esac
    }
    rooms="c control playtask present subtitle decode input output clock runtime"
    for room in $rooms; do
        for other in $rooms; do
            case " $(allowed "$room") " in
                *" $other "*) ;;
                *) grep -rn "#include [\"<]$other/" "src/$room" ;;
            esac
        done
        grep -rn '#include ["<]\.\./' "src/$room"
    done
    # Third-party headers stay out of the public ones: a standard header has no dot and no slash in its name. The C
    # header is alone with two of C's.
    grep -rnE '#include' include/kelp_player --exclude=kelp_player_c.h |
        grep -vE '#include (<[a-z_0-9]+>|"kelp_player/[a-z_]+\.h")'
    grep -nE '#include' include/kelp_player/kelp_player_c.h /dev/null | grep -vE '#include <std(def|int)\.h>'
)
if [ -n "$bad" ]; then
    echo "included against the order:"
    echo "$bad"
    exit 1
fi
echo "every include runs the right way"
