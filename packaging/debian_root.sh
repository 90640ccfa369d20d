#!/usr/bin/env bash
# Makes a clean Debian root from the mirror that this machine's apt uses.
#
#   packaging/debian_root.sh SUITE FOLDER [PACKAGE...]
#
# FOLDER must not be there yet. What debootstrap can't resolve, like packages that are provided under other names, is
# left to apt inside the root, so it has just the base. Wants root. Exit code 77: not to be had on this machine, as the
# last line says why.
set -euo pipefail
suite=$1
root=$2
shift 2

unavailable() {
    echo "no Debian root: $*"
    exit 77
}

[ "$(id -u)" = 0 ] || unavailable "it can only be made by root"
if ! command -v debootstrap >/dev/null; then
    apt-get install -y -q --no-install-recommends debootstrap >/dev/null || unavailable "debootstrap is missing"
fi
# The mirror that apt uses for Debian itself, and what else it needs to know to get there.
mirror=$(apt-get indextargets --format '$(REPO_URI)' "Created-By: Packages" \
    "Codename: $(. /etc/os-release && echo "$VERSION_CODENAME")" 2>/dev/null | awk 'NR == 1')
[ -n "$mirror" ] || unavailable "apt knows no mirror"

log=$root.log
mkdir -p "$(dirname "$root")"
part=$root.part
finished=
clean_up() {
    umount "$part/proc" 2>/dev/null || true
    [ -n "$finished" ] || rm -rf --one-file-system "$part"
}
trap clean_up EXIT
for try in 1 2 3; do
    rm -rf --one-file-system "$part"
    mkdir -p "$part"
    chmod 755 "$part"
    debootstrap --variant=minbase "$suite" "$part" "$mirror" >"$log" 2>&1 && break
    [ "$try" -lt 3 ] || { tail -n 20 "$log"; unavailable "debootstrap failed"; }
    sleep 5
done
cp /etc/resolv.conf "$part/etc/resolv.conf"
mkdir -p "$part/etc/apt/apt.conf.d"
apt-config dump Acquire | grep -iE 'proxy' >"$part/etc/apt/apt.conf.d/90proxy" || true
echo 'Acquire::Retries "5";' >"$part/etc/apt/apt.conf.d/90retries"
mount -t proc proc "$part/proc" 2>/dev/null || true
run() { env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C DEBIAN_FRONTEND=noninteractive chroot "$part" "$@"; }
run true || unavailable "chroot isn't allowed"
run apt-get update -q >>"$log" 2>&1 || { tail -n 20 "$log"; unavailable "apt-get update failed in it"; }
if [ $# -gt 0 ]; then
    run apt-get install -y -q --no-install-recommends "$@" >>"$log" 2>&1 ||
        { tail -n 20 "$log"; unavailable "apt-get install failed in it"; }
fi
umount "$part/proc" 2>/dev/null || true
mv "$part" "$root"
finished=yes
