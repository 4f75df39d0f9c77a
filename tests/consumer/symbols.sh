#!/usr/bin/env bash
# The shared object has its SONAME and exports the public interface
# (VantDRCore::) and the C++ runtime's weak template instances, and nothing
# else: the platform layer linked into it (VLIBC..., VANT::RANDOM::) stays
# hidden.
set -euo pipefail
lib=$1
readelf -d "$lib" | grep -q 'SONAME.*libvantdrcore\.so\.[0-9]' || { echo "no SONAME"; exit 1; }
exports=$(nm -D --defined-only --demangle "$lib")
# Not a pipe: grep -q leaving early would kill echo with SIGPIPE once the
# list outgrows the pipe's buffer, and pipefail would report the symbol missing.
grep -q 'VantDRCore::GetLibraryVersion()' <<<"$exports" ||
  { echo "the public interface is not exported"; exit 1; }
stray=$(echo "$exports" | awk '{ type = $2; $1 = $2 = ""; print type "|" $0 }' |
  grep -v -E '^.\| *.*VantDRCore::' | grep -v -E '^[WVu]\| .*std::' || true)
if [ -n "$stray" ]; then
  echo "symbols outside the public interface:"
  echo "$stray"
  exit 1
fi
echo "exports: $(echo "$exports" | wc -l) symbols, all public"
