#!/usr/bin/env bash
# The shared object exports the public interface (VantDRCore::), the
# platform layer (VLIBC..., VANT::RANDOM::) and the C++ runtime's weak
# template instances, and nothing else.
set -euo pipefail
lib=$1
readelf -d "$lib" | grep -q 'SONAME.*libvantdrcore\.so\.[0-9]' || { echo "no SONAME"; exit 1; }
stray=$(nm -D --defined-only --demangle "$lib" | awk '{ type = $2; $1 = $2 = ""; print type "|" $0 }' |
  grep -v -E '^.\| *(.*VantDRCore::|VLIBC[A-Za-z]+$|.*VANT::RANDOM::)' |
  grep -v -E '^[WVu]\| .*std::' || true)
if [ -n "$stray" ]; then
  echo "symbols outside the public interface:"
  echo "$stray"
  exit 1
fi
echo "exports: $(nm -D --defined-only "$lib" | wc -l) symbols, all public"
