#!/bin/sh
# Compiles every public header alone, with nothing but the public include folder. Arguments: the project's root and
# the compiler.
set -u
failed=0
count=0
for header in "$1"/include/kelp_player/*.h; do
    name=$(basename "$header")
    count=$((count + 1))
    if ! printf '#include "kelp_player/%s"\nint main() { return 0; }\n' "$name" |
        "$2" -std=c++20 -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Werror -fsyntax-only \
            -I"$1/include" -x c++ -; then
        echo "$name doesn't compile alone"
        failed=1
    fi
done
# The C header alone by what hosts in C have, and by the C++ of long ago.
c=$1/include/kelp_player/kelp_player_c.h
for compiler in gcc clang; do
    if ! command -v $compiler >/dev/null; then
        echo "no $compiler here"
        [ -z "${CI:-}" ] || failed=1
        continue
    fi
    for language in "c -std=c99" "c++ -std=c++98"; do
        # shellcheck disable=SC2086
        if ! $compiler -x $language -Wall -Wextra -pedantic -Werror -fsyntax-only "$c"; then
            echo "the C header doesn't compile with $compiler as $language"
            failed=1
        fi
    done
done
echo "$count headers compiled"
[ "$count" -gt 0 ] && exit $failed
