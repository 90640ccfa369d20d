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
echo "$count headers compiled"
[ "$count" -gt 0 ] && exit $failed
