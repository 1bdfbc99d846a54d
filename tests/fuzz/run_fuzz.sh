#!/bin/bash
# Builds the fuzz targets with clang and runs each briefly from its seed corpus
# (corpus/<name> for the target <name>_fuzzer).
# Usage: tests/fuzz/run_fuzz.sh [build dir] (default /tmp/kelo-bag-fuzz); FUZZ_SECONDS
# sets the time per target (default 30), FUZZ_RUNS an optional number of executions after
# which a target stops sooner, FUZZ_UNTIL an optional deadline (seconds since the epoch) that
# no target runs past, FUZZ_TARGETS the targets in the order they start (default: all), and
# FUZZ_SANITIZE=OFF builds them without the sanitizers (several times faster, for long runs),
# FUZZ_CORPUS the folder of the corpora the run starts from and grows (default <build>/corpus).
# Two targets run at a time; each one's output follows a line "== <target>". Exits non-zero
# when a target finds a crash.
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
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFUZZ_SANITIZE="${FUZZ_SANITIZE:-ON}" > "$build/configure.log" 2>&1 ||
  { cat "$build/configure.log"; exit 1; }
cmake --build "$build" -j2

runs="${FUZZ_RUNS:-}"
targets=${FUZZ_TARGETS:-$(cd "$build" && ls -- *_fuzzer 2>/dev/null || true)}
[ -n "$targets" ] || { echo "no fuzz targets were built" >&2; exit 1; }
mkdir -p "$build/artifacts" "$build/logs"
run() {
  local fuzzer=$1 corpus="${FUZZ_CORPUS:-$build/corpus}/$1" seeds="$here/corpus/${1%_fuzzer}"
  [ -d "$seeds" ] || seeds=""
  mkdir -p "$corpus"  # what the run discovers stays out of the repo
  local limit=$seconds
  if [ -n "${FUZZ_UNTIL:-}" ]; then
    limit=$((FUZZ_UNTIL - $(date +%s)))
    [ "$limit" -gt "$seconds" ] && limit=$seconds
    [ "$limit" -ge 1 ] || limit=1
  fi
  # Corrupt input may legitimately expand (a compressed chunk) but never to gigabytes; a
  # hang shows up as a timeout. The targets' own output (the option parser's complaints)
  # is dropped; libFuzzer's and the sanitizers' reports are kept.
  # A command line longer than 4 KB parses no differently, only slower.
  local max_len=65536
  [ "$fuzzer" = command_line_fuzzer ] && max_len=4096
  if "$build/$fuzzer" -max_total_time="$limit" ${runs:+-runs="$runs"} -timeout=10 -reload=0 \
      -rss_limit_mb=2048 -malloc_limit_mb=1024 -max_len=$max_len -close_fd_mask=3 \
      -print_final_stats=1 -artifact_prefix="$build/artifacts/" "$corpus" ${seeds:+"$seeds"} \
      > "$build/logs/$fuzzer.log" 2>&1; then
    rm -f "$build/logs/$fuzzer.failed"
  else
    touch "$build/logs/$fuzzer.failed"
  fi
}
for fuzzer in $targets; do
  while [ "$(jobs -rp | wc -l)" -ge 2 ]; do wait -n || true; done
  run "$fuzzer" &
done
wait
status=0
for fuzzer in $targets; do
  echo "== $fuzzer"
  cat "$build/logs/$fuzzer.log"
  if [ -e "$build/logs/$fuzzer.failed" ]; then
    echo "$fuzzer failed; reproducer in $build/artifacts/" >&2
    status=1
  fi
done
exit $status
