#!/bin/sh
# Fails when a function of the C interface is called by none of the tests beside this or stands in the header or in the
# linker's map alone, when an operation of TarnPlayer has none, and when the shortest host in C isn't short. Argument:
# the project's root.
set -u
export LC_ALL=C
cd "$1" || exit 1
header=include/kelp_player/kelp_player_c.h
functions=$(sed -n 's/^KELP_C_API [^(]*\(kelp_[a-z0-9_]*\)(.*/\1/p' $header | sort)
mapped=$(sed -n 's/^    \(kelp_[a-z0-9_]*\);$/\1/p' cmake/kelp_player.map | sort)
failed=0
count=0
for function in $functions; do
    count=$((count + 1))
    grep -qE "(^|[^a-z0-9_])$function\(" tests/c/*.c || { echo "no test calls $function"; failed=1; }
done
[ "$functions" = "$mapped" ] || { echo "the header and the map don't have the same functions"; failed=1; }

# Those of other names here: the stall observer's calls are among the player's events.
operations=$(sed -n '/^class KELP_PLAYER_API TarnPlayer/,/^private:/s/^    [a-z][^(\/]* \**\([a-z][A-Za-z]*\)(.*/\1/p' \
    include/kelp_player/tarn_player.h | sort -u)
for operation in $operations; do
    case $operation in
        getAudioDevices) name=kelp_get_audio_devices ;;
        getPlayDetailInfo) name=kelp_player_get_info ;;
        setAVSyncMode) name=kelp_player_set_sync_master ;;
        setOffsetToClockMs) name=kelp_player_set_offset ;;
        setStallObserver) name=kelp_player_create ;;
        setSyncClock) name=kelp_player_set_clock ;;
        *) name=kelp_player_$(echo "$operation" | sed 's/\([A-Z]\)/_\1/g' | tr '[:upper:]' '[:lower:]') ;;
    esac
    echo "$functions" | grep -qx "$name" || { echo "TarnPlayer::$operation isn't there for C"; failed=1; }
done
[ "$(echo "$operations" | wc -l)" -gt 30 ] || { echo "the operations of TarnPlayer weren't found"; failed=1; }

[ "$(wc -l <examples/c_host/main.c)" -lt 60 ] || { echo "the shortest host in C has 60 lines or more"; failed=1; }
echo "$count functions"
[ "$count" -gt 0 ] && [ "$count" = "$(grep -c '^KELP_C_API' $header)" ] && exit $failed
