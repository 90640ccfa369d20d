#!/usr/bin/env bash
# Compares what the library exports with the checked-in list. Arguments: the library, the list; with --update as a
# third one the list is written anew.
set -euo pipefail
export LC_ALL=C
# The C++ symbols have a version of their own, which says nothing of any one of them.
exported=$(nm -DC --defined-only "$1" | cut -c 20- | sed 's/@@KELP_PLAYER_CXX$//' | sort -u)
if [ "${3:-}" = --update ]; then
    printf '%s\n' "$exported" >"$2"
    exit
fi
diff -u "$2" <(printf '%s\n' "$exported") || {
    echo "The library exports something else than $2 says."
    echo "Meant so? Put it into cmake/kelp_player.map, if need be, and run: $0 $1 $2 --update"
    exit 1
}
echo "$(wc -l <"$2") symbols, as listed"
