#!/bin/bash
# Builds the fuzz targets with clang and runs each briefly from its seed corpus
# (corpus/<name> for the target <name>_fuzzer).
# Usage: tests/fuzz/run_fuzz.sh [build dir] (default /tmp/kelo-bag-fuzz); FUZZ_SECONDS
# sets the time per target (default 30). Exits non-zero when a target finds a crash.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="${1:-/tmp/kelo-bag-fuzz}"
seconds="${FUZZ_SECONDS:-30}"

mkdir -p "$build"
# A build folder configured from another checkout cannot be reused.
if [ -f "$build/CMakeCache.txt" ] && ! grep -q "^CMAKE_HOME_DIRECTORY:INTERNAL=$here\$" "$build/CMakeCache.txt"; then
  rm -rf "$build"
  mkdir -p "$build"
fi
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo > "$build/configure.log" 2>&1 ||
  { cat "$build/configure.log"; exit 1; }
cmake --build "$build" -j2

status=0
targets=$(cd "$build" && ls -- *_fuzzer 2>/dev/null || true)
[ -n "$targets" ] || { echo "no fuzz targets were built" >&2; exit 1; }
for fuzzer in $targets; do
  corpus="$build/corpus/$fuzzer"  # what the run discovers stays out of the repo
  seeds="$here/corpus/${fuzzer%_fuzzer}"
  [ -d "$seeds" ] || seeds=""
  mkdir -p "$corpus" "$build/artifacts"
  echo "running $fuzzer for ${seconds}s"
  # Corrupt input may legitimately expand (a compressed chunk) but never to gigabytes;
  # a hang shows up as a timeout.
  if ! "$build/$fuzzer" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -malloc_limit_mb=1024 -max_len=65536 -print_final_stats=1 \
      -artifact_prefix="$build/artifacts/" "$corpus" ${seeds:+"$seeds"}; then
    echo "$fuzzer failed; reproducer in $build/artifacts/" >&2
    status=1
  fi
done
exit $status
