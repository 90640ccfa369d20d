#!/usr/bin/env bash
# Installs the .deb packages in a clean Debian root, builds hosts there against them, in C++ and in C, plays a file with
# each, and takes the packages off again. Needs root, debootstrap and the machine's Debian mirror, and ends with 77 where it can't have them; the
# clean root is kept for the next time.
# Arguments: the folder of the packages, one for the kept root, the folder of the host's sources, and a media file.
set -euo pipefail
packages=$1
cache=$2
consumer=$3
media=$4
suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
root=

say() { printf '== %s\n' "$*"; }

clean_up() {
    [ -n "$root" ] || return 0
    umount "$root/proc" 2>/dev/null || true
    rm -rf --one-file-system "$root"
}
trap clean_up EXIT

run() { env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C DEBIAN_FRONTEND=noninteractive chroot "$root" "$@"; }

mkdir -p "$cache"
clean=$cache/$suite.tar
if [ ! -s "$clean" ]; then
    say "making a clean root of $suite"
    # What builds the host is there before: what the packages need has to come by themselves.
    root=$cache/$suite
    rm -rf --one-file-system "$root"
    "$(dirname "$0")/../../packaging/debian_root.sh" "$suite" "$root" g++ cmake make pkg-config
    tar -C "$root" -cf "$clean.part" .
    mv "$clean.part" "$clean"
    rm -rf --one-file-system "$root"
    root=
fi

say "unpacking the clean root"
root=$(mktemp -d "$cache/root.XXXXXX")
chmod 755 "$root"
tar -C "$root" -xf "$clean"
mount -t proc proc "$root/proc" 2>/dev/null || true
mkdir "$root/packages" "$root/consumer" "$root/c_consumer"
cp "$packages"/*.deb "$root/packages/"
cp "$consumer"/* "$root/consumer/"
cp "$(dirname "$consumer")/c_consumer"/* "$root/c_consumer/"
cp "$media" "$root/consumer/media"
run apt-get update -q >"$cache/apt.log" 2>&1 || { tail -n 20 "$cache/apt.log"; echo "no mirror: apt-get update failed"; exit 77; }

say "apt-get install ./*.deb"
# What the packages ask for has to be there; whether it can be fetched just now is the mirror's business.
run sh -c 'apt-get install -s -q --no-install-recommends /packages/*.deb' >>"$cache/apt.log" 2>&1 ||
    { tail -n 30 "$cache/apt.log"; exit 1; }
run sh -c 'apt-get install -y -q --download-only --no-install-recommends /packages/*.deb' >>"$cache/apt.log" 2>&1 ||
    { tail -n 30 "$cache/apt.log"; echo "no mirror: apt-get couldn't fetch what the packages need"; exit 77; }
run sh -c 'apt-get install -y -q --no-install-recommends /packages/*.deb' >>"$cache/apt.log" 2>&1 ||
    { tail -n 30 "$cache/apt.log"; exit 1; }
run dpkg-query -W -f '${Package} ${Version} ${db:Status-Status}\n' 'libkelp-player*' python3-kelp-player
run sh -c 'ldconfig -p | grep -F libkelp_player.so'

say "a host with CMake"
run sh -c 'cmake -S /consumer -B /consumer/build >/consumer/log 2>&1 && cmake --build /consumer/build >>/consumer/log 2>&1' ||
    { cat "$root/consumer/log"; exit 1; }
run /consumer/build/consumer /consumer/media
say "a host with pkg-config"
run sh -c 'g++ -std=c++20 /consumer/main.cpp $(pkg-config --cflags --libs kelp_player) -o /consumer/by_pkg_config'
run /consumer/by_pkg_config /consumer/media

say "hosts in C"
run sh -c 'cmake -S /c_consumer -B /c_consumer/build >/c_consumer/log 2>&1 && cmake --build /c_consumer/build >>/c_consumer/log 2>&1' ||
    { cat "$root/c_consumer/log"; exit 1; }
run sh -c 'gcc -std=c99 -Wall -Wextra -pedantic -Werror /c_consumer/main.c $(pkg-config --cflags --libs kelp_player) -pthread -o /c_consumer/by_pkg_config'
run /c_consumer/by_pkg_config /consumer/media

say "a host in Python"
run python3 /consumer/consumer.py /consumer/media

say "apt-get purge"
run sh -c 'apt-get purge -y -q "libkelp-player*" python3-kelp-player' >>"$cache/apt.log" 2>&1
left=$(run sh -c 'find / -xdev -path /packages -prune -o -path /consumer -prune -o -path /c_consumer -prune -o -iname "*kelp*" -print')
[ -z "$left" ] || { echo "left behind: $left"; exit 1; }
say "all as expected"
