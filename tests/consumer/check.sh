#!/usr/bin/env bash
# Installs the built library into a temporary prefix, then builds and runs a
# consumer outside the source tree, once through find_package and once
# through pkg-config.
set -euo pipefail
build_dir=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/vantdr_consumer.XXXXXX)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
libdir=$(dirname "$(find "$work/prefix" -name 'libvantdrcore.so' | head -n1)")
export LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"

cmake -S "$here" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
mkdir -p "$work/run1" "$work/run2"
"$work/cmake-build/consumer" "$work/run1"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++17 -o "$work/consumer-pc" "$here/consumer.cpp" $(pkg-config --cflags --libs vantdrcore)
"$work/consumer-pc" "$work/run2"
echo "consumer check passed (find_package and pkg-config)"
