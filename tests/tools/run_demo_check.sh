#!/bin/bash
# Runs `kelo_bag demo` and checks what it leaves: exit 0, bags that `kelo_bag info` and
# @mcap/core read alike, holding every message the recorder took, and a playback of every
# message in its range.
# Usage: run_demo_check.sh <kelo_bag> <work dir>
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
tool="$1"
work="$2"
if [ ! -d "$here/../interop/node_modules/@mcap/core" ]; then
  echo "tests/interop/node_modules is missing: run 'npm ci' in tests/interop" >&2
  exit 1
fi
rm -rf "$work" "$work.log" "$work.full.log"
"$tool" demo "$work" > "$work.log"
grep -q "^demo done: " "$work.log"
# "the recorder received N messages (...), none lost" or "...; D of them lost: ..."
taken=$(sed -n 's/^the recorder received \([0-9]*\) messages.*/\1/p' "$work.log")
[ -n "$taken" ] || { echo "the demo did not say what it recorded" >&2; exit 1; }
dropped=$(sed -n 's/^the recorder received .*; \([0-9]*\) of them lost.*/\1/p' "$work.log")
dropped=${dropped:-0}
"$tool" info --json "$work"/*.kelobag > "$work/info.json"
node "$here/check_demo_bags.mjs" "$work" "$work/info.json" "$((taken - dropped))"
# Its playback delivers every message of the range it plays, as cat finds them there.
read -r bag duration < <(sed -n 's/^== kelo_bag play \(.*\) --duration \([0-9]*\)$/\1 \2/p' "$work.log")
played=$(sed -n 's/^played \([0-9]*\) messages.*/\1/p' "$work.log")
expected=$("$tool" cat --duration "$duration" "$bag" | wc -l)
[ "$played" = "$expected" ] || { echo "the demo played $played messages of the $expected in its range" >&2; exit 1; }
# On a disk too small for it (its data compresses well: 1 MB held all of it in some
# builds), the demo loses messages: it must say so and fail.
mkdir -p "$work.full" && mount -t tmpfs -o size=256k tmpfs "$work.full"
code=0; "$tool" demo "$work.full/demo" > "$work.full.log" 2>&1 || code=$?
umount "$work.full"
[ $code = 1 ] && grep -q "^demo done with problems: " "$work.full.log" ||
  { echo "on a full disk the demo exited $code and said: $(grep '^demo' "$work.full.log")" >&2; exit 1; }
