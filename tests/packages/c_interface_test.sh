#!/usr/bin/env bash
# Compares the C interface with its checked-in description, see docs/abi.md: what the library exports of it, with the
# types that its header gives that. What is described is a library that is made here, of a pointer to each function and
# a variable of each enumeration, so that nothing of the sources is in it. Arguments: the library, the folder of the
# headers, the C compiler and the description; with --update as the fifth the description is written anew. Without
# libabigail it ends with 77, in CI with 1.
set -euo pipefail
export LC_ALL=C
library=$1 include=$2 compiler=$3 description=$4
type abidw abidiff >/dev/null 2>&1 || { echo "libabigail isn't installed"; [ -n "${CI:-}" ] && exit 1; exit 77; }
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
header=$include/kelp_player/kelp_player_c.h

exported=$(nm -D --defined-only "$library" | sed -n 's/.* T \(kelp_[a-z0-9_]*\)@@KELP_PLAYER_0$/\1/p' | sort)
declared=$(sed -n 's/^KELP_C_API [^(]*\(kelp_[a-z0-9_]*\)(.*/\1/p' "$header" | sort)
diff <(echo "$declared") <(echo "$exported") || { echo "the header declares (<) other functions than are exported (>)"; exit 1; }
{
    echo '#include <kelp_player/kelp_player_c.h>'
    for name in $exported; do
        echo "__typeof__(&$name) the_$name = $name;"
    done
    for name in $(sed -n 's/^enum \(kelp_[a-z_]*\) {$/\1/p' "$header"); do
        echo "enum $name the_enum_$name;"
    done
} >"$scratch/interface.c"
"$compiler" -std=gnu99 -g -shared -fPIC -I"$include" -Wl,-soname,libinterface.so "$scratch/interface.c" "$library" \
    -Wl,-z,defs -o "$scratch/libinterface.so"
abidw --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed --no-architecture --no-parameter-names \
    --type-id-style hash --out-file "$scratch/now.abi" "$scratch/libinterface.so"
if [ "${5:-}" = --update ]; then
    cp "$scratch/now.abi" "$description"
    exit
fi
report=$(abidiff --harmless --no-show-locs "$description" "$scratch/now.abi") || {
    echo "$report"
    echo "The C interface isn't what $description says. What docs/abi.md allows is taken over by"
    echo "  $0 ${*@Q} --update"
    exit 1
}
echo "$(echo "$exported" | wc -l) functions, as described"
