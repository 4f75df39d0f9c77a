#!/usr/bin/env bash
# Builds the amd64 Debian packages, installs them into this machine with
# dpkg, builds and runs the consumer against /usr through find_package and
# pkg-config, and purges the packages again. Needs root.
set -euo pipefail
source_dir=$1 build_dir=$2
here=$(cd "$(dirname "$0")" && pwd)
. "$here/consume.sh"
[ "$(id -u)" -eq 0 ] || { echo "needs root: skipped"; exit 77; }
for p in libvantdrcore1 libvantdrcore-dev; do
  if dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed"; then
    echo "$p is installed already; not replacing it: skipped"
    exit 77
  fi
done
work=$(mktemp -d /tmp/vantdr_package.XXXXXX)

# dpkg refuses at once while another apt or dpkg runs: wait for it.
dpkg_retry() {
  local try
  for try in $(seq 60); do
    dpkg "$@" >"$work/dpkg.log" 2>&1 && return 0
    grep -q "lock" "$work/dpkg.log" || break
    sleep 10
  done
  cat "$work/dpkg.log"
  return 1
}
cleanup() {
  dpkg_retry -P libvantdrcore-dev libvantdrcore1 || true
  rm -rf "$work"
}
trap cleanup EXIT

VANTDR_PACKAGE_DIR="$work/debs" VANTDR_PACKAGE_BUILD="$build_dir/package" \
  "$source_dir/scripts/package" amd64 >/dev/null
dpkg_retry -i "$work"/debs/libvantdrcore1_*_amd64.deb "$work"/debs/libvantdrcore-dev_*_amd64.deb
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || echo x86_64-linux-gnu)
for f in /usr/lib/$multiarch/libvantdrcore.so.1 /usr/lib/$multiarch/libvantdrcore.so \
         /usr/include/vantdr/version.h /usr/lib/$multiarch/cmake/VantDRCore/VantDRCoreConfig.cmake \
         /usr/lib/$multiarch/pkgconfig/vantdrcore.pc; do
  [ -e "$f" ] || { echo "missing after install: $f"; exit 1; }
done

unset CMAKE_PREFIX_PATH PKG_CONFIG_PATH LD_LIBRARY_PATH
consume "$here" "$work"
ldd "$work/consumer-pc" | grep -q -E "libvantdrcore.so.1 => (/usr)?/lib/$multiarch/libvantdrcore.so.1 " ||
  { echo "the consumer does not load the installed library"; ldd "$work/consumer-pc"; exit 1; }

dpkg_retry -P libvantdrcore-dev libvantdrcore1
[ ! -e "/usr/lib/$multiarch/libvantdrcore.so.1" ] || { echo "library left after removal"; exit 1; }
echo "package install test passed (dpkg -i, find_package, pkg-config, dpkg -P)"
