#!/bin/sh
# Fails when a function of the C interface is called by none of the tests beside this. Argument: the project's root.
set -u
cd "$1" || exit 1
functions=$(sed -n 's/^KELP_C_API [^(]*\(kelp_[a-z0-9_]*\)(.*/\1/p' include/kelp_player/kelp_player_c.h)
failed=0
count=0
for function in $functions; do
    count=$((count + 1))
    grep -qE "(^|[^a-z0-9_])$function\(" tests/c/*.c || { echo "no test calls $function"; failed=1; }
done
echo "$count functions"
[ "$count" -gt 0 ] && [ "$count" = "$(grep -c '^KELP_C_API' include/kelp_player/kelp_player_c.h)" ] && exit $failed
