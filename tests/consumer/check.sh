#!/usr/bin/env bash
# Installs the built library into a temporary prefix, then builds and runs a
# consumer outside the source tree, once through find_package and once
# through pkg-config.
set -euo pipefail
build_dir=$1
here=$(cd "$(dirname "$0")" && pwd)
. "$here/consume.sh"
work=$(mktemp -d /tmp/vantdr_consumer.XXXXXX)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
libdir=$(dirname "$(find "$work/prefix" -name 'libvantdrcore.so' | head -n1)")
export LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
export CMAKE_PREFIX_PATH="$work/prefix"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
consume "$here" "$work"
echo "consumer check passed (find_package and pkg-config)"

# find_package as consumers call it, JsonCpp found each way or not at all.
probe() {
  local name=$1 expect=$2
  shift 2
  rm -rf "$work/probe"
  local status=0
  cmake -S "$here/probe" -B "$work/probe" "$@" >"$work/probe.log" 2>&1 || status=$?
  if ! grep -q -F -- "$expect" "$work/probe.log"; then
    echo "probe '$name': expected '$expect' in:"
    cat "$work/probe.log"
    exit 1
  fi
  echo "probe '$name': $expect"
  return $status
}
no_jsoncpp=(-DCMAKE_DISABLE_FIND_PACKAGE_jsoncpp=ON -DCMAKE_DISABLE_FIND_PACKAGE_PkgConfig=ON)
probe "JsonCpp's CMake package" "probe: found=[1] stray=[]"
probe "JsonCpp loaded by the consumer first" "probe: found=[1] stray=[]" -DPROBE_JSONCPP_FIRST=ON
probe "JsonCpp through pkg-config" "probe: found=[1] stray=[]" \
  -DCMAKE_DISABLE_FIND_PACKAGE_jsoncpp=ON
cmake --build "$work/probe" >/dev/null
mkdir "$work/run3"
"$work/probe/consumer" "$work/run3" >/dev/null
probe "no JsonCpp, QUIET" "probe: found=[0] stray=[]" "${no_jsoncpp[@]}"
if probe "no JsonCpp, REQUIRED" "VantDRCore needs JsonCpp" -DPROBE_REQUIRED=ON "${no_jsoncpp[@]}"; then
  echo "find_package(VantDRCore REQUIRED) succeeded without JsonCpp"
  exit 1
fi
echo "find_package checks passed"
