#!/usr/bin/env bash
# Makes the reference of the public headers; any warning of doxygen is a failure. Argument: the folder to make it in.
set -euo pipefail
cd "$(dirname "$0")/../.."
mkdir -p "$1"
version=$(sed -n 's/^project(kelp_player VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
warnings=$({ cat docs/Doxyfile; echo "OUTPUT_DIRECTORY = $1"; echo "PROJECT_NUMBER = $version"; } | doxygen - 2>&1)
[ -s "$1/html/classkelp_1_1KelpPlayer.html" ] || { echo "$warnings"; echo "no reference"; exit 1; }
[ -z "$warnings" ] || { echo "$warnings"; exit 1; }
echo "$1/html/index.html"
