#!/usr/bin/env bash
# Installs the built library into a scratch prefix and builds a consumer against
# it twice: with find_package(Korvo) and with pkg-config. Neither consumer asks
# for a language standard of its own: the package must carry C++20 to it.
set -euo pipefail
build_dir=$1
source_dir=$2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build_dir" --prefix "$prefix" > /dev/null
test -L "$prefix/lib/libKorvo.so.0" -o -L "$prefix/lib/x86_64-linux-gnu/libKorvo.so.0"

cmake -S "$source_dir" -B "$prefix/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" > /dev/null
cmake --build "$prefix/consumer" > /dev/null
libdir=$(dirname "$(find "$prefix" -name libKorvo.so.0 | head -n 1)")
LD_LIBRARY_PATH="$libdir" "$prefix/consumer/consumer"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
c++ "$source_dir/main.cpp" -o "$prefix/pc-consumer" $(pkg-config --cflags --libs korvo)
LD_LIBRARY_PATH="$libdir" "$prefix/pc-consumer"
readelf -d "$libdir/libKorvo.so.0" | grep -q 'SONAME.*libKorvo.so.0'
echo "install check passed"
