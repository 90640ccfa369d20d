#!/usr/bin/env bash
# Installs into a new prefix and builds hosts against it in an empty folder, by CMake and by pkg-config, and one in C;
# each plays a file. Arguments: the build folder, the folder of the host's sources, a media file, the compiler, the library's version
# and its soname.
set -euo pipefail
build=$1 consumer=$2 media=$3 compiler=$4 version=$5 soname=$6
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix
unset CMAKE_PREFIX_PATH PKG_CONFIG_PATH

fail() {
    echo "FAILED: $*"
    exit 1
}

cmake --install "$build" --prefix "$scratch/first" >"$scratch/log" || { cat "$scratch/log"; fail "no installation"; }
mv "$scratch/first" "$prefix"  # wherever it lies: no file may hold a path of the installation
find "$prefix" -name '*.a' -o -name '*_test*' | grep . && fail "more than the library"
lib=$(dirname "$(find "$prefix" -name libkelp_player.so)")
notices=share/doc/libkelp-player${soname##*.}
for file in include/kelp_player/kelp_player.h $notices/THIRD_PARTY_NOTICES.md; do
    [ -s "$prefix/$file" ] || fail "no $file"
done
[ ! -e /usr/share/doc/libavformat-dev/copyright ] || [ -s "$prefix/$notices/licenses/libavformat-dev.txt" ] ||
    fail "no notice of FFmpeg"
[ -s "$lib/libkelp_player.so.$version" ] || fail "no library of version $version"
objdump -p "$lib/libkelp_player.so" | grep -E "SONAME +$soname$" >/dev/null || fail "the soname isn't $soname"
grep -rIlE "$scratch|$build" "$prefix" --include='*.cmake' --include='*.pc' && fail "paths of the build"

mkdir "$scratch/cmake" "$scratch/pkg-config" "$scratch/c"
cp "$consumer"/* "$scratch/cmake/"
cp "$consumer/main.cpp" "$scratch/pkg-config/"
cp "$(dirname "$consumer")/c_consumer"/* "$scratch/c/"

cd "$scratch/cmake"
cmake -B build -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$compiler" >"$scratch/log" 2>&1 &&
    cmake --build build >>"$scratch/log" 2>&1 || { cat "$scratch/log"; fail "no host with CMake"; }
build/consumer "$media" || fail "the host made with CMake"
sed -i 's/0\.1 REQUIRED/99 REQUIRED/' CMakeLists.txt
cmake -B other -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$compiler" >"$scratch/log" 2>&1 &&
    fail "a version that isn't there was found"
grep -q "version: $version" "$scratch/log" || { cat "$scratch/log"; fail "CMake found another version"; }

cd "$scratch/pkg-config"
export PKG_CONFIG_PATH=$lib/pkgconfig
[ "$(pkg-config --modversion kelp_player)" = "$version" ] || fail "pkg-config knows another version"
"$compiler" -std=c++20 main.cpp $(pkg-config --cflags --libs kelp_player) -o consumer
LD_LIBRARY_PATH=$lib ./consumer "$media" || fail "the host made with pkg-config"

cd "$scratch/c"
cmake -B build -DCMAKE_PREFIX_PATH="$prefix" >"$scratch/log" 2>&1 && cmake --build build >>"$scratch/log" 2>&1 ||
    { cat "$scratch/log"; fail "no host in C with CMake"; }
build/c_consumer "$media" || fail "the host in C"
echo "all as expected"
