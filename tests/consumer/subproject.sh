#!/usr/bin/env bash
# A consumer builds VantDRCore with add_subdirectory on a machine without
# GoogleTest (find_package(GTest) disabled): it configures and builds the
# library alone, with none of our tests, examples, bench or fuzz targets, and
# the consumer runs.
set -euo pipefail
source_dir=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/vantdr_subproject.XXXXXX)
trap 'rm -rf "$work"' EXIT

cmake -S "$here/subproject" -B "$work/build" -DVANTDR_SOURCE_DIR="$source_dir" \
  -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON \
  >"$work/log" 2>&1 || { cat "$work/log"; echo "configure failed"; exit 1; }
targets=$(cmake --build "$work/build" --target help)
for target in vantdrcore consumer; do
  grep -q -E "^\.\.\. $target\$" <<<"$targets" || { echo "no target $target"; exit 1; }
done
extra=$(grep -E '^\.\.\. .*(_test|_example|_fuzz|vantdr_demo|vantdr_bench|vantdr_test_support)$' \
  <<<"$targets" || true)
[ -z "$extra" ] || { echo "targets a library-only build must not have:"; echo "$extra"; exit 1; }
grep -q -E '^\.\.\. (install|package)$' <<<"$targets" &&
  { echo "install rules generated for a subproject"; exit 1; }
cmake --build "$work/build" -j2 >>"$work/log" 2>&1 || { cat "$work/log"; echo "build failed"; exit 1; }
mkdir "$work/run"
"$work/build/consumer" "$work/run"
echo "subproject check passed"
