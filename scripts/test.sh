#!/usr/bin/env bash
# Installs what is missing, then builds and runs every test in the release, asan
# (AddressSanitizer + UndefinedBehaviorSanitizer) and tsan (ThreadSanitizer) configurations.
# Usage: scripts/test.sh [preset...]     (default: release asan tsan)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

presets=("$@")
if [ ${#presets[@]} -eq 0 ]; then
  presets=(release asan tsan)
fi

if [ -f tests/interop/package-lock.json ]; then
  (cd tests/interop && npm ci --no-audit --no-fund --loglevel=error)
fi

for preset in "${presets[@]}"; do
  echo "=== $preset: configure and build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$(nproc)"
  echo "=== $preset: test"
  ctest --preset "$preset" -j "$(nproc)"
done

if [ -x tests/fuzz/run_fuzz.sh ]; then
  echo "=== fuzz"
  tests/fuzz/run_fuzz.sh build/fuzz
fi
if [ -x build/release/tools/kelo_bag ]; then
  echo "=== reliability (short run)"
  scripts/reliability.sh --quick --out build/release/reliability-quick.md
fi
echo "all tests passed: ${presets[*]}"
