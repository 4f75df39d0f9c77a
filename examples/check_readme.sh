#!/usr/bin/env bash
# Every code block in README.md that follows a line
#   <!-- example: examples/usage/NAME.cpp -->
# must be that file, byte for byte.
set -euo pipefail
root=$1
status=0
count=0
while IFS= read -r file; do
  count=$((count + 1))
  block=$(awk -v marker="<!-- example: $file -->" '
    $0 == marker { found = 1; next }
    found && /^```/ { if (inside) exit; inside = 1; next }
    inside { print }' "$root/README.md")
  if [ "$block" != "$(cat "$root/$file")" ]; then
    echo "README.md block for $file differs from the file"
    status=1
  fi
done < <(sed -n 's/^<!-- example: \(.*\) -->$/\1/p' "$root/README.md")
[ "$count" -gt 0 ] || { echo "no examples found in README.md"; exit 1; }
echo "$count README examples match their files"
exit $status
