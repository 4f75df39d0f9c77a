#!/usr/bin/env bash
# The demo tells its story within 150 lines, and what it shows happened: a
# real lock failure in the error record, eight stale readers served old data
# with a single fetch, INFO lines only with --verbose.
set -euo pipefail
# The arguments are the command that runs the demo (an emulator may come first).
out=$("$@")
fail() { echo "demo: $1"; echo "$out"; exit 1; }
lines=$(wc -l <<<"$out")
[ "$lines" -lt 150 ] || fail "$lines lines, more than 149"
grep -q -F 'GetErr() .................... {"err_code":405,' <<<"$out" || fail "no lock failure recorded"
[ "$(grep -c -E '^    reader [0-9]+ ' <<<"$out")" -eq 8 ] || fail "not 8 readers"
grep -q -E '^    fetches \.+ 1, by pid [0-9]+$' <<<"$out" || fail "not exactly one fetch"
! grep -q '\[INFO\]' <<<"$out" || fail "INFO lines without --verbose"
verbose=$("$@" --verbose)
grep -q '\[INFO\].*Exec cmd: INSERT INTO job' <<<"$verbose" || fail "--verbose shows no INFO lines"
echo "demo output checked ($lines lines)"
